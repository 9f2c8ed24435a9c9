// Operating-system version of the machine.
#ifndef PLATFORM_INCLUDE_OS_VERSION_H_
#define PLATFORM_INCLUDE_OS_VERSION_H_

#include "os/types.h"

namespace os {

struct OSVERSIONINFOW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
};
static_assert(sizeof(OSVERSIONINFOW) == 276);

// Fills the record from the machine description (szCSDVersion empty). FALSE
// with ERROR_INSUFFICIENT_BUFFER when dwOSVersionInfoSize is neither 276 nor
// 284 (the extended record, of which the first 276 bytes are filled),
// ERROR_INVALID_PARAMETER for a null record.
BOOL GetVersionExW(OSVERSIONINFOW* versionInformation);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_VERSION_H_
