#include "kiv/kivmake.h"

#include <cstring>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivficoordinator.h"
#include "kiv/kivnode.h"
#include "kiv/kivvolume.h"
#include "kiv/nodereport.h"
#include "kiv/orbhandleclient.h"
#include "os/codepage.h"
#include "os/handle.h"
#include "os/time.h"
#include "string_helper.h"
#include "tarn/tarnutil.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivnode";
constexpr std::uint32_t kMadeBit = 0x1;

}  // namespace

std::uint32_t registerSnapshotVolume(KivHandle handle, const std::u16string& volumeName) {
    std::uint32_t budget = kRegisterRetries;
    std::uint32_t status = 0;
    for (;;) {
        status = ORB::RegisterVolumeHandle(handle, volumeName);
        if (status != 0 && status != ORB::kPipeBusy) {
            reportNodeMessage("MSG_ERROR_KIVAPI",
                              {textArgument(u"KIV_ORB_Registervolume"), numberArgument(status),
                               textArgument(volumeName)});
            return status;
        }
        os::Sleep(kAgentWaitMs);
        if (status == 0 || budget == 0) {
            break;
        }
        --budget;
    }
    if (status == ORB::kPipeBusy) {
        reportNodeMessage("MSG_ERROR_KIVORBHANDLE",
                          {textArgument(u"KIV_ORB_Registervolume"), numberArgument(status),
                           textArgument(u"Retrived handle after every second for 30 times"),
                           textArgument(volumeName)});
    }
    return status;
}

tarn_objid* makeSnapshotVolume(KivApi* api, tarn_node* record, std::u16string& volumeName) {
    volumeName.clear();
    KivNode* node = kivNodeOf(record);
    if (node == nullptr) {
        return nullptr;
    }
    std::string narrowName = node->configuration().getSplitConfig().snapshotVolumeName;
    volumeName = toWide(narrowName, os::CP_UTF8);
    record->status |= kMadeBit;
    tarn_objid* identity = makeObjid(volumeName);
    KivHandle handle = openVolumeByName(api, narrowName);
    if (handle == kInvalidKivHandle) {
        reportNodeMessage("MSG_ERROR_KIVAPI_STR", {textArgument(u"Make"), textArgument(u"KIV_Open"),
                                                   textArgument(volumeName)});
        return identity;
    }
    registerSnapshotVolume(handle, volumeName);
    // The agent keeps its own duplicate.
    os::CloseHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle)));
    return identity;
}

std::int32_t KivNode::make(tarn_fi_entry* entry, void*, tarn_fi_entry** list, std::uint32_t count,
                           tarn_objid*** identities, std::uint32_t* identityCount) {
    tarp_TraceMethod trace(kSource, u"KivNode::make", __LINE__);
    std::int32_t result = kTarnSuccess;
    // Without somewhere to put the identities no snapshot is made that the
    // host could not see.
    if (entry == nullptr || identities == nullptr || identityCount == nullptr) {
        return kTarnInvalidRequest;
    }
    KivApi* api = coordinatorKivApi();
    KivNode* group = kivNodeOf(entry->group_node);
    QuiesceConfig quiesce =
        group != nullptr ? group->configuration().getQuiesceConfig() : QuiesceConfig{};
    std::uint32_t status = KIV_Create(api, snapshotHandle_, quiesce.quiesceWait,
                                      quiesce.quiesceTimeout, /*reserved=*/0);
    if (status != 0) {
        reportNodeMessage("MSG_ERROR_KIVAPI", {textArgument(u"KIV_Create"), numberArgument(status),
                                               textArgument(u"KIV_Create")});
        return kTarnInvalidRequest;
    }
    std::uint32_t slots = count != 0 ? count : 1;
    // An array of identity pointers for the host.
    std::uint64_t bytes =
        std::uint64_t{slots} * sizeof(tarn_objid*);  // NOLINT(bugprone-sizeof-expression)
    auto* array = static_cast<tarn_objid**>(tarn_alloc_buf(bytes));
    if (array == nullptr) {
        *identities = nullptr;
        *identityCount = 0;
        return kTarnOutOfMemory;
    }
    std::memset(array, 0, bytes);
    std::u16string volumeName;
    if (list != nullptr && count != 0) {
        for (std::uint32_t i = 0; i < count; ++i) {
            array[i] =
                makeSnapshotVolume(api, list[i] != nullptr ? list[i]->node : nullptr, volumeName);
        }
        *identities = array;
        *identityCount = count;
        return result;
    }
    array[0] = makeSnapshotVolume(api, entry->node, volumeName);
    if (array[0] == nullptr) {
        reportNodeMessage("MSG_ERROR_OBJID", {textArgument(volumeName)});
    }
    *identities = array;
    *identityCount = 1;
    return result;
}
