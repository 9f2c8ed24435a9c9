// The named pipes' transport: pipe names and files, socket addresses, and
// length-prefixed messages.
#include "pipe_transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "object_names.h"
#include "os/error.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace sim {
namespace {

using os::DWORD;

// Larger lengths are taken for garbage rather than allocated.
constexpr std::uint32_t kMaxMessageBytes = 64u << 20;

// Reads exactly `size` bytes. 0 on success, EPIPE when the peer closed first,
// or an errno value.
int receiveExactly(int fd, void* data, std::size_t size) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        ssize_t got = recv(fd, bytes, size, 0);
        if (got == 0) {
            return EPIPE;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
    return 0;
}

}  // namespace

DWORD parsePipeName(const char16_t* name, std::u16string* local) {
    constexpr std::u16string_view kPrefix = u"\\\\.\\pipe\\";
    if (name == nullptr) {
        return os::ERROR_PATH_NOT_FOUND;
    }
    std::u16string folded = lowerAscii(name);
    if (!std::u16string_view(folded).starts_with(kPrefix) || folded.size() == kPrefix.size() ||
        folded.size() - kPrefix.size() > 256) {
        return os::ERROR_INVALID_NAME;
    }
    *local = folded.substr(kPrefix.size());
    return 0;
}

DWORD pipeFiles(const std::u16string& local, PipeFiles* files) {
    const Machine* machine = Machine::currentOrNull();
    if (machine == nullptr) {
        return os::ERROR_NOT_READY;
    }
    files->directory = machine->stateDirectory() / "pipes";
    files->socketName = escapeObjectName(local);
    return 0;
}

SocketAddress::SocketAddress(const PipeFiles& files) {
    address_.sun_family = AF_UNIX;
    std::string path = files.socket().string();
    if (path.size() >= sizeof(address_.sun_path)) {
        directoryFd_ = open(files.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        path = "/proc/self/fd/" + std::to_string(directoryFd_) + "/" + files.socketName;
    }
    std::memcpy(address_.sun_path, path.c_str(), path.size() + 1);
}

SocketAddress::~SocketAddress() {
    if (directoryFd_ >= 0) {
        close(directoryFd_);
    }
}

std::uint64_t monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int sendMessage(int fd, const void* data, std::uint32_t size) {
    unsigned char header[4] = {
        static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8),
        static_cast<unsigned char>(size >> 16), static_cast<unsigned char>(size >> 24)};
    iovec parts[2] = {{header, sizeof(header)}, {const_cast<void*>(data), size}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    std::size_t left = sizeof(header) + size;
    while (left > 0) {
        ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        left -= static_cast<std::size_t>(sent);
        // Skip what went out.
        while (sent > 0 && message.msg_iovlen > 0) {
            auto step =
                std::min<std::size_t>(static_cast<std::size_t>(sent), message.msg_iov->iov_len);
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + step;
            message.msg_iov->iov_len -= step;
            sent -= static_cast<ssize_t>(step);
            if (message.msg_iov->iov_len == 0) {
                ++message.msg_iov;
                --message.msg_iovlen;
            }
        }
    }
    return 0;
}

int receiveMessage(int fd, std::vector<unsigned char>* message) {
    unsigned char header[4];
    if (int error = receiveExactly(fd, header, sizeof(header)); error != 0) {
        return error;
    }
    std::uint32_t size = header[0] | (header[1] << 8) | (header[2] << 16) |
                         (static_cast<std::uint32_t>(header[3]) << 24);
    if (size > kMaxMessageBytes) {
        return EBADMSG;
    }
    message->resize(size);
    return receiveExactly(fd, message->data(), size);
}

bool isPeerGone(int error) {
    return error == EPIPE || error == ECONNRESET;
}

bool waitReadable(int fd, std::uint64_t deadline) {
    for (;;) {
        int timeout = -1;
        if (deadline != 0) {
            std::uint64_t now = monotonicMs();
            timeout = now >= deadline ? 0 : static_cast<int>(deadline - now);
        }
        pollfd entry{fd, POLLIN, 0};
        int ready = poll(&entry, 1, timeout);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 || errno != EINTR) {
            return false;
        }
    }
}

}  // namespace sim
