// The coordinator operations that find the node of the host's record and hand
// the call on, turning a TarnError raised below into its status code; and the
// ones that answer a fixed value.
#include "fiprovlib/TarnError.h"
#include "fiprovlib/TraceMethod.h"
#include "kiv/frozenimagenode.h"
#include "kiv/kivficoordinator.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivficoordinator";

FrozenImageNode* nodeOfEntry(const tarn_fi_entry* entry) {
    return entry != nullptr ? nodeOf(entry->node) : nullptr;
}

FrozenImageNode* nodeOfAccess(const tarn_access_record* access) {
    return access != nullptr ? nodeOf(access->node) : nullptr;
}

// Calls the node and answers a TarnError's status instead of letting it out.
template <class Call>
std::int32_t routed(FrozenImageNode* node, Call call) {
    if (node == nullptr) {
        return kTarnInvalidRequest;
    }
    try {
        return call(node);
    } catch (TarnError& error) {
        return error.status();
    }
}

// The same for operations without a result: a TarnError is dropped.
template <class Call>
void routedVoid(FrozenImageNode* node, Call call) {
    if (node == nullptr) {
        return;
    }
    try {
        call(node);
    } catch (TarnError&) {
    }
}

void markFailed(tarn_node* record) {
    if (record != nullptr) {
        record->status |= 0x4;
    }
}

}  // namespace

std::int32_t KivFiCoordinator::reAccessTmpObj(tarn_node* record, void* a, void* b, void* c, void* d,
                                              std::uint32_t e) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::reAccessTmpObj", __LINE__);
    return routed(nodeOf(record), [&](FrozenImageNode* node) {
        return node->reAccessTmpObj(record, a, b, c, d, e);
    });
}

std::int32_t KivFiCoordinator::reAccessAltNode(tarn_node* record, void* a, void* b, void* c,
                                               void* d, void* e, std::uint32_t f, std::uint32_t g) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::reAccessAltNode", __LINE__);
    return routed(nodeOf(record), [&](FrozenImageNode* node) {
        return node->reAccessAltNode(record, a, b, c, d, e, f, g);
    });
}

std::int32_t KivFiCoordinator::dispose(void* a, tarn_node* record, void* b, std::uint32_t c) {
    if (record == nullptr) {
        return kTarnSuccess;
    }
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->dispose(a, record, b, c); });
}

std::int32_t KivFiCoordinator::online(void* a, tarn_node* record, std::uint32_t b,
                                      std::uint32_t c) {
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->online(a, record, b, c); });
}

std::int32_t KivFiCoordinator::subobjList(tarn_node* record, void* list, void* count) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::subobjList", __LINE__);
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->subobjList(record, list, count); });
}

std::int32_t KivFiCoordinator::buildAltTree(tarn_node* record, void* a, void* b, void* c,
                                            std::uint32_t d, void* e) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::buildAltTree", __LINE__);
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->buildAltTree(record, a, b, c, d, e); });
}

std::int32_t KivFiCoordinator::quiesce(tarn_fi_entry* entry, void* a, std::uint32_t b, void* c) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::quiesce", __LINE__);
    return routed(nodeOfEntry(entry),
                  [&](FrozenImageNode* node) { return node->quiesce(entry, a, b, c); });
}

void KivFiCoordinator::unquiesce(tarn_fi_entry* entry, void* a, std::uint32_t b) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::unquiesce", __LINE__);
    routedVoid(nodeOfEntry(entry), [&](FrozenImageNode* node) { node->unquiesce(entry, a, b); });
}

std::int32_t KivFiCoordinator::make(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                    std::uint32_t count, tarn_objid*** identities,
                                    std::uint32_t* identityCount) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::make", __LINE__);
    return routed(nodeOfEntry(entry), [&](FrozenImageNode* node) {
        return node->make(entry, a, list, count, identities, identityCount);
    });
}

std::int32_t KivFiCoordinator::prepare(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                       std::uint32_t count, std::uint32_t mode) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::prepare", __LINE__);
    return routed(nodeOfEntry(entry), [&](FrozenImageNode* node) {
        return node->prepare(entry, a, list, count, mode);
    });
}

std::int32_t KivFiCoordinator::select(tarn_fi_entry* entry, void* /*unused*/,
                                      tarn_fi_entry** entries, std::int32_t count) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::select", __LINE__);
    FrozenImageNode* source = nodeOfEntry(entry);
    if (source == nullptr) {
        return kTarnInvalidRequest;
    }
    std::int32_t answer = kTarnSuccess;
    try {
        FrozenImageNode* group = nodeOf(entry->group_node);
        if (group == nullptr) {
            markFailed(entry->node);
            answer = kTarnInvalidRequest;
        } else if (!group->isValidQuiesceConfig()) {
            markFailed(entry->group_node);
            answer = kTarnInvalidRequest;
        }

        if (count > 0 && entries != nullptr) {
            for (std::int32_t index = 0; index < count; ++index) {
                tarn_node* record = entries[index] != nullptr ? entries[index]->node : nullptr;
                FrozenImageNode* node = nodeOf(record);
                if (node == nullptr || !node->isValidNodeSplitConfig()) {
                    markFailed(record);
                    answer = kTarnInvalidRequest;
                    break;
                }
            }
        } else if (!source->isValidNodeSplitConfig()) {
            markFailed(entry->node);
            answer = kTarnInvalidRequest;
        }
    } catch (TarnError& error) {
        return error.status();
    }
    return answer;
}

std::int32_t KivFiCoordinator::isReady(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                       std::uint32_t count) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::isReady", __LINE__);
    return routed(nodeOfEntry(entry),
                  [&](FrozenImageNode* node) { return node->isReady(entry, a, list, count); });
}

std::int32_t KivFiCoordinator::cacheDisable(tarn_node* record, std::uint32_t flags) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::cacheDisable", __LINE__);
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->cacheDisable(record, flags); });
}

void KivFiCoordinator::cacheEnable(tarn_node* record, std::uint32_t flags) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::cacheEnable", __LINE__);
    routedVoid(nodeOf(record), [&](FrozenImageNode* node) { node->cacheEnable(record, flags); });
}

void KivFiCoordinator::cacheFlush(tarn_node* record, std::uint32_t flags) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::cacheFlush", __LINE__);
    routedVoid(nodeOf(record), [&](FrozenImageNode* node) { node->cacheFlush(record, flags); });
}

std::int32_t KivFiCoordinator::queryOperation(void* a, tarn_node* record, void* b, void* c) {
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->queryOperation(a, record, b, c); });
}

std::int32_t KivFiCoordinator::processProviderState(tarn_node* record, void* a, std::uint32_t b) {
    return routed(nodeOf(record),
                  [&](FrozenImageNode* node) { return node->processProviderState(record, a, b); });
}

std::int32_t KivFiCoordinator::enableAccess(tarn_access_record* access, std::uint32_t a,
                                            std::uint32_t /*unused*/, std::uint32_t flags) {
    if ((flags & 0x1) != 0) {
        return kTarnSuccess;
    }
    return routed(nodeOfAccess(access),
                  [&](FrozenImageNode* node) { return node->setAccess(access, a, 0, 0); });
}

std::int32_t KivFiCoordinator::disableAccess(tarn_access_record* access, std::uint32_t a) {
    return routed(nodeOfAccess(access),
                  [&](FrozenImageNode* node) { return node->setAccess(access, a, 0, 0); });
}

std::int32_t KivFiCoordinator::objctl(void*, void*, void*, void*) {
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::restore(void*, void*, std::uint32_t, void*, void*, std::uint32_t,
                                       void*) {
    return kTarnNotSupported;
}

std::int32_t KivFiCoordinator::resync(void*, void*, std::uint32_t, void*, void*, std::uint32_t,
                                      void*) {
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::getStatus(void*, void*, std::uint32_t, void*, std::uint32_t, void*) {
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::queryValidSecondaries(void*, void*, void*) {
    return kTarnSuccess;
}
