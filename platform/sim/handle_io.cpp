// ReadFile and WriteFile: reading and writing through handles. A descriptor
// handle reads and writes its Linux descriptor (a file, a pipe or a socket);
// the server end of a named pipe, a table handle that keeps the pipe's
// message framing, goes to the pipe server's own reader and writer.
#include "os/file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "os/error.h"
#include "os_call.h"
#include "pipe_server.h"
#include "sim/errors.h"
#include "sim/handles.h"

namespace os {

/***********************************************************************
 *           ReadFile   (kernel32.dll)
 */
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD numberOfBytesToRead, DWORD* numberOfBytesRead,
              LPVOID overlapped) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"ReadFile">(&error)) {
        return sim::fail(error, FALSE);
    }
    // A named pipe's server end is a table handle that keeps the message
    // framing; it has its own reader and writer.
    if (sim::isPipeInstance(file)) {
        return sim::readPipeMessage(file, buffer, numberOfBytesToRead, numberOfBytesRead);
    }
    const int fd = sim::fdFromHandle(file);
    if (fd < 0) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (overlapped != nullptr) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (numberOfBytesRead == nullptr || (buffer == nullptr && numberOfBytesToRead != 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    *numberOfBytesRead = 0;
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        return sim::fail(sim::win32FromErrno(errno), FALSE);
    }
    auto* bytes = static_cast<char*>(buffer);
    if (!S_ISREG(info.st_mode)) {
        // Pipes and sockets deliver what has arrived; an end closed by the
        // writer is a broken pipe, not an empty read.
        ssize_t got = 0;
        do {
            got = ::read(fd, bytes, numberOfBytesToRead);
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            return sim::fail(sim::win32FromErrno(errno), FALSE);
        }
        if (got == 0 && numberOfBytesToRead != 0) {
            return sim::fail(ERROR_BROKEN_PIPE, FALSE);
        }
        *numberOfBytesRead = static_cast<DWORD>(got);
        return TRUE;
    }
    // A file read returns the whole request unless the end comes first.
    DWORD total = 0;
    while (total < numberOfBytesToRead) {
        const ssize_t got = ::read(fd, bytes + total, numberOfBytesToRead - total);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            *numberOfBytesRead = total;
            return sim::fail(sim::win32FromErrno(errno), FALSE);
        }
        if (got == 0) {
            break;
        }
        total += static_cast<DWORD>(got);
    }
    *numberOfBytesRead = total;
    return TRUE;
}

/***********************************************************************
 *           WriteFile   (kernel32.dll)
 */
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD numberOfBytesToWrite, DWORD* numberOfBytesWritten,
               LPVOID overlapped) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"WriteFile">(&error)) {
        return sim::fail(error, FALSE);
    }
    // A named pipe's server end is a table handle that keeps the message
    // framing; it has its own reader and writer.
    if (sim::isPipeInstance(file)) {
        return sim::writePipeMessage(file, buffer, numberOfBytesToWrite, numberOfBytesWritten);
    }
    const int fd = sim::fdFromHandle(file);
    if (fd < 0) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (overlapped != nullptr) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (numberOfBytesWritten == nullptr || (buffer == nullptr && numberOfBytesToWrite != 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    *numberOfBytesWritten = 0;
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        return sim::fail(sim::win32FromErrno(errno), FALSE);
    }
    const bool socket = S_ISSOCK(info.st_mode);
    const bool pipe = socket || S_ISFIFO(info.st_mode);
    const auto* bytes = static_cast<const char*>(buffer);
    DWORD total = 0;
    while (total < numberOfBytesToWrite) {
        // MSG_NOSIGNAL: a closed reader must give an error code, not SIGPIPE.
        const ssize_t put =
            socket ? ::send(fd, bytes + total, numberOfBytesToWrite - total, MSG_NOSIGNAL)
                   : ::write(fd, bytes + total, numberOfBytesToWrite - total);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put < 0) {
            const int code = errno;
            *numberOfBytesWritten = total;
            // Writing to a pipe whose reader has gone: "the pipe is being closed".
            return sim::fail(pipe && (code == EPIPE || code == ECONNRESET)
                                 ? ERROR_NO_DATA
                                 : sim::win32FromErrno(code),
                             FALSE);
        }
        total += static_cast<DWORD>(put);
    }
    *numberOfBytesWritten = total;
    return TRUE;
}

}  // namespace os
