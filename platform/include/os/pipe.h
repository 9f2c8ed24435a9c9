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
// (`timeOut` 0 = the pipe's default wait), ERROR_MORE_DATA when the reply was
// longer than `outBufferSize` (the first bytes are delivered),
// ERROR_INVALID_NAME for a name outside "\\.\pipe\".
BOOL CallNamedPipeW(LPCWSTR pipeName, LPVOID inBuffer, DWORD inBufferSize, LPVOID outBuffer,
                    DWORD outBufferSize, DWORD* bytesRead, DWORD timeOut);

// Server side: creates one instance of the pipe (up to `maxInstances` in all).
// INVALID_HANDLE_VALUE with ERROR_PIPE_BUSY when all instances exist,
// ERROR_INVALID_NAME for a bad name, ERROR_ACCESS_DENIED when another server
// already serves the name with other settings.
HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                        DWORD outBufferSize, DWORD inBufferSize, DWORD defaultTimeOut,
                        LPSECURITY_ATTRIBUTES securityAttributes);
// Waits for a client on the instance. TRUE when one connected.
BOOL ConnectNamedPipe(HANDLE namedPipe, LPVOID overlapped);
// Ends the instance's client connection so it can accept the next one.
BOOL DisconnectNamedPipe(HANDLE namedPipe);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_PIPE_H_
