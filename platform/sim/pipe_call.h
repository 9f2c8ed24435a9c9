// The client end of the simulated machine's named pipes: CallNamedPipeW's
// connect, send one message, read the reply, disconnect.
#ifndef PLATFORM_SIM_PIPE_CALL_H_
#define PLATFORM_SIM_PIPE_CALL_H_

#include <string>

#include "os/types.h"

namespace sim {

// Connects to the pipe `local` (a folded name from parsePipeName) within
// `timeOut` (or the pipe's default wait for NMPWAIT_USE_DEFAULT_WAIT),
// sends `in`, reads the reply into `out` and disconnects. TRUE, or FALSE with
// last error: ERROR_FILE_NOT_FOUND when no process serves the name,
// ERROR_PIPE_BUSY when no instance took the call in time, ERROR_MORE_DATA
// when the reply was cut to `outSize` (the rest is lost), ERROR_BROKEN_PIPE
// when the server went away.
os::BOOL callPipe(const std::u16string& local, const void* in, os::DWORD inSize, void* out,
                  os::DWORD outSize, os::DWORD* bytesRead, os::DWORD timeOut);

}  // namespace sim

#endif  // PLATFORM_SIM_PIPE_CALL_H_
