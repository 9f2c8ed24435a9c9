// Handle values and the process-wide table of handle objects, and
// CloseHandle for both kinds of handle.
#include "sim/handles.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "os/error.h"
#include "os/handle.h"
#include "os_call.h"
#include "search_handle.h"
#include "sim/errors.h"
#include "sim/hooks.h"

namespace sim {
namespace {

constexpr std::uintptr_t kFirstTableHandle = 0x40000000;
constexpr std::uintptr_t kHandleStep = 4;

struct HandleTable {
    std::mutex mutex;
    std::uintptr_t next = kFirstTableHandle;
    std::unordered_map<std::uintptr_t, std::unique_ptr<HandleObject>> objects;
};

// Never destroyed: handles may still be closed by static destructors of other
// libraries after this one's statics would have gone.
HandleTable& table() {
    static HandleTable* instance = new HandleTable;
    return *instance;
}

std::uintptr_t valueOf(os::HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

}  // namespace

os::HANDLE handleFromFd(int fd) {
    if (fd < 0) {
        return os::INVALID_HANDLE_VALUE;
    }
    return reinterpret_cast<os::HANDLE>((static_cast<std::uintptr_t>(fd) + 1) * kHandleStep);
}

int fdFromHandle(os::HANDLE handle) {
    const std::uintptr_t value = valueOf(handle);
    if (value < kHandleStep || value >= kFirstTableHandle || value % kHandleStep != 0) {
        return -1;
    }
    return static_cast<int>(value / kHandleStep - 1);
}

os::HANDLE registerHandle(std::unique_ptr<HandleObject> object) {
    HandleTable& handles = table();
    std::lock_guard lock(handles.mutex);
    // Values are not reused while the process lives, so a stale handle never
    // names a newer object; wrapping would take 2^62 handles.
    const std::uintptr_t value = handles.next;
    handles.next += kHandleStep;
    handles.objects.emplace(value, std::move(object));
    return reinterpret_cast<os::HANDLE>(value);
}

HandleObject* lookupHandle(os::HANDLE handle) {
    HandleTable& handles = table();
    std::lock_guard lock(handles.mutex);
    auto found = handles.objects.find(valueOf(handle));
    return found == handles.objects.end() ? nullptr : found->second.get();
}

bool closeTableHandle(os::HANDLE handle) {
    std::unique_ptr<HandleObject> object;
    {
        HandleTable& handles = table();
        std::lock_guard lock(handles.mutex);
        auto found = handles.objects.find(valueOf(handle));
        if (found == handles.objects.end()) {
            return false;
        }
        object = std::move(found->second);
        handles.objects.erase(found);
    }
    // Destroyed outside the lock: a destructor may close handles of its own.
    object.reset();
    return true;
}

}  // namespace sim

namespace os {

BOOL CloseHandle(HANDLE object) {
    DWORD error = 0;
    if (sim::faultOnEntry<"CloseHandle">(&error)) {
        return sim::fail(error, FALSE);
    }
    // The current-process pseudo handle: closing it is allowed and does nothing.
    if (object == INVALID_HANDLE_VALUE) {
        return TRUE;
    }
    const int fd = sim::fdFromHandle(object);
    if (fd >= 0) {
        if (::close(fd) != 0 && errno != EINTR) {
            return sim::fail(sim::win32FromErrno(errno), FALSE);
        }
        return TRUE;
    }
    if (sim::lookupHandleAs<sim::SearchObject>(object) != nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!sim::closeTableHandle(object)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    return TRUE;
}

}  // namespace os
