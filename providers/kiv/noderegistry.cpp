// The coordinator's node registry: attaching nodes to the host's records,
// finding them again, detaching and deleting them, and the two operations
// that only ask a node.
#include <cstdlib>
#include <new>

#include "fiprovlib/TarnError.h"
#include "fiprovlib/TraceMethod.h"
#include "kiv/frozenimagenode.h"
#include "kiv/kivficoordinator.h"
#include "kiv/kivnode.h"
#include "tarn/tarnutil.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivficoordinator";
const char kFiType[] = "kiv-cow-snapshot";
constexpr std::uint32_t kAttachedFlags = 0x1002;

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

std::int32_t KivFiCoordinator::initNode(tarn_node* record, void*, std::uint32_t, void*) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::initNode", __LINE__);
    if (record == nullptr) {
        return kTarnInvalidRequest;
    }
    if (isGroupIdentity(record, groupObjid_)) {
        // The group object gets one node only; a second record is left alone.
        if (groupNodeInitialised_) {
            return kTarnSuccess;
        }
        groupNode_ = record;
        groupNodeInitialised_ = true;
    }
    try {
        auto* node = new KivNode(record, /*isAltNode=*/false);
        nodes_.insert(node);
        record->provider_data = node;
        record->attach_word = 0;

        auto* link = static_cast<tarn_fi_link*>(std::calloc(1, sizeof(tarn_fi_link)));
        if (link == nullptr) {
            return kTarnOutOfMemory;
        }
        record->fi_list = link;
        for (tarn_fi_entry** slot : {&link->first, &link->second}) {
            auto* entry = static_cast<tarn_fi_entry*>(std::calloc(1, sizeof(tarn_fi_entry)));
            if (entry == nullptr) {
                return kTarnOutOfMemory;
            }
            entry->fi_type = kFiType;
            entry->node = record;
            entry->group_node = groupNode_;
            *slot = entry;
        }
    } catch (const std::bad_alloc&) {
        return kTarnOutOfMemory;
    } catch (TarnError& error) {
        return error.status();
    }
    record->object_name = record->objid != nullptr ? record->objid->name : nullptr;
    record->flags |= kAttachedFlags;
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::initAltNode(tarn_node* source, void*, tarn_node* alternate) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::initAltNode", __LINE__);
    if (source == nullptr || alternate == nullptr) {
        return kTarnInvalidRequest;
    }
    try {
        auto* node = new KivNode(source, /*isAltNode=*/true);
        nodes_.insert(node);
        alternate->provider_data = node;
    } catch (const std::bad_alloc&) {
        return kTarnOutOfMemory;
    } catch (TarnError& error) {
        return error.status();
    }
    alternate->attach_word = 0;
    alternate->fi_list = nullptr;
    alternate->flags |= kAttachedFlags;
    return kTarnSuccess;
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
