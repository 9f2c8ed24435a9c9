// The node's life, its fi-type test, the dispatch of configuration requests,
// opening its source volume, and the operations this provider answers without
// driver work.
#include "kiv/kivnode.h"

#include <cstring>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivficoordinator.h"
#include "kiv/kivvolume.h"
#include "kiv/nodereport.h"
#include "os/codepage.h"
#include "string_helper.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivnode";

enum ConfigOperation : std::uint32_t {
    kConfigGet = 1,
    kConfigSet = 2,
    kConfigClear = 3,
    kConfigInfo = 4,
    kConfigUpdate = 5,
};

void markStatus(tarn_node* record, std::uint32_t bits) {
    if (record != nullptr) {
        record->status |= bits;
    }
}

}  // namespace

KivNode* kivNodeOf(const tarn_node* record) {
    return dynamic_cast<KivNode*>(nodeOf(record));
}

void reportNodeMessage(const char* key, std::initializer_list<icu::Formattable> arguments) {
    std::vector<icu::Formattable> list(arguments);
    KivFiCoordinator::instance().reportMessage(key, list.data(),
                                               static_cast<std::int32_t>(list.size()), kLogWarning);
}

KivNode::KivNode(tarn_node* record, bool isAltNode) : isAltNode_(isAltNode) {
    tarp_TraceMethod trace(kSource, u"KivNode::KivNode", __LINE__);
    nodeName_ = objectName(record != nullptr ? record->objid : nullptr);
}

KivNode::~KivNode() {
    tarp_TraceMethod trace(kSource, u"KivNode::~KivNode", __LINE__);
    KivApi* api = coordinatorKivApi();
    if (api == nullptr) {
        return;
    }
    if (isValidKivHandle(volumeHandle_)) {
        KIV_Close(api, &volumeHandle_);
        volumeHandle_ = kInvalidKivHandle;
    }
    if (isValidKivHandle(snapshotHandle_)) {
        KIV_Close(api, &snapshotHandle_);
        snapshotHandle_ = kInvalidKivHandle;
    }
}

KivHandle KivNode::open() {
    if (isValidKivHandle(volumeHandle_)) {
        return volumeHandle_;
    }
    std::u16string name = nodeName_;
    stripKivTag(name);
    std::string driverName = toNarrow(name, os::CP_UTF8);
    std::uint32_t status = KIV_Open(coordinatorKivApi(), driverName.c_str(), /*access=*/3,
                                    /*flags=*/128, /*a=*/3, /*b=*/1000, &volumeHandle_);
    if (status == 0 && isValidKivHandle(volumeHandle_)) {
        return volumeHandle_;
    }
    volumeHandle_ = kInvalidKivHandle;
    reportNodeMessage("MSG_ERROR_KIVAPI",
                      {textArgument(u"KIV_Open"), numberArgument(status), textArgument(name)});
    return kInvalidKivHandle;
}

std::int32_t KivNode::supportsFiType(tarn_node* record, const char* fiType) {
    tarp_TraceMethod trace(kSource, u"KivNode::supportsFiType", __LINE__);
    static const std::string ownType("kiv-cow-snapshot");
    static const std::string anyType("any");
    std::uint32_t* answer = record != nullptr ? record->fi_support : nullptr;
    bool supported = fiType != nullptr && (ownType == fiType || anyType == fiType);
    if (answer != nullptr) {
        if (supported) {
            *answer |= 0x1;
        } else {
            *answer = 0;
        }
    }
    return supported ? 1 : 0;
}

std::int32_t KivNode::config(tarn_node* record, std::uint32_t operation, void* argument,
                             tarn_config_request* request) {
    tarp_TraceMethod trace(kSource, u"KivNode::config", __LINE__);
    // Every known operation reads the request; an unknown one is traced
    // whatever the request.
    switch (operation) {
        case kConfigGet:
            return request != nullptr ? config_.get(record, argument, request)
                                      : kTarnInvalidRequest;
        case kConfigSet:
            return request != nullptr ? config_.set(record, argument, request)
                                      : kTarnInvalidRequest;
        case kConfigClear:
            if (request == nullptr) {
                return kTarnInvalidRequest;
            }
            if (request->split_selector == 0 && request->quiesce_selector != 0) {
                config_.clearQuiesceConfig();
                return kTarnSuccess;
            }
            if (request->split_selector != 0 && request->quiesce_selector == 0) {
                config_.clearCacheConfig();
                config_.clearSplitConfig();
                return kTarnSuccess;
            }
            return kTarnInvalidRequest;
        case kConfigInfo:
            if (request == nullptr || request->text != nullptr) {
                return kTarnInvalidRequest;
            }
            return config_.getConfigInfo(record, argument, request);
        case kConfigUpdate:
            return request != nullptr ? config_.update(record, request) : kTarnInvalidRequest;
        default: {
            tarp_TraceMethod message(kSource, u"KivNode::config", __LINE__, this);
            message.traceFormat(u"%s( op==%i ) unrecognized operation\n", u"KivNode::config",
                                static_cast<int>(operation));
            return kTarnInvalidRequest;
        }
    }
}

std::int32_t KivNode::reAccessTmpObj(tarn_node*, void*, void*, void*, void*, std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::reAccessTmpObj", __LINE__);
    return kTarnSuccess;
}

std::int32_t KivNode::reAccessAltNode(tarn_node*, void*, void*, void*, void*, void*, std::uint32_t,
                                      std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::reAccessAltNode", __LINE__);
    return kTarnSuccess;
}

std::int32_t KivNode::online(void*, tarn_node*, std::uint32_t, std::uint32_t) {
    return kTarnSuccess;
}

std::int32_t KivNode::subobjList(tarn_node*, void* list, void* count) {
    tarp_TraceMethod trace(kSource, u"KivNode::subobjList", __LINE__);
    if (count != nullptr) {
        *static_cast<std::uint32_t*>(count) = 0;
    }
    if (list != nullptr) {
        *static_cast<void**>(list) = nullptr;
    }
    return kTarnSuccess;
}

std::int32_t KivNode::buildAltTree(tarn_node*, void*, void*, void*, std::uint32_t, void*) {
    tarp_TraceMethod trace(kSource, u"KivNode::buildAltTree", __LINE__);
    return kTarnInvalidRequest;
}

std::int32_t KivNode::quiesce(tarn_fi_entry*, void*, std::uint32_t, void*) {
    tarp_TraceMethod trace(kSource, u"KivNode::quiesce", __LINE__);
    return kTarnSuccess;
}

void KivNode::unquiesce(tarn_fi_entry*, void*, std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::unquiesce", __LINE__);
}

bool KivNode::isValidQuiesceConfig() {
    return config_.isValidQuiesceConfig();
}

bool KivNode::isValidNodeSplitConfig() {
    return config_.isValidNodeSplitConfig();
}

std::int32_t KivNode::isReady(tarn_fi_entry* entry, void*, tarn_fi_entry** list,
                              std::uint32_t count) {
    tarp_TraceMethod trace(kSource, u"KivNode::isReady", __LINE__);
    constexpr std::uint32_t kReady = 0x8;
    if (entry == nullptr) {
        return kTarnInvalidRequest;
    }
    if (list != nullptr && count != 0) {
        for (std::uint32_t index = 0; index < count; ++index) {
            markStatus(list[index] != nullptr ? list[index]->node : nullptr, kReady);
        }
    } else {
        markStatus(entry->node, kReady);
    }
    markStatus(entry->group_node, kReady);
    return kTarnSuccess;
}

std::int32_t KivNode::cacheDisable(tarn_node*, std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::cacheDisable", __LINE__);
    return kTarnSuccess;
}

void KivNode::cacheEnable(tarn_node*, std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::cacheEnable", __LINE__);
}

void KivNode::cacheFlush(tarn_node*, std::uint32_t) {
    tarp_TraceMethod trace(kSource, u"KivNode::cacheFlush", __LINE__);
}

std::int32_t KivNode::queryOperation(void*, tarn_node*, void*, void*) {
    return kTarnNotSupported;
}

// Never called by the coordinator, which answers this itself; kept
// consistent with it.
std::int32_t KivNode::checkNodeExistence(tarn_node* record, std::uint32_t* exists) {
    if (exists != nullptr) {
        *exists = record != nullptr && hasKivTag(record->objid) ? 1 : 0;
    }
    return kTarnSuccess;
}
