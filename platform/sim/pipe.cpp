// Named pipes of the simulated machine, as Unix-domain stream sockets.
//
// "\\.\pipe\NAME" is the socket "<state directory>/pipes/<escaped name>" (the
// name folded to lower case: pipe names ignore case). Beside it lie
// "<escaped name>.lock", which the serving process holds an exclusive flock on
// for as long as it serves the name, and "<escaped name>.wait", the pipe's
// default wait for clients.
//
// Every instance of a pipe in the serving process shares one listening socket.
// It listens with a backlog of 0, so at most one client can queue while every
// instance is busy and the next one is refused at once. An instance that takes
// a client (ConnectNamedPipe) sends it one byte first; a client that does not
// get that byte within its wait was never served and reports the pipe busy,
// as Windows does when no instance is free.
//
// Messages travel as a 32-bit little-endian length and the bytes, so a reader
// always knows where a message ends and can report ERROR_MORE_DATA.
//
// Pipe waits are measured on the real monotonic clock even when tests run the
// virtual clock: they wait for another process's progress, which virtual time
// does not make.
//
// Thread safety: CreateNamedPipeW and CloseHandle of instances may run on any
// thread; each instance is used by one thread at a time, as on Windows.
#include "os/pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "object_names.h"
#include "os/error.h"
#include "pipe_framing.h"
#include "os_call.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/machine.h"
#include "sim/observer.h"
#include "sim/pipe_client.h"
#include "sim/text.h"

namespace sim {
namespace {

using os::BOOL;
using os::DWORD;

constexpr DWORD kDefaultWaitMs = 50;
// Larger lengths are taken for garbage rather than allocated.
constexpr std::uint32_t kMaxMessageBytes = 64u << 20;
constexpr char kServedByte = 1;
constexpr DWORD kPipeNowait = 0x1;
constexpr DWORD kFileFlagOverlapped = 0x40000000;
constexpr DWORD kPipeAccessMask = 0x3;

// Checks a pipe name and returns its folded local part ("name" of
// "\\.\PIPE\Name"). Returns 0 or a Win32 error code.
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

struct PipeFiles {
    std::filesystem::path directory;
    std::string socketName;  // inside `directory`
    std::filesystem::path socket() const { return directory / socketName; }
    std::filesystem::path lock() const { return directory / (socketName + ".lock"); }
    std::filesystem::path wait() const { return directory / (socketName + ".wait"); }
};

DWORD pipeFiles(const std::u16string& local, PipeFiles* files) {
    const Machine* machine = Machine::currentOrNull();
    if (machine == nullptr) {
        return os::ERROR_NOT_READY;
    }
    files->directory = machine->stateDirectory() / "pipes";
    files->socketName = escapeObjectName(local);
    return 0;
}

// A socket address for a path that may be longer than sun_path allows: the
// directory is then opened and named through /proc/self/fd.
class SocketAddress {
  public:
    explicit SocketAddress(const PipeFiles& files) {
        address_.sun_family = AF_UNIX;
        std::string path = files.socket().string();
        if (path.size() >= sizeof(address_.sun_path)) {
            directoryFd_ = open(files.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            path = "/proc/self/fd/" + std::to_string(directoryFd_) + "/" + files.socketName;
        }
        std::memcpy(address_.sun_path, path.c_str(), path.size() + 1);
    }
    SocketAddress(const SocketAddress&) = delete;
    SocketAddress& operator=(const SocketAddress&) = delete;
    ~SocketAddress() {
        if (directoryFd_ >= 0) {
            close(directoryFd_);
        }
    }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t size() const { return sizeof(address_); }

  private:
    sockaddr_un address_{};
    int directoryFd_ = -1;
};

std::uint64_t monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Sends a whole message (length and bytes). 0 or an errno value.
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

// Reads one whole message. 0, EPIPE when the peer closed, EBADMSG for a
// length no writer of ours sends, or an errno value.
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

// The pipe as this process serves it: the listening socket and the settings
// that every instance shares.
struct PipeServer {
    PipeFiles files;
    int listenFd = -1;
    int lockFd = -1;
    DWORD maxInstances = 0;
    DWORD instances = 0;

    PipeServer() = default;
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;
    ~PipeServer() {
        if (listenFd >= 0) {
            unlink(files.socket().c_str());
            unlink(files.wait().c_str());
            close(listenFd);
        }
        // Closing the lock lets another process serve the name.
        if (lockFd >= 0) {
            close(lockFd);
        }
    }
};

std::mutex& serversLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

std::map<std::u16string, std::shared_ptr<PipeServer>>& servers() {
    static auto* table = new std::map<std::u16string, std::shared_ptr<PipeServer>>;
    return *table;
}

// Starts serving `local` in this process. Returns 0 or a Win32 error code.
DWORD startServer(const std::u16string& local, DWORD maxInstances, DWORD defaultTimeOut,
                  std::shared_ptr<PipeServer>* started) {
    auto server = std::make_shared<PipeServer>();
    server->maxInstances = maxInstances;
    if (DWORD error = pipeFiles(local, &server->files); error != 0) {
        return error;
    }
    std::error_code ignored;
    std::filesystem::create_directories(server->files.directory, ignored);

    server->lockFd = open(server->files.lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (server->lockFd < 0) {
        return win32FromErrno(errno);
    }
    if (flock(server->lockFd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? os::ERROR_ACCESS_DENIED : win32FromErrno(errno);
    }
    // A socket left by a server that ended without cleaning up.
    unlink(server->files.socket().c_str());

    DWORD wait = defaultTimeOut == 0 ? kDefaultWaitMs : defaultTimeOut;
    {
        std::filesystem::path temporary = server->files.wait();
        temporary += ".new";
        std::ofstream(temporary) << wait << '\n';
        std::filesystem::rename(temporary, server->files.wait(), ignored);
    }

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return win32FromErrno(errno);
    }
    SocketAddress address(server->files);
    if (bind(fd, address.get(), address.size()) != 0 || listen(fd, 0) != 0) {
        int error = errno;
        close(fd);
        return win32FromErrno(error);
    }
    server->listenFd = fd;
    *started = std::move(server);
    return 0;
}

class PipeInstance final : public HandleObject {
  public:
    PipeInstance(std::u16string local, std::shared_ptr<PipeServer> server)
        : local_(std::move(local)), server_(std::move(server)) {}
    PipeInstance(const PipeInstance&) = delete;
    PipeInstance& operator=(const PipeInstance&) = delete;

    ~PipeInstance() override {
        disconnect();
        std::lock_guard<std::mutex> guard(serversLock());
        if (--server_->instances == 0) {
            servers().erase(local_);
        }
        // The last instance takes the server down here, under the lock, so a
        // new CreateNamedPipeW of the name finds it either whole or gone.
        server_.reset();
    }

    bool connected() const { return clientFd_ >= 0; }

    // Takes the next client that is still waiting. 0 or an errno value.
    int accept() {
        for (;;) {
            int fd = accept4(server_->listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                return errno;
            }
            // A client that gave up while queued is gone by now; skip it.
            if (send(fd, &kServedByte, 1, MSG_NOSIGNAL) == 1) {
                clientFd_ = fd;
                return 0;
            }
            close(fd);
        }
    }

    void disconnect() {
        if (clientFd_ >= 0) {
            close(clientFd_);
            clientFd_ = -1;
        }
        pending_.clear();
        pendingOffset_ = 0;
    }

    // The connected client's process, user and group ids. 0 or an errno value.
    int clientCredentials(ucred* credentials) const {
        if (!connected()) {
            return ENOTCONN;
        }
        socklen_t size = sizeof(*credentials);
        if (getsockopt(clientFd_, SOL_SOCKET, SO_PEERCRED, credentials, &size) != 0) {
            return errno;
        }
        return 0;
    }

    BOOL read(void* buffer, DWORD size, DWORD* bytesRead) {
        if (!connected()) {
            return fail(os::ERROR_PIPE_NOT_CONNECTED, os::FALSE);
        }
        if (pendingOffset_ >= pending_.size()) {
            pending_.clear();
            pendingOffset_ = 0;
            if (int error = receiveMessage(clientFd_, &pending_); error != 0) {
                pending_.clear();
                return fail(isPeerGone(error) ? os::ERROR_BROKEN_PIPE : win32FromErrno(error),
                            os::FALSE);
            }
        }
        std::size_t left = pending_.size() - pendingOffset_;
        std::size_t delivered = std::min<std::size_t>(left, size);
        if (delivered > 0) {
            std::memcpy(buffer, pending_.data() + pendingOffset_, delivered);
        }
        pendingOffset_ += delivered;
        if (bytesRead != nullptr) {
            *bytesRead = static_cast<DWORD>(delivered);
        }
        if (delivered < left) {
            return fail(os::ERROR_MORE_DATA, os::FALSE);
        }
        return os::TRUE;
    }

    BOOL write(const void* buffer, DWORD size, DWORD* bytesWritten) {
        if (bytesWritten != nullptr) {
            *bytesWritten = 0;
        }
        if (!connected()) {
            return fail(os::ERROR_PIPE_NOT_CONNECTED, os::FALSE);
        }
        if (int error = sendMessage(clientFd_, buffer, size); error != 0) {
            return fail(isPeerGone(error) ? os::ERROR_NO_DATA : win32FromErrno(error), os::FALSE);
        }
        if (bytesWritten != nullptr) {
            *bytesWritten = size;
        }
        return os::TRUE;
    }

  private:
    std::u16string local_;
    std::shared_ptr<PipeServer> server_;
    int clientFd_ = -1;
    // The message being read and how much of it earlier reads delivered.
    std::vector<unsigned char> pending_;
    std::size_t pendingOffset_ = 0;
};

// The wait a client uses when it asks for the pipe's default.
DWORD defaultWait(const PipeFiles& files) {
    DWORD wait = 0;
    std::ifstream(files.wait()) >> wait;
    return wait == 0 ? kDefaultWaitMs : wait;
}

// Waits until `fd` is readable or `deadline` (monotonic ms, 0 = never) passes.
// True when readable.
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

bool isPipeInstance(os::HANDLE handle) {
    return lookupHandleAs<PipeInstance>(handle) != nullptr;
}

os::BOOL readPipeMessage(os::HANDLE handle, void* buffer, os::DWORD size, os::DWORD* bytesRead) {
    auto* instance = lookupHandleAs<PipeInstance>(handle);
    if (instance == nullptr) {
        return fail(os::ERROR_INVALID_HANDLE, os::FALSE);
    }
    return instance->read(buffer, size, bytesRead);
}

os::BOOL writePipeMessage(os::HANDLE handle, const void* buffer, os::DWORD size,
                          os::DWORD* bytesWritten) {
    auto* instance = lookupHandleAs<PipeInstance>(handle);
    if (instance == nullptr) {
        return fail(os::ERROR_INVALID_HANDLE, os::FALSE);
    }
    return instance->write(buffer, size, bytesWritten);
}

os::DWORD getPipeClientCredentials(os::HANDLE pipe, PipeClientCredentials* credentials) {
    auto* instance = lookupHandleAs<PipeInstance>(pipe);
    if (instance == nullptr) {
        return os::ERROR_INVALID_HANDLE;
    }
    ucred peer{};
    if (int error = instance->clientCredentials(&peer); error != 0) {
        return error == ENOTCONN ? os::ERROR_PIPE_NOT_CONNECTED : win32FromErrno(error);
    }
    if (credentials != nullptr) {
        *credentials = {peer.pid, peer.uid, peer.gid};
    }
    return 0;
}

}  // namespace sim

namespace os {

BOOL CallNamedPipeW(LPCWSTR pipeName, LPVOID inBuffer, DWORD inBufferSize, LPVOID outBuffer,
                    DWORD outBufferSize, DWORD* bytesRead, DWORD timeOut) {
    sim::PipeExchangeNotice notice(pipeName, inBuffer, inBufferSize, outBuffer);
    DWORD error = 0;
    if (sim::faultOnEntry<"CallNamedPipeW">(&error)) {
        return sim::fail(error, FALSE);
    }
    std::u16string local;
    if (DWORD invalid = sim::parsePipeName(pipeName, &local); invalid != 0) {
        return sim::fail(invalid, FALSE);
    }
    if ((inBuffer == nullptr && inBufferSize > 0) || (outBuffer == nullptr && outBufferSize > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    sim::PipeFiles files;
    if (DWORD failed = sim::pipeFiles(local, &files); failed != 0) {
        return sim::fail(failed, FALSE);
    }

    DWORD wait = timeOut;
    if (timeOut == NMPWAIT_USE_DEFAULT_WAIT) {
        wait = sim::defaultWait(files);
    } else if (timeOut == NMPWAIT_NOWAIT) {
        wait = 0;
    }
    int fd = -1;
    if (DWORD failed = sim::connectServed(files, wait, &fd); failed != 0) {
        return sim::fail(failed, FALSE);
    }

    std::vector<unsigned char> reply;
    int sent = sim::sendMessage(fd, inBuffer, inBufferSize);
    int received = sent == 0 ? sim::receiveMessage(fd, &reply) : sent;
    close(fd);
    if (received != 0) {
        return sim::fail(
            sim::isPeerGone(received) ? ERROR_BROKEN_PIPE : sim::win32FromErrno(received), FALSE);
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
        return sim::fail(ERROR_MORE_DATA, FALSE);
    }
    notice.succeeded(delivered);
    return TRUE;
}

HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                        DWORD /*outBufferSize*/, DWORD /*inBufferSize*/, DWORD defaultTimeOut,
                        LPSECURITY_ATTRIBUTES /*securityAttributes*/) {
    DWORD error = 0;
    if (sim::faultOnEntry<"CreateNamedPipeW">(&error)) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    std::u16string local;
    if (DWORD invalid = sim::parsePipeName(name, &local); invalid != 0) {
        return sim::fail(invalid, INVALID_HANDLE_VALUE);
    }
    if (maxInstances == 0 || maxInstances > PIPE_UNLIMITED_INSTANCES ||
        (openMode & sim::kPipeAccessMask) == 0) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    }
    // Only blocking, non-overlapped instances are simulated.
    if ((pipeMode & sim::kPipeNowait) != 0 || (openMode & sim::kFileFlagOverlapped) != 0) {
        return sim::fail(ERROR_NOT_SUPPORTED, INVALID_HANDLE_VALUE);
    }

    std::lock_guard<std::mutex> guard(sim::serversLock());
    auto& table = sim::servers();
    std::shared_ptr<sim::PipeServer> server;
    if (auto found = table.find(local); found != table.end()) {
        server = found->second;
        if (server->maxInstances != maxInstances) {
            return sim::fail(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
        }
        if (server->instances >= server->maxInstances) {
            return sim::fail(ERROR_PIPE_BUSY, INVALID_HANDLE_VALUE);
        }
    } else {
        if (DWORD failed = sim::startServer(local, maxInstances, defaultTimeOut, &server);
            failed != 0) {
            return sim::fail(failed, INVALID_HANDLE_VALUE);
        }
        table[local] = server;
    }
    ++server->instances;
    return sim::registerHandle(std::make_unique<sim::PipeInstance>(local, server));
}

BOOL ConnectNamedPipe(HANDLE namedPipe, LPVOID overlapped) {
    DWORD error = 0;
    if (sim::faultOnEntry<"ConnectNamedPipe">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* instance = sim::lookupHandleAs<sim::PipeInstance>(namedPipe);
    if (instance == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (overlapped != nullptr) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (instance->connected()) {
        return sim::fail(ERROR_PIPE_CONNECTED, FALSE);
    }
    if (int failed = instance->accept(); failed != 0) {
        return sim::fail(sim::win32FromErrno(failed), FALSE);
    }
    return TRUE;
}

BOOL DisconnectNamedPipe(HANDLE namedPipe) {
    DWORD error = 0;
    if (sim::faultOnEntry<"DisconnectNamedPipe">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* instance = sim::lookupHandleAs<sim::PipeInstance>(namedPipe);
    if (instance == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!instance->connected()) {
        return sim::fail(ERROR_PIPE_NOT_CONNECTED, FALSE);
    }
    instance->disconnect();
    return TRUE;
}

BOOL GetNamedPipeClientProcessId(HANDLE pipe, ULONG* clientProcessId) {
    DWORD error = 0;
    if (sim::takeFault("GetNamedPipeClientProcessId", &error)) {
        return sim::fail(error, FALSE);
    }
    if (clientProcessId == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    sim::PipeClientCredentials client;
    if (DWORD failed = sim::getPipeClientCredentials(pipe, &client); failed != 0) {
        return sim::fail(failed, FALSE);
    }
    *clientProcessId = static_cast<ULONG>(client.processId);
    return TRUE;
}

}  // namespace os
