// Thread last-error value and the Win32 error codes the product uses.
//
// The last error is per thread. Functions set it where Windows does; tracing
// and logging never change it.
#ifndef PLATFORM_INCLUDE_OS_ERROR_H_
#define PLATFORM_INCLUDE_OS_ERROR_H_

#include "os/types.h"

namespace os {

constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_INVALID_DATA = 13;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_NOT_READY = 21;
constexpr DWORD ERROR_BAD_LENGTH = 24;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_SEM_TIMEOUT = 121;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
constexpr DWORD ERROR_DIR_NOT_ROOT = 144;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_BAD_PIPE = 230;
constexpr DWORD ERROR_PIPE_BUSY = 231;
constexpr DWORD ERROR_NO_DATA = 232;
constexpr DWORD ERROR_PIPE_NOT_CONNECTED = 233;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_NOT_OWNER = 288;
constexpr DWORD ERROR_PIPE_CONNECTED = 535;
constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
constexpr DWORD ERROR_UNRECOGNIZED_VOLUME = 1005;
constexpr DWORD ERROR_NOT_ALL_ASSIGNED = 1300;
constexpr DWORD ERROR_NO_SUCH_PRIVILEGE = 1313;
constexpr DWORD ERROR_PRIVILEGE_NOT_HELD = 1314;
constexpr DWORD ERROR_INVALID_FLAGS = 1004;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_NOT_A_REPARSE_POINT = 4390;

// The calling thread's last-error value.
DWORD GetLastError();
void SetLastError(DWORD code);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_ERROR_H_
