// The operating-system version, as the machine description gives it.
#include "os/version.h"

#include <algorithm>

#include "os/error.h"
#include "os_call.h"
#include "sim/errors.h"

namespace os {
namespace {

constexpr DWORD kPlatformWin32Nt = 2;
// OSVERSIONINFOEXW: the larger record is filled in its common part.
constexpr DWORD kExtendedRecordSize = 284;

}  // namespace

/***********************************************************************
 *           GetVersionExW   (kernel32.dll)
 */
BOOL GetVersionExW(OSVERSIONINFOW* versionInformation) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetVersionExW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    if (versionInformation == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    const DWORD size = versionInformation->dwOSVersionInfoSize;
    if (size != sizeof(OSVERSIONINFOW) && size != kExtendedRecordSize) {
        return sim::fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    }
    versionInformation->dwMajorVersion = machine->majorVersion();
    versionInformation->dwMinorVersion = machine->minorVersion();
    versionInformation->dwBuildNumber = machine->buildNumber();
    versionInformation->dwPlatformId = kPlatformWin32Nt;
    std::fill(std::begin(versionInformation->szCSDVersion),
              std::end(versionInformation->szCSDVersion), u'\0');
    return TRUE;
}

}  // namespace os
