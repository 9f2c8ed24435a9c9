// Named pipes "\\.\pipe\NAME" (prefix case-insensitive), message mode, on the
// local machine. The server creates instances and accepts one client each; a
// client exchanges one message with CallNamedPipeW.
#ifndef PLATFORM_INCLUDE_OS_PIPE_H_
#define PLATFORM_INCLUDE_OS_PIPE_H_

#include "os/types.h"

namespace os {

constexpr DWORD PIPE_ACCESS_DUPLEX = 0x3;
constexpr DWORD PIPE_TYPE_MESSAGE = 0x4;
constexpr DWORD PIPE_READMODE_MESSAGE = 0x2;
constexpr DWORD PIPE_WAIT = 0x0;
constexpr DWORD PIPE_UNLIMITED_INSTANCES = 255;
constexpr DWORD NMPWAIT_USE_DEFAULT_WAIT = 0x0;
constexpr DWORD NMPWAIT_NOWAIT = 0x1;
constexpr DWORD NMPWAIT_WAIT_FOREVER = 0xFFFFFFFF;

// Connects to the pipe, writes `inBuffer`, reads one reply message into
// `outBuffer`, and disconnects. FALSE with ERROR_FILE_NOT_FOUND when no server
// serves the name, ERROR_PIPE_BUSY when every instance stayed busy for the wait
// (`timeOut` 0 = the pipe's default wait, NMPWAIT_NOWAIT = no wait,
// NMPWAIT_WAIT_FOREVER), ERROR_MORE_DATA when the reply was longer than
// `outBufferSize` (the first bytes are delivered and `*bytesRead` counts them;
// the rest is lost), ERROR_BROKEN_PIPE when the server hung up without a
// reply, ERROR_INVALID_NAME for a name outside "\\.\pipe\",
// ERROR_PATH_NOT_FOUND for a null name. The wait runs on the real clock, also
// under the virtual one: it waits for another process's progress.
BOOL CallNamedPipeW(LPCWSTR pipeName, LPVOID inBuffer, DWORD inBufferSize, LPVOID outBuffer,
                    DWORD outBufferSize, DWORD* bytesRead, DWORD timeOut);

// Server side: creates one instance of the pipe (up to `maxInstances` in all).
// INVALID_HANDLE_VALUE with ERROR_PIPE_BUSY when all instances exist,
// ERROR_INVALID_NAME for a bad name, ERROR_ACCESS_DENIED when another server
// already serves the name with other settings.
HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                        DWORD outBufferSize, DWORD inBufferSize, DWORD defaultTimeOut,
                        LPSECURITY_ATTRIBUTES securityAttributes);
// Instances are read and written with ReadFile and WriteFile, one message per
// call; a read into a short buffer gives ERROR_MORE_DATA and the next read
// continues the message. Close an instance with CloseHandle; closing the last
// one stops serving the name. PIPE_NOWAIT and overlapped instances give
// ERROR_NOT_SUPPORTED.
//
// Waits for a client on the instance. TRUE when one connected; FALSE with
// ERROR_PIPE_CONNECTED when a client is connected already. Overlapped waits
// are not supported (ERROR_NOT_SUPPORTED).
BOOL ConnectNamedPipe(HANDLE namedPipe, LPVOID overlapped);
// Ends the instance's client connection so it can accept the next one; the
// client's unread data is dropped. FALSE with ERROR_PIPE_NOT_CONNECTED when no
// client is connected.
BOOL DisconnectNamedPipe(HANDLE namedPipe);
// The process id of the client connected to a server instance, as the system
// saw it when the client connected. FALSE with ERROR_INVALID_HANDLE for a
// handle that is not a pipe instance, ERROR_PIPE_NOT_CONNECTED when no client
// is connected.
BOOL GetNamedPipeClientProcessId(HANDLE pipe, ULONG* clientProcessId);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_PIPE_H_
