// Processes, handle duplication between processes, and token privileges.
//
// Handles that stand for descriptors (files, volumes, duplicated handles) can
// be taken from another process of the machine. That needs the rights a
// debugger needs over the other process; enabling "SeDebugPrivilege" grants
// them where the system allows. All functions are thread-safe.
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
constexpr DWORD SE_PRIVILEGE_REMOVED = 0x4;

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
// Pseudo-handle for the calling process; needs no closing. Its value is the
// same as INVALID_HANDLE_VALUE, as on Windows.
HANDLE GetCurrentProcess();
// Opens another process of the machine; close the handle with CloseHandle.
// NULL with ERROR_INVALID_PARAMETER for a process that does not exist (or id
// 0), ERROR_ACCESS_DENIED when PROCESS_DUP_HANDLE is asked for and the caller
// may not take the process's handles (without the debug privilege).
HANDLE OpenProcess(DWORD desiredAccess, BOOL inheritHandle, DWORD processId);
// Copies descriptor handle `sourceHandle` of `sourceProcess` into
// `targetProcess`; the copy keeps the source's access (`desiredAccess` is not
// used). Only the calling process is supported as target, and
// DUPLICATE_CLOSE_SOURCE only when the source is the calling process
// (otherwise ERROR_NOT_SUPPORTED). FALSE with ERROR_INVALID_HANDLE for a
// process handle that is not one, or a source handle that is not open in the
// source process; ERROR_ACCESS_DENIED when the system refuses.
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                     HANDLE* targetHandle, DWORD desiredAccess, BOOL inheritHandle, DWORD options);

// Opens the token of a process (GetCurrentProcess() or an opened process);
// close it with CloseHandle.
BOOL OpenProcessToken(HANDLE process, DWORD desiredAccess, HANDLE* tokenHandle);
// Only "SeDebugPrivilege" is known (any case); others give
// ERROR_NO_SUCH_PRIVILEGE. `systemName` must be null or empty (this machine),
// else ERROR_NOT_SUPPORTED.
BOOL LookupPrivilegeValueW(LPCWSTR systemName, LPCWSTR name, LUID* luid);
// Enables (SE_PRIVILEGE_ENABLED), disables (0) or removes for good
// (SE_PRIVILEGE_REMOVED) privileges of the calling process's token. The debug
// privilege is the capability CAP_SYS_PTRACE of the calling thread: enabling
// raises it in the effective set when it is permitted, removing drops it from
// the permitted set. TRUE with last error ERROR_NOT_ALL_ASSIGNED when a
// privilege could not be enabled, else TRUE with ERROR_SUCCESS. FALSE with
// ERROR_ACCESS_DENIED for a token opened without TOKEN_ADJUST_PRIVILEGES,
// ERROR_NOT_SUPPORTED for another process's token, ERROR_INSUFFICIENT_BUFFER
// when `previousState` is smaller than `*returnLength` says it must be.
// `previousState` receives the changed privileges with their earlier state.
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAllPrivileges, TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previousState,
                           DWORD* returnLength);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_PROCESS_H_
