// Reading and writing the server end of a named pipe, for ReadFile and
// WriteFile.
//
// A pipe instance handle (from CreateNamedPipeW) is a table handle, not a
// descriptor handle: ReadFile and WriteFile ask isPipeInstance first and hand
// such handles to the functions below, which keep the pipe's message framing.
//
// Thread safety: as on Windows, one thread at a time per instance.
#ifndef PLATFORM_SIM_PIPE_FRAMING_H_
#define PLATFORM_SIM_PIPE_FRAMING_H_

#include "os/types.h"

namespace sim {

bool isPipeInstance(os::HANDLE handle);

// Reads the next message from the connected client, or the rest of a message
// that an earlier short read left. TRUE when the whole (rest of the) message
// fit; FALSE with ERROR_MORE_DATA when only the first `size` bytes were
// delivered (the next read continues the message); FALSE with
// ERROR_BROKEN_PIPE when the client has gone, ERROR_PIPE_NOT_CONNECTED when no
// client is connected, ERROR_INVALID_HANDLE for a handle that is no pipe
// instance. `bytesRead` (may be null) receives the bytes delivered.
os::BOOL readPipeMessage(os::HANDLE handle, void* buffer, os::DWORD size, os::DWORD* bytesRead);

// Sends `size` bytes as one message to the connected client. FALSE with
// ERROR_NO_DATA when the client has closed its end, ERROR_PIPE_NOT_CONNECTED
// when no client is connected.
os::BOOL writePipeMessage(os::HANDLE handle, const void* buffer, os::DWORD size,
                          os::DWORD* bytesWritten);

}  // namespace sim

#endif  // PLATFORM_SIM_PIPE_FRAMING_H_
