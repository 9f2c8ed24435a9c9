// The provider's side of the backup agent's handle rendezvous on the pipe
// "\\.\Pipe\ORBHandleRendevous": register a snapshot volume's handle with the
// agent, retrieve (a duplicate of) the agent's handle to one, and ask the
// agent to release its handle.
//
// Each request is one CallNamedPipeW exchange on a fresh connection (536-byte
// request, 528-byte reply, the pipe's default wait). A status is the
// operating system's last error when the exchange fails (ERROR_PIPE_BUSY, 231,
// when every instance is busy; ERROR_FILE_NOT_FOUND when no agent serves the
// pipe), else the status field of the agent's reply.
//
// No state is shared between calls; safe from any thread.
#ifndef PROVIDERS_KIV_ORBHANDLECLIENT_H_
#define PROVIDERS_KIV_ORBHANDLECLIENT_H_

#include <cstdint>
#include <string>

#include "os/types.h"

namespace orbhandle {
struct Request;
}

namespace ORB {

inline constexpr os::DWORD kPipeBusy = 231;

// Code 2: hands the agent this process's `handle` to `volumeName`; the agent
// duplicates it.
os::DWORD RegisterVolumeHandle(std::uint64_t handle, const std::u16string& volumeName);

// Code 3: asks which process holds a handle to `volumeName`, then duplicates
// that handle into this process (enabling the debug privilege when the
// holding process cannot be opened otherwise). On 0, `*handle` is the
// duplicate, which the caller closes; on any other status it is untouched.
os::DWORD RetrieveHandle(const std::u16string& volumeName, std::uint64_t* handle);

// Code 4: asks the agent to close its handle to `volumeName`.
os::DWORD ReleaseVolumeHandle(const std::u16string& volumeName);

// Enables the privilege `name` in this process's token. 0 on success (also
// when the call succeeds without assigning it), else the last error.
os::DWORD EnablePrivilege(const char16_t* name);

// The request as it goes on the wire: every byte 0, then the code, this
// process's id, the handle, and the name cut to 259 characters plus NUL.
void BuildRequest(orbhandle::Request& request, std::uint32_t code, std::uint64_t handle,
                  const std::u16string& volumeName);

}  // namespace ORB

#endif  // PROVIDERS_KIV_ORBHANDLECLIENT_H_
