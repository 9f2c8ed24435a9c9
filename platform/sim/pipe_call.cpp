// CallNamedPipeW's side of a named pipe.
#include "pipe_call.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <vector>

#include "os/error.h"
#include "os/pipe.h"
#include "pipe_transport.h"
#include "sim/errors.h"

namespace sim {
namespace {

using os::DWORD;

// The wait a client uses when it asks for the pipe's default.
DWORD defaultWait(const PipeFiles& files) {
    DWORD wait = 0;
    std::ifstream(files.wait()) >> wait;
    return wait == 0 ? kDefaultWaitMs : wait;
}

// Connects to the pipe and waits until an instance serves this client. 0 with
// the connected socket in `*connected`, or a Win32 error code.
DWORD connectServed(const PipeFiles& files, DWORD waitMs, int* connected) {
    std::uint64_t start = monotonicMs();
    std::uint64_t deadline = waitMs == os::NMPWAIT_WAIT_FOREVER ? 0 : start + waitMs;
    SocketAddress address(files);
    for (;;) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return win32FromErrno(errno);
        }
        int result = connect(fd, address.get(), address.size());
        int error = result == 0 ? 0 : errno;
        if (error == ENOENT || error == ECONNREFUSED) {
            close(fd);
            return os::ERROR_FILE_NOT_FOUND;
        }
        if (error == 0 && waitReadable(fd, deadline)) {
            char served = 0;
            ssize_t got = recv(fd, &served, 1, 0);
            if (got == 1 && served == kServedByte) {
                fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
                *connected = fd;
                return 0;
            }
            // The server closed the queued connection (it stopped serving):
            // try again within the wait, which tells whether the name is
            // still served.
        }
        close(fd);
        if (error != 0 && error != EAGAIN) {
            return win32FromErrno(error);
        }
        // Every instance busy: the queue was full, or we queued and no
        // instance took us in time.
        std::uint64_t now = monotonicMs();
        if (deadline != 0 && now >= deadline) {
            return os::ERROR_PIPE_BUSY;
        }
        timespec pause{0, 2000000};  // 2 ms between attempts
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

os::BOOL callPipe(const std::u16string& local, const void* inBuffer, os::DWORD inBufferSize,
                  void* outBuffer, os::DWORD outBufferSize, os::DWORD* bytesRead,
                  os::DWORD timeOut) {
    PipeFiles files;
    if (DWORD failed = pipeFiles(local, &files); failed != 0) {
        return fail(failed, os::FALSE);
    }

    DWORD wait = timeOut;
    if (timeOut == os::NMPWAIT_USE_DEFAULT_WAIT) {
        wait = defaultWait(files);
    } else if (timeOut == os::NMPWAIT_NOWAIT) {
        wait = 0;
    }
    int fd = -1;
    if (DWORD failed = connectServed(files, wait, &fd); failed != 0) {
        return fail(failed, os::FALSE);
    }

    std::vector<unsigned char> reply;
    int sent = sendMessage(fd, inBuffer, inBufferSize);
    int received = sent == 0 ? receiveMessage(fd, &reply) : sent;
    close(fd);
    if (received != 0) {
        return fail(isPeerGone(received) ? os::ERROR_BROKEN_PIPE : win32FromErrno(received),
                    os::FALSE);
    }
    DWORD delivered = static_cast<DWORD>(std::min<std::size_t>(reply.size(), outBufferSize));
    if (delivered > 0) {
        std::memcpy(outBuffer, reply.data(), delivered);
    }
    if (bytesRead != nullptr) {
        *bytesRead = delivered;
    }
    // The rest of a reply that does not fit is lost with the connection.
    if (delivered < reply.size()) {
        return fail(os::ERROR_MORE_DATA, os::FALSE);
    }
    return os::TRUE;
}

}  // namespace sim
