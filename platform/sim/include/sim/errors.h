// Turning Linux failures into Win32 last-error answers, in one place.
#ifndef PLATFORM_SIM_INCLUDE_SIM_ERRORS_H_
#define PLATFORM_SIM_INCLUDE_SIM_ERRORS_H_

#include "os/types.h"

namespace sim {

// The Win32 code for an errno value (ENOENT -> ERROR_FILE_NOT_FOUND, ENOTDIR ->
// ERROR_PATH_NOT_FOUND, EACCES/EPERM -> ERROR_ACCESS_DENIED, EEXIST ->
// ERROR_ALREADY_EXISTS, ENOMEM -> ERROR_NOT_ENOUGH_MEMORY, EBADF ->
// ERROR_INVALID_HANDLE, EAGAIN -> ERROR_PIPE_BUSY, ENAMETOOLONG ->
// ERROR_FILENAME_EXCED_RANGE, EINVAL -> ERROR_INVALID_PARAMETER, ...).
os::DWORD win32FromErrno(int error);

// Sets the last error and returns `result`: `return fail(ERROR_X, FALSE);`.
template <class T>
T fail(os::DWORD error, T result);

}  // namespace sim

#include "os/error.h"

namespace sim {
template <class T>
T fail(os::DWORD error, T result) {
    os::SetLastError(error);
    return result;
}
}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_ERRORS_H_
