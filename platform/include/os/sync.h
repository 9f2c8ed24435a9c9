// Critical sections (in-process) and named mutexes (machine-wide).
//
// A named mutex is shared by every process of the machine that opens the
// same name. Ownership is per thread and recursive.
#ifndef PLATFORM_INCLUDE_OS_SYNC_H_
#define PLATFORM_INCLUDE_OS_SYNC_H_

#include "os/types.h"

namespace os {

constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD WAIT_OBJECT_0 = 0x00000000;
constexpr DWORD WAIT_ABANDONED = 0x00000080;
constexpr DWORD WAIT_TIMEOUT = 0x00000102;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

// A recursive in-process lock; opaque to callers. Initialise before use,
// delete after.
struct CRITICAL_SECTION {
    alignas(8) unsigned char storage[64];
};

// `spinCount`: how often a waiting thread spins before it blocks. TRUE; FALSE
// with the reason in last error when the section cannot be set up.
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount);
void EnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);

// Creates or opens the named mutex `name` (names are case-sensitive). "Local\"
// is the namespace of names without prefix; "Global\" names are separate. A
// null or empty name makes an unnamed mutex. `initialOwner` makes the calling
// thread own a mutex it creates; an existing mutex is opened as it is.
// Returns a handle; last error is ERROR_ALREADY_EXISTS when it existed, else
// 0. NULL on failure with the reason in last error: ERROR_PATH_NOT_FOUND for a
// backslash other than after the namespace prefix, ERROR_FILENAME_EXCED_RANGE
// for a name of MAX_PATH characters or more. The mutex lives while any process
// of the machine holds a handle to it.
HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCWSTR name);
// Waits until the object is signalled or `milliseconds` pass. For a mutex:
// WAIT_OBJECT_0 (now owned), WAIT_ABANDONED (owned; its previous owner ended
// while holding it), WAIT_TIMEOUT, or WAIT_FAILED with last error
// ERROR_INVALID_HANDLE. Time-outs run on the clock of os/time.h.
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
// FALSE with ERROR_NOT_OWNER when the calling thread does not own the mutex.
BOOL ReleaseMutex(HANDLE mutex);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_SYNC_H_
