// The thread's last error, and the one table that turns a Linux errno into
// the Win32 code a caller of the os:: functions expects.
#include "sim/errors.h"

#include <cerrno>

#include "os/error.h"

namespace os {
namespace {

// One value per thread, as on Windows; a new thread starts at 0.
thread_local DWORD lastError = ERROR_SUCCESS;

}  // namespace

DWORD GetLastError() {
    return lastError;
}

void SetLastError(DWORD code) {
    lastError = code;
}

}  // namespace os

namespace sim {

os::DWORD win32FromErrno(int error) {
    switch (error) {
        case 0:
            return os::ERROR_SUCCESS;
        case ENOENT:
            return os::ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
        case ELOOP:
            return os::ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
            return os::ERROR_ACCESS_DENIED;
        case EEXIST:
        case ENOTEMPTY:
            return os::ERROR_ALREADY_EXISTS;
        case ENOMEM:
        case ENOBUFS:
            return os::ERROR_NOT_ENOUGH_MEMORY;
        case EBADF:
            return os::ERROR_INVALID_HANDLE;
        case EAGAIN:
            return os::ERROR_PIPE_BUSY;
        case ENAMETOOLONG:
            return os::ERROR_FILENAME_EXCED_RANGE;
        case EINVAL:
        case EFAULT:
            return os::ERROR_INVALID_PARAMETER;
        case EPIPE:
        case ECONNRESET:
            return os::ERROR_BROKEN_PIPE;
        case ECONNREFUSED:
            return os::ERROR_FILE_NOT_FOUND;
        case ENOTCONN:
            return os::ERROR_PIPE_NOT_CONNECTED;
        case ETIMEDOUT:
            return os::ERROR_SEM_TIMEOUT;
        case ENOSPC:
            return os::ERROR_DISK_FULL;
        case ENOSYS:
        case EOPNOTSUPP:
            return os::ERROR_NOT_SUPPORTED;
        case ESRCH:
            return os::ERROR_INVALID_PARAMETER;
        case EIO:
        case ENXIO:
        case ENODEV:
            return os::ERROR_NOT_READY;
        default:
            return os::ERROR_INVALID_FUNCTION;
    }
}

}  // namespace sim
