// Processes, handle duplication and token privileges of the simulated machine.
//
// A process handle holds a pidfd. DuplicateHandle takes a descriptor out of
// another process with pidfd_getfd, which the kernel allows only to a caller
// with ptrace rights over that process: the same user, a dumpable target, and
// what the Yama module permits (/proc/sys/kernel/yama/ptrace_scope 0, or 1 with
// the target a descendant or naming us with PR_SET_PTRACER), or else
// CAP_SYS_PTRACE. The debug privilege is that capability, so a caller that is
// refused can enable "SeDebugPrivilege" and try again, as on Windows.
//
// Capabilities belong to a thread on Linux: enabling the privilege changes the
// calling thread only, unlike a Windows token that the whole process shares.
//
// All functions are thread-safe.
#include "os/process.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include "object_names.h"
#include "os/error.h"
#include "os_call.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/text.h"

namespace sim {
namespace {

using os::DWORD;

// The identifier Windows gives the debug privilege.
constexpr os::LUID kDebugPrivilege = {20, 0};

class ProcessObject final : public HandleObject {
  public:
    ProcessObject(int pidfd, pid_t pid) : pidfd_(pidfd), pid_(pid) {}
    ProcessObject(const ProcessObject&) = delete;
    ProcessObject& operator=(const ProcessObject&) = delete;
    ~ProcessObject() override { close(pidfd_); }

    int pidfd() const { return pidfd_; }
    pid_t pid() const { return pid_; }

  private:
    int pidfd_;
    pid_t pid_;
};

class TokenObject final : public HandleObject {
  public:
    TokenObject(pid_t pid, DWORD access) : pid_(pid), access_(access) {}

    pid_t pid() const { return pid_; }
    DWORD access() const { return access_; }

  private:
    pid_t pid_;
    DWORD access_;
};

// A process handle resolved: the calling process (pidfd -1) or an opened one.
struct ProcessRef {
    pid_t pid = 0;
    int pidfd = -1;
    bool self() const { return pidfd < 0; }
};

bool resolveProcess(os::HANDLE handle, ProcessRef* process) {
    if (handle == os::GetCurrentProcess()) {
        *process = {getpid(), -1};
        return true;
    }
    auto* object = lookupHandleAs<ProcessObject>(handle);
    if (object == nullptr) {
        return false;
    }
    // An opened handle to ourselves behaves like the pseudo-handle.
    *process = {object->pid(), object->pid() == getpid() ? -1 : object->pidfd()};
    return true;
}

struct Capabilities {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
};

constexpr std::uint32_t kPtraceBit = 1u << CAP_SYS_PTRACE;
static_assert(CAP_SYS_PTRACE < 32, "CAP_SYS_PTRACE lies in the first capability word");

bool readCapabilities(Capabilities* capabilities) {
    return syscall(SYS_capget, &capabilities->header, capabilities->data) == 0;
}

bool writeCapabilities(Capabilities* capabilities) {
    return syscall(SYS_capset, &capabilities->header, capabilities->data) == 0;
}

// Direct system calls: the glibc wrappers are missing from older releases and
// are declared without C linkage in some.
int openPidfd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}
int takeDescriptor(int pidfd, int fd) {
    return static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, fd, 0));
}

bool isDebugPrivilege(const os::LUID& luid) {
    return luid.LowPart == kDebugPrivilege.LowPart && luid.HighPart == kDebugPrivilege.HighPart;
}

bool equalsIgnoringCase(std::u16string_view left, std::u16string_view right) {
    return lowerAscii(left) == lowerAscii(right);
}

}  // namespace
}  // namespace sim

namespace os {

DWORD GetCurrentProcessId() {
    // Cannot fail; a fault is counted only.
    DWORD ignored = 0;
    sim::faultOnEntry<"GetCurrentProcessId">(&ignored);
    return static_cast<DWORD>(getpid());
}

HANDLE GetCurrentProcess() {
    DWORD ignored = 0;
    sim::faultOnEntry<"GetCurrentProcess">(&ignored);
    return reinterpret_cast<HANDLE>(~std::uintptr_t{0});
}

HANDLE OpenProcess(DWORD desiredAccess, BOOL /*inheritHandle*/, DWORD processId) {
    DWORD error = 0;
    if (sim::faultOnEntry<"OpenProcess">(&error)) {
        return sim::fail(error, HANDLE{nullptr});
    }
    if (processId == 0 || processId > static_cast<DWORD>(INT_MAX)) {
        return sim::fail(ERROR_INVALID_PARAMETER, HANDLE{nullptr});
    }
    auto pid = static_cast<pid_t>(processId);
    int pidfd = sim::openPidfd(pid);
    if (pidfd < 0) {
        return sim::fail(errno == ESRCH ? ERROR_INVALID_PARAMETER : sim::win32FromErrno(errno),
                         HANDLE{nullptr});
    }
    if ((desiredAccess & PROCESS_DUP_HANDLE) != 0 && pid != getpid()) {
        // Ask for a descriptor no process has: the kernel checks our ptrace
        // rights first (EPERM) and only then finds nothing (EBADF).
        int probe = sim::takeDescriptor(pidfd, INT_MAX);
        int probeError = errno;
        if (probe >= 0) {
            close(probe);
        } else if (probeError == EPERM) {
            close(pidfd);
            return sim::fail(ERROR_ACCESS_DENIED, HANDLE{nullptr});
        } else if (probeError == ESRCH) {
            close(pidfd);
            return sim::fail(ERROR_INVALID_PARAMETER, HANDLE{nullptr});
        }
    }
    return sim::registerHandle(std::make_unique<sim::ProcessObject>(pidfd, pid));
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                     HANDLE* targetHandle, DWORD /*desiredAccess*/, BOOL inheritHandle,
                     DWORD options) {
    DWORD error = 0;
    if (sim::faultOnEntry<"DuplicateHandle">(&error)) {
        return sim::fail(error, FALSE);
    }
    sim::ProcessRef source;
    sim::ProcessRef target;
    if (!sim::resolveProcess(sourceProcess, &source) ||
        !sim::resolveProcess(targetProcess, &target)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!target.self()) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (targetHandle == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    int fd = sim::fdFromHandle(sourceHandle);
    if (fd < 0) {
        // Table handles (mutexes, tokens, ...) have no descriptor to copy.
        bool tableHandle = source.self() && sim::lookupHandle(sourceHandle) != nullptr;
        return sim::fail(tableHandle ? ERROR_NOT_SUPPORTED : ERROR_INVALID_HANDLE, FALSE);
    }

    int copy = -1;
    if (source.self()) {
        copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (copy < 0) {
            return sim::fail(errno == EBADF ? ERROR_INVALID_HANDLE : sim::win32FromErrno(errno),
                             FALSE);
        }
        if ((options & DUPLICATE_CLOSE_SOURCE) != 0) {
            close(fd);
        }
    } else {
        if ((options & DUPLICATE_CLOSE_SOURCE) != 0) {
            return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
        }
        copy = sim::takeDescriptor(source.pidfd, fd);
        if (copy < 0) {
            switch (errno) {
                case EPERM:
                    return sim::fail(ERROR_ACCESS_DENIED, FALSE);
                case EBADF:
                case ESRCH:  // the process has ended and its handles with it
                    return sim::fail(ERROR_INVALID_HANDLE, FALSE);
                default:
                    return sim::fail(sim::win32FromErrno(errno), FALSE);
            }
        }
    }
    if (inheritHandle) {
        fcntl(copy, F_SETFD, 0);
    }
    *targetHandle = sim::handleFromFd(copy);
    return TRUE;
}

BOOL OpenProcessToken(HANDLE process, DWORD desiredAccess, HANDLE* tokenHandle) {
    DWORD error = 0;
    if (sim::faultOnEntry<"OpenProcessToken">(&error)) {
        return sim::fail(error, FALSE);
    }
    sim::ProcessRef resolved;
    if (!sim::resolveProcess(process, &resolved)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (tokenHandle == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    *tokenHandle =
        sim::registerHandle(std::make_unique<sim::TokenObject>(resolved.pid, desiredAccess));
    return TRUE;
}

BOOL LookupPrivilegeValueW(LPCWSTR systemName, LPCWSTR name, LUID* luid) {
    DWORD error = 0;
    if (sim::faultOnEntry<"LookupPrivilegeValueW">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (systemName != nullptr && *systemName != u'\0') {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (name == nullptr || luid == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (!sim::equalsIgnoringCase(name, u"SeDebugPrivilege")) {
        return sim::fail(ERROR_NO_SUCH_PRIVILEGE, FALSE);
    }
    *luid = sim::kDebugPrivilege;
    return TRUE;
}

BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAllPrivileges, TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previousState,
                           DWORD* returnLength) {
    DWORD error = 0;
    if (sim::faultOnEntry<"AdjustTokenPrivileges">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* object = sim::lookupHandleAs<sim::TokenObject>(token);
    if (object == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if ((object->access() & TOKEN_ADJUST_PRIVILEGES) == 0) {
        return sim::fail(ERROR_ACCESS_DENIED, FALSE);
    }
    if (object->pid() != getpid()) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (!disableAllPrivileges && newState == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (previousState != nullptr) {
        if (returnLength == nullptr) {
            return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
        }
        *returnLength = sizeof(TOKEN_PRIVILEGES);
        if (bufferLength < sizeof(TOKEN_PRIVILEGES)) {
            return sim::fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
        }
    }

    sim::Capabilities capabilities;
    if (!sim::readCapabilities(&capabilities)) {
        return sim::fail(sim::win32FromErrno(errno), FALSE);
    }
    std::uint32_t& effective = capabilities.data[0].effective;
    std::uint32_t& permitted = capabilities.data[0].permitted;
    const bool wasEnabled = (effective & sim::kPtraceBit) != 0;
    const std::uint32_t oldEffective = effective;
    const std::uint32_t oldPermitted = permitted;
    bool notAssigned = false;
    if (disableAllPrivileges) {
        effective &= ~sim::kPtraceBit;
    } else {
        for (DWORD i = 0; i < newState->PrivilegeCount; ++i) {
            const LUID_AND_ATTRIBUTES& entry = newState->Privileges[i];
            if (!sim::isDebugPrivilege(entry.Luid)) {
                notAssigned = true;  // a privilege this token does not have
                continue;
            }
            if ((entry.Attributes & SE_PRIVILEGE_REMOVED) != 0) {
                effective &= ~sim::kPtraceBit;
                permitted &= ~sim::kPtraceBit;
            } else if ((entry.Attributes & SE_PRIVILEGE_ENABLED) != 0) {
                if ((permitted & sim::kPtraceBit) != 0) {
                    effective |= sim::kPtraceBit;
                } else {
                    notAssigned = true;
                }
            } else {
                effective &= ~sim::kPtraceBit;
            }
        }
    }
    bool changed = effective != oldEffective || permitted != oldPermitted;
    if (changed && !sim::writeCapabilities(&capabilities)) {
        return sim::fail(sim::win32FromErrno(errno), FALSE);
    }
    if (previousState != nullptr) {
        previousState->PrivilegeCount = 0;
        if (changed) {
            previousState->PrivilegeCount = 1;
            previousState->Privileges[0].Luid = sim::kDebugPrivilege;
            previousState->Privileges[0].Attributes = wasEnabled ? SE_PRIVILEGE_ENABLED : 0;
        }
    }
    SetLastError(notAssigned ? ERROR_NOT_ALL_ASSIGNED : ERROR_SUCCESS);
    return TRUE;
}

}  // namespace os
