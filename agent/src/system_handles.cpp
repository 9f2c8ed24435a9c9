#include "system_handles.h"

#include <sys/stat.h>

#include "os/error.h"
#include "os/handle.h"
#include "os/process.h"
#include "sim/handles.h"

namespace kivagent {
namespace {

os::HANDLE asHandle(std::uint64_t value) {
    return reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(value));
}

// 0, or the error that kept the debug privilege from being enabled.
os::DWORD enableDebugPrivilege() {
    os::HANDLE token = nullptr;
    if (!os::OpenProcessToken(os::GetCurrentProcess(),
                              os::TOKEN_ADJUST_PRIVILEGES | os::TOKEN_QUERY, &token)) {
        return os::GetLastError();
    }
    os::UniqueHandle owned(token);
    os::TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = os::SE_PRIVILEGE_ENABLED;
    if (!os::LookupPrivilegeValueW(nullptr, u"SeDebugPrivilege", &privileges.Privileges[0].Luid) ||
        !os::AdjustTokenPrivileges(token, os::FALSE, &privileges, 0, nullptr, nullptr)) {
        return os::GetLastError();
    }
    return 0;
}

}  // namespace

os::DWORD SystemHandleOperations::duplicateFrom(os::DWORD processId, std::uint64_t handle,
                                                std::uint64_t* copy) {
    os::UniqueHandle process(os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, processId));
    if (!process.valid()) {
        os::DWORD refused = os::GetLastError();
        if (refused != os::ERROR_ACCESS_DENIED || enableDebugPrivilege() != 0) {
            return refused;
        }
        process.reset(os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, processId));
        if (!process.valid()) {
            return os::GetLastError();
        }
    }
    os::HANDLE duplicate = nullptr;
    if (!os::DuplicateHandle(process.get(), asHandle(handle), os::GetCurrentProcess(), &duplicate,
                             0, os::FALSE, os::DUPLICATE_SAME_ACCESS)) {
        return os::GetLastError();
    }
    *copy = reinterpret_cast<std::uintptr_t>(duplicate);
    return 0;
}

os::DWORD SystemHandleOperations::close(std::uint64_t handle) {
    return os::CloseHandle(asHandle(handle)) ? 0 : os::GetLastError();
}

bool SystemHandleOperations::isGone(std::uint64_t handle) {
    // A snapshot volume is a directory that the driver deletes when it
    // destroys the snapshot; a held descriptor keeps it alive with no links.
    int fd = sim::fdFromHandle(asHandle(handle));
    struct stat status {};
    return fd >= 0 && fstat(fd, &status) == 0 && status.st_nlink == 0;
}

}  // namespace kivagent
