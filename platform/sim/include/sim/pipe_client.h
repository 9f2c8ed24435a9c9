// Who is on the other end of a named-pipe server instance: the client's
// process, user and group ids as the kernel recorded them when the client
// connected (SO_PEERCRED). Windows answers the process id alone
// (os::GetNamedPipeClientProcessId); a server that must also check the
// client's user, such as the backup agent, asks here.
//
// Thread-safe, as the instance's other calls: one thread uses an instance at
// a time.
#ifndef PLATFORM_SIM_INCLUDE_SIM_PIPE_CLIENT_H_
#define PLATFORM_SIM_INCLUDE_SIM_PIPE_CLIENT_H_

#include <sys/types.h>

#include "os/types.h"

namespace sim {

struct PipeClientCredentials {
    pid_t processId = 0;
    uid_t userId = 0;
    gid_t groupId = 0;
};

// 0 with the credentials of the client connected to `pipe`, or a Win32 error
// code: ERROR_INVALID_HANDLE for a handle that is not a pipe instance,
// ERROR_PIPE_NOT_CONNECTED when no client is connected. Does not set the last
// error.
os::DWORD getPipeClientCredentials(os::HANDLE pipe, PipeClientCredentials* credentials);

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_PIPE_CLIENT_H_
