// Pipe instances and the servers behind them.
#include "pipe_server.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include "os/error.h"
#include "pipe_transport.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/pipe_client.h"

namespace sim {
namespace {

using os::BOOL;
using os::DWORD;

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

}  // namespace

os::HANDLE createPipeInstance(const std::u16string& local, os::DWORD maxInstances,
                              os::DWORD defaultTimeOut, os::DWORD* error) {
    std::lock_guard<std::mutex> guard(serversLock());
    auto& table = servers();
    std::shared_ptr<PipeServer> server;
    if (auto found = table.find(local); found != table.end()) {
        server = found->second;
        if (server->maxInstances != maxInstances) {
            *error = os::ERROR_ACCESS_DENIED;
            return os::INVALID_HANDLE_VALUE;
        }
        if (server->instances >= server->maxInstances) {
            *error = os::ERROR_PIPE_BUSY;
            return os::INVALID_HANDLE_VALUE;
        }
    } else {
        if (DWORD failed = startServer(local, maxInstances, defaultTimeOut, &server); failed != 0) {
            *error = failed;
            return os::INVALID_HANDLE_VALUE;
        }
        table[local] = server;
    }
    ++server->instances;
    return registerHandle(std::make_unique<PipeInstance>(local, server));
}

os::DWORD connectPipeInstance(os::HANDLE handle) {
    auto* instance = lookupHandleAs<PipeInstance>(handle);
    if (instance == nullptr) {
        return os::ERROR_INVALID_HANDLE;
    }
    if (instance->connected()) {
        return os::ERROR_PIPE_CONNECTED;
    }
    if (int failed = instance->accept(); failed != 0) {
        return win32FromErrno(failed);
    }
    return 0;
}

os::DWORD disconnectPipeInstance(os::HANDLE handle) {
    auto* instance = lookupHandleAs<PipeInstance>(handle);
    if (instance == nullptr) {
        return os::ERROR_INVALID_HANDLE;
    }
    if (!instance->connected()) {
        return os::ERROR_PIPE_NOT_CONNECTED;
    }
    instance->disconnect();
    return 0;
}

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
