// Whether the provider can stand in for a volume: the driver is asked about
// the volume, and a valid source gets a new identity "<kiv>" + volume name.
#include <unicode/fmtable.h>
#include <unicode/unistr.h>

#include "fiprovlib/TraceMethod.h"
#include "kiv/cachefile/kivapi.h"
#include "kiv/kivficoordinator.h"
#include "os/codepage.h"
#include "os/error.h"
#include "os/module.h"
#include "path_helper.h"
#include "string_helper.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivficoordinator";
const char16_t kFunction[] = u"KivFiCoordinator::interpose";
constexpr std::uint32_t kNoInterposeFlag = 0x800;
constexpr os::DWORD kVolumeNameLength = 52;

using GetVolumeNameForVolumeMountPointW_t = os::BOOL (*)(os::LPCWSTR, os::LPWSTR, os::DWORD);

// The operating system's mount-point resolution, bound on first need and kept
// for the life of the process. Throws the os::DWORD last error when it cannot
// be bound.
GetVolumeNameForVolumeMountPointW_t volumeNameForMountPoint() {
    static GetVolumeNameForVolumeMountPointW_t function = nullptr;
    if (function == nullptr) {
        os::HMODULE kernel32 = os::GetModuleHandleW(u"kernel32.dll");
        if (kernel32 == nullptr) {
            throw os::GetLastError();
        }
        auto address = os::GetProcAddress(kernel32, "GetVolumeNameForVolumeMountPointW");
        if (address == nullptr) {
            throw os::GetLastError();
        }
        function = reinterpret_cast<GetVolumeNameForVolumeMountPointW_t>(address);
    }
    return function;
}

}  // namespace

std::int32_t KivFiCoordinator::interpose(tarn_node* record, tarn_objid** newIdentity,
                                         tarn_objid*** groupIdentities, std::uint32_t* groupCount) {
    tarp_TraceMethod trace(kSource, kFunction, __LINE__);
    // A null record has no flags to test and no name to ask about.
    if (record == nullptr) {
        return 0;
    }
    if ((record->flags & kNoInterposeFlag) != 0) {
        return 0;
    }

    std::u16string name = objectName(record->objid);
    writeLog(kLogInformation, u"KivFiCoordinator::interpose [%s] ", name.c_str());
    std::string driverName = toNarrow(name, os::CP_UTF8);

    if (name.find(u"Volume{") == std::u16string::npos) {
        // The host never names an object with nothing: there is no last
        // character to test and no volume to ask about.
        if (name.empty()) {
            return 0;
        }
        name = withTrailingBackslash(name);
        // Without the mount-point lookup no drive name can be resolved; the
        // volume is simply not taken.
        GetVolumeNameForVolumeMountPointW_t resolve = nullptr;
        try {
            resolve = volumeNameForMountPoint();
        } catch (os::DWORD) {
            return 0;
        }
        char16_t volumeName[kVolumeNameLength] = {};
        if (resolve(name.c_str(), volumeName, kVolumeNameLength) != 0) {
            name = volumeName;
            name = withoutTrailingBackslashes(name);
            driverName = toNarrow(name, os::CP_UTF8);
        }
        name = withoutTrailingBackslashes(name);
    }

    KivHandle handle = kInvalidKivHandle;
    std::uint32_t status = KIV_Open(kivApi_, driverName.c_str(), /*access=*/3, /*flags=*/0x80,
                                    /*a=*/0, /*b=*/0, &handle);
    if (status != 0 || !isValidKivHandle(handle)) {
        writeLog(kLogWarning,
                 u"KivFiCoordinator::interpose cant interpose due to open volume [%s] failed ",
                 name.c_str());
        return 0;
    }

    KivVolumeInformation information{};
    std::uint32_t read =
        KIV_GetVolumeInformation(kivApi_, handle, sizeof(information), &information);
    KIV_Close(kivApi_, &handle);
    if (read != 0) {
        {
            tarp_TraceMethod message(kSource, kFunction, __LINE__, this);
            message.traceFormat(u"KIV could not return volume info for %s\n", name.c_str());
        }
        writeLog(kLogWarning,
                 u"KivFiCoordinator::interpose cant interpose due to volume [%s] infn not found ",
                 name.c_str());
        return 0;
    }

    if ((information.attributes & (KIV_ATTRIBUTE_SOURCE | KIV_ATTRIBUTE_SNAPSHOT)) != 0) {
        // Nowhere to put the answer: the volume could be taken, but the host
        // cannot be told so. No identity is made that nobody would own.
        if (newIdentity == nullptr || groupIdentities == nullptr || groupCount == nullptr) {
            return 0;
        }
        *newIdentity = makeObjid(kivTag() + name);
        *groupCount = 1;
        *groupIdentities = &groupObjid_;
        return 1;
    }

    auto reportRefusal = [&]() {
        icu::Formattable arguments[] = {
            icu::Formattable(icu::UnicodeString(u"KIV_GetVolumeInformation")),
            icu::Formattable(static_cast<std::int32_t>(information.value)),
            icu::Formattable(icu::UnicodeString(name.c_str())),
        };
        reportMessage("MSG_ERROR_KIVAPI", arguments, 3, kLogWarning);
    };
    if ((information.attributes & KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE) != 0) {
        name += u" - KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE";
        reportRefusal();
    }
    if ((information.attributes & KIV_ATTRIBUTE_DISABLED) != 0) {
        name += u" - KIV_ATTRIBUTE_DISABLED";
        reportRefusal();
    }
    {
        tarp_TraceMethod message(kSource, kFunction, __LINE__, this);
        message.traceFormat(
            u"KIV volume information does not have KIV_ATTRIBUTE_VALID_SOURCE set for %s\n",
            name.c_str());
    }
    writeLog(kLogWarning,
             u"KivFiCoordinator::interpose KIV_ATTRIBUTE_VALID_SOURCE not set for volume [%s] ",
             name.c_str());
    return 0;
}
