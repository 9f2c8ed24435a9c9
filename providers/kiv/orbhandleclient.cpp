#include "kiv/orbhandleclient.h"

#include <algorithm>
#include <cstring>

#include "orbhandle/protocol.h"
#include "os/error.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "os/process.h"

namespace {

os::HANDLE asHandle(std::uint64_t value) {
    return reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(value));
}

// One request and its reply; the status of the exchange.
os::DWORD exchange(orbhandle::Request& request, orbhandle::Reply& reply) {
    std::memset(&reply, 0, sizeof(reply));
    os::DWORD bytesRead = 0;
    if (!os::CallNamedPipeW(orbhandle::kPipeName, &request, sizeof(request), &reply, sizeof(reply),
                            &bytesRead, /*timeOut=*/os::NMPWAIT_USE_DEFAULT_WAIT)) {
        return os::GetLastError();
    }
    return reply.status;
}

os::DWORD simpleRequest(std::uint32_t code, std::uint64_t handle,
                        const std::u16string& volumeName) {
    orbhandle::Request request;
    orbhandle::Reply reply;
    ORB::BuildRequest(request, code, handle, volumeName);
    return exchange(request, reply);
}

}  // namespace

namespace ORB {

void BuildRequest(orbhandle::Request& request, std::uint32_t code, std::uint64_t handle,
                  const std::u16string& volumeName) {
    std::memset(&request, 0, sizeof(request));
    request.code = code;
    request.processId = os::GetCurrentProcessId();
    request.handle = handle;
    std::size_t length = std::min(volumeName.size(), orbhandle::kMaxVolumeNameLength);
    std::copy_n(volumeName.data(), length, request.volumeName);
    request.volumeName[length] = u'\0';
}

os::DWORD RegisterVolumeHandle(std::uint64_t handle, const std::u16string& volumeName) {
    return simpleRequest(orbhandle::kRegisterVolumeHandle, handle, volumeName);
}

os::DWORD ReleaseVolumeHandle(const std::u16string& volumeName) {
    return simpleRequest(orbhandle::kReleaseVolumeHandle, 0, volumeName);
}

os::DWORD RetrieveHandle(const std::u16string& volumeName, std::uint64_t* handle) {
    orbhandle::Request request;
    orbhandle::Reply reply;
    BuildRequest(request, orbhandle::kRetrieveHandle, 0, volumeName);
    os::DWORD status = exchange(request, reply);
    if (status != 0) {
        return status;
    }
    os::HANDLE holder = os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, reply.processId);
    if (holder == nullptr) {
        os::DWORD privilege = EnablePrivilege(u"SeDebugPrivilege");
        if (privilege != 0) {
            return privilege;
        }
        holder = os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, reply.processId);
        if (holder == nullptr) {
            return os::GetLastError();
        }
    }
    os::HANDLE duplicate = nullptr;
    os::BOOL duplicated =
        os::DuplicateHandle(holder, asHandle(reply.handle), os::GetCurrentProcess(), &duplicate,
                            /*desiredAccess=*/0, os::FALSE, os::DUPLICATE_SAME_ACCESS);
    os::DWORD error = duplicated ? 0 : os::GetLastError();
    os::CloseHandle(holder);
    if (error == 0) {
        *handle = reinterpret_cast<std::uintptr_t>(duplicate);
    }
    return error;
}

os::DWORD EnablePrivilege(const char16_t* name) {
    os::HANDLE token = nullptr;
    if (!os::OpenProcessToken(os::GetCurrentProcess(),
                              os::TOKEN_ADJUST_PRIVILEGES | os::TOKEN_QUERY, &token)) {
        return os::GetLastError();
    }
    os::TOKEN_PRIVILEGES privileges{};
    if (!os::LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid)) {
        os::DWORD error = os::GetLastError();
        os::CloseHandle(token);
        return error;
    }
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = os::SE_PRIVILEGE_ENABLED;
    if (!os::AdjustTokenPrivileges(token, os::FALSE, &privileges, 0, nullptr, nullptr)) {
        os::DWORD error = os::GetLastError();
        os::CloseHandle(token);
        return error;
    }
    os::CloseHandle(token);
    return 0;
}

}  // namespace ORB
