#include "kiv/kivdispose.h"

#include "kiv/kivficoordinator.h"
#include "kiv/kivnode.h"
#include "kiv/kivvolume.h"
#include "kiv/nodereport.h"
#include "kiv/orbhandleclient.h"
#include "os/codepage.h"
#include "os/time.h"
#include "string_helper.h"

namespace {

const char16_t kBusyText[] = u"Retrived handle after every second for 30 times";

}  // namespace

bool retrieveAgentHandle(const std::u16string& volumeName, KivHandle* handle) {
    std::uint32_t budget = kAgentRetries;
    for (;;) {
        KivHandle retrieved = kInvalidKivHandle;
        std::uint32_t status = ORB::RetrieveHandle(volumeName, &retrieved);
        if (status == ORB::kPipeBusy) {
            os::Sleep(kDisposeWaitMs);
            if (budget == 0) {
                reportNodeMessage("MSG_ERROR_KIVORBHANDLE",
                                  {textArgument(u"ORB::RetrieveHandle"), numberArgument(status),
                                   textArgument(kBusyText), textArgument(volumeName)});
                return false;
            }
            --budget;
            continue;
        }
        if (status == 0 && isValidKivHandle(retrieved)) {
            os::Sleep(kDisposeWaitMs);
            *handle = retrieved;
            return true;
        }
        reportNodeMessage("MSG_ERROR_KIVAPI", {textArgument(u"ORB::RetrieveHandle"),
                                               numberArgument(status), textArgument(volumeName)});
        return false;
    }
}

void releaseAgentHandle(const std::u16string& volumeName) {
    std::uint32_t budget = kAgentRetries;
    for (;;) {
        std::uint32_t status = ORB::ReleaseVolumeHandle(volumeName);
        if (status != 0 && status != ORB::kPipeBusy) {
            reportNodeMessage("MSG_ERROR_KIVAPI",
                              {textArgument(u"ORB::ReleaseVolumeHandle"), numberArgument(status),
                               textArgument(volumeName)});
            return;
        }
        os::Sleep(kDisposeWaitMs);
        if (status == 0) {
            return;
        }
        if (budget == 0) {
            reportNodeMessage("MSG_ERROR_KIVORBHANDLE",
                              {textArgument(u"ORB::ReleaseVolumeHandle"), numberArgument(status),
                               textArgument(kBusyText), textArgument(volumeName)});
            return;
        }
        --budget;
    }
}

std::uint32_t destroySnapshot(KivApi* api, KivHandle* handle) {
    std::uint32_t status = 0;
    for (std::uint32_t attempt = 0; attempt < kDestroyAttempts; ++attempt) {
        status = KIV_Destroy(api, handle, /*flags=*/1);
        if (status != kDestroyBusy) {
            break;
        }
        os::Sleep(kDisposeWaitMs);
    }
    return status;
}

// Not traced: disposal is framed by the coordinator's caller alone.
std::int32_t KivNode::dispose(void*, tarn_node* record, void*, std::uint32_t) {
    if (record == nullptr) {
        return kTarnSuccess;
    }
    std::int32_t result = kTarnInvalidRequest;
    KivApi* api = coordinatorKivApi();
    std::u16string wideName = objectName(record->objid);
    std::string narrowName = toNarrow(wideName, os::CP_UTF8);
    KivHandle handle = openVolumeByName(api, narrowName);
    if (handle == kInvalidKivHandle && !retrieveAgentHandle(wideName, &handle)) {
        return kTarnInvalidRequest;
    }
    releaseAgentHandle(wideName);
    std::uint32_t status = destroySnapshot(api, &handle);
    if (status == 0) {
        result = kTarnSuccess;
    } else {
        reportNodeMessage("MSG_ERROR_KIVAPI", {textArgument(u"KIV_Destroy"), numberArgument(status),
                                               textArgument(wideName)});
    }
    KIV_Close(api, &handle);
    return result;
}
