// Closing kernel handles, and an owner for them.
#ifndef PLATFORM_INCLUDE_OS_HANDLE_H_
#define PLATFORM_INCLUDE_OS_HANDLE_H_

#include "os/types.h"

namespace os {

// Closes a handle of any kind (file, volume, mutex, process, pipe, token,
// event source is not one: use DeregisterEventSource). FALSE with
// ERROR_INVALID_HANDLE for a handle that is not open.
BOOL CloseHandle(HANDLE object);

// Move-only owner of a handle closed with CloseHandle. NULL and
// INVALID_HANDLE_VALUE both count as empty. Move-assignment closes the held
// handle first.
class UniqueHandle {
  public:
    UniqueHandle() = default;
    explicit UniqueHandle(HANDLE handle) : handle_(handle) {}
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~UniqueHandle() { reset(); }

    HANDLE get() const { return handle_; }
    bool valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
    HANDLE release() {
        HANDLE handle = handle_;
        handle_ = nullptr;
        return handle;
    }
    void reset(HANDLE handle = nullptr) {
        if (valid()) {
            CloseHandle(handle_);
        }
        handle_ = handle;
    }

  private:
    HANDLE handle_ = nullptr;
};

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_HANDLE_H_
