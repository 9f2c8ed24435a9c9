// The coordinator's node registry: attaching nodes to the host's records,
// finding them again, detaching and deleting them, and the two operations
// that only ask a node.
#include <cstdlib>

#include "fiprovlib/TarnError.h"
#include "fiprovlib/TraceMethod.h"
#include "kiv/frozenimagenode.h"
#include "kiv/kivficoordinator.h"
#include "tarn/tarnutil.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivficoordinator";

bool isGroupIdentity(const tarn_node* record, const tarn_objid* groupObjid) {
    return record != nullptr && tarn_objidcmp(record->objid, groupObjid) == 0;
}

}  // namespace

std::int32_t KivFiCoordinator::supportsFiType(tarn_node* record, const char* fiType) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::supportsFiType", __LINE__);
    FrozenImageNode* node = nodeOf(record);
    if (node == nullptr) {
        return kTarnInvalidRequest;
    }
    return node->supportsFiType(record, fiType);
}

// This provider does not build snapshot nodes yet, so it takes on no object:
// the host is told the operation is not supported rather than handed a
// record without a node.
std::int32_t KivFiCoordinator::initNode(tarn_node* /*record*/, void*, std::uint32_t, void*) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::initNode", __LINE__);
    return kTarnNotSupported;
}

std::int32_t KivFiCoordinator::initAltNode(tarn_node* /*source*/, void*, tarn_node* /*alternate*/) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::initAltNode", __LINE__);
    return kTarnNotSupported;
}

void KivFiCoordinator::deInitNode(tarn_node* record) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::deInitNode", __LINE__);
    if (record == nullptr) {
        return;
    }
    FrozenImageNode* node = nodeOf(record);
    if (isGroupIdentity(record, groupObjid_)) {
        groupNode_ = nullptr;
        groupNodeInitialised_ = false;
    }
    if (node != nullptr && nodes_.erase(node) != 0) {
        delete node;
    }
    record->provider_data = nullptr;

    tarn_fi_link* link = record->fi_list;
    while (link != nullptr) {
        std::free(link->first);
        link->first = nullptr;
        std::free(link->second);
        link->second = nullptr;
        tarn_fi_link* next = link->next;
        std::free(link);
        link = next;
    }
    record->fi_list = nullptr;
}

std::int32_t KivFiCoordinator::config(tarn_node* record, std::uint32_t operation, void* argument,
                                      tarn_config_request* request) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::config", __LINE__);
    FrozenImageNode* node = nodeOf(record);
    if (node == nullptr) {
        return kTarnInvalidRequest;
    }
    try {
        return node->config(record, operation, argument, request);
    } catch (TarnError& error) {
        return error.status();
    }
}
