// The server end of the simulated machine's named pipes: pipe instances made
// by CreateNamedPipeW, which take clients (ConnectNamedPipe) and read and
// write whole messages through ReadFile and WriteFile.
//
// Every instance of a pipe in the serving process shares one listening socket.
// It listens with a backlog of 0, so at most one client can queue while every
// instance is busy and the next one is refused at once. An instance that takes
// a client sends it the served byte first; a client that does not get it
// within its wait was never served and reports the pipe busy, as Windows does
// when no instance is free.
//
// A pipe instance handle is a table handle, not a descriptor handle: ReadFile
// and WriteFile ask isPipeInstance first and hand such handles to the
// functions below, which keep the pipe's message framing.
//
// Thread safety: instances may be made and closed on any thread; each
// instance is used by one thread at a time, as on Windows.
#ifndef PLATFORM_SIM_PIPE_SERVER_H_
#define PLATFORM_SIM_PIPE_SERVER_H_

#include <string>

#include "os/types.h"

namespace sim {

// A new instance of the pipe `local` (a folded name from parsePipeName),
// serving it from this process when no instance does yet. The handle, or
// INVALID_HANDLE_VALUE with *error set: ERROR_ACCESS_DENIED when another
// process serves the name or `maxInstances` differs from the other
// instances', ERROR_PIPE_BUSY when all instances exist.
os::HANDLE createPipeInstance(const std::u16string& local, os::DWORD maxInstances,
                              os::DWORD defaultTimeOut, os::DWORD* error);
bool isPipeInstance(os::HANDLE handle);
// Waits for a client and takes it. 0, or ERROR_INVALID_HANDLE,
// ERROR_PIPE_CONNECTED, or the code of a failed accept.
os::DWORD connectPipeInstance(os::HANDLE handle);
// Drops the connected client. 0, ERROR_INVALID_HANDLE or ERROR_PIPE_NOT_CONNECTED.
os::DWORD disconnectPipeInstance(os::HANDLE handle);

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

#endif  // PLATFORM_SIM_PIPE_SERVER_H_
