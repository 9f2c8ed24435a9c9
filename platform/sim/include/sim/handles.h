// Handle values of the simulated machine.
//
// A handle that stands for a Linux file descriptor has the value (fd + 1) * 4,
// so a descriptor taken into another process (pidfd_getfd) is named there the
// same way, and driver handles are file descriptors too. Every other handle
// (volume and file searches, event sources, mutexes, tokens, processes) is an
// object in a process-wide table, with values from 0x40000000 upward.
//
// All functions are thread-safe.
#ifndef PLATFORM_SIM_INCLUDE_SIM_HANDLES_H_
#define PLATFORM_SIM_INCLUDE_SIM_HANDLES_H_

#include <memory>

#include "os/types.h"

namespace sim {

os::HANDLE handleFromFd(int fd);
// The descriptor of a descriptor handle, or -1 for any other value.
int fdFromHandle(os::HANDLE handle);

// An object behind a table handle; destroyed when its handle is closed.
class HandleObject {
  public:
    virtual ~HandleObject() = default;
};

// Adds an object and returns its new handle.
os::HANDLE registerHandle(std::unique_ptr<HandleObject> object);
// The object behind `handle` when it is a table handle of type T, else null.
// The pointer stays valid until the handle is closed; callers must not close a
// handle while another thread uses it (as on Windows).
HandleObject* lookupHandle(os::HANDLE handle);
template <class T>
T* lookupHandleAs(os::HANDLE handle) {
    return dynamic_cast<T*>(lookupHandle(handle));
}
// Removes and destroys the object; false when `handle` is not in the table.
bool closeTableHandle(os::HANDLE handle);

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_HANDLES_H_
