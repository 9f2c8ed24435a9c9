// Processes, handle duplication between processes, and token privileges.
#ifndef PLATFORM_INCLUDE_OS_PROCESS_H_
#define PLATFORM_INCLUDE_OS_PROCESS_H_

#include "os/types.h"

namespace os {

constexpr DWORD PROCESS_DUP_HANDLE = 0x0040;
constexpr DWORD DUPLICATE_CLOSE_SOURCE = 0x1;
constexpr DWORD DUPLICATE_SAME_ACCESS = 0x2;
constexpr DWORD TOKEN_ADJUST_PRIVILEGES = 0x0020;
constexpr DWORD TOKEN_QUERY = 0x0008;
constexpr DWORD SE_PRIVILEGE_ENABLED = 0x2;

struct LUID {
    DWORD LowPart;
    LONG HighPart;
};
struct LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
};
struct TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[1];
};

DWORD GetCurrentProcessId();
// Pseudo-handle for the calling process; needs no closing.
HANDLE GetCurrentProcess();
// Opens another process of the machine. NULL with ERROR_INVALID_PARAMETER for
// a process that does not exist, ERROR_ACCESS_DENIED when the caller may not
// take its handles (without the debug privilege).
HANDLE OpenProcess(DWORD desiredAccess, BOOL inheritHandle, DWORD processId);
// Copies `sourceHandle` of `sourceProcess` into `targetProcess` (only the
// calling process is supported as target). FALSE with ERROR_INVALID_HANDLE for
// a source handle that is not open in the source process, ERROR_ACCESS_DENIED
// when the system refuses.
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                     HANDLE* targetHandle, DWORD desiredAccess, BOOL inheritHandle,
                     DWORD options);

BOOL OpenProcessToken(HANDLE process, DWORD desiredAccess, HANDLE* tokenHandle);
// Only "SeDebugPrivilege" is known; others give ERROR_NO_SUCH_PRIVILEGE.
BOOL LookupPrivilegeValueW(LPCWSTR systemName, LPCWSTR name, LUID* luid);
// Enabling the debug privilege raises CAP_SYS_PTRACE when the process may.
// TRUE with last error ERROR_NOT_ALL_ASSIGNED when it may not, else TRUE with
// ERROR_SUCCESS.
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAllPrivileges, TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previousState,
                           DWORD* returnLength);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_PROCESS_H_
