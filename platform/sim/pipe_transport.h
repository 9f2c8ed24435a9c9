// The transport of the simulated machine's named pipes: a pipe is a
// Unix-domain stream socket in the machine's state directory, and a message
// travels as a 32-bit little-endian length and the bytes, so a reader always
// knows where a message ends and can report ERROR_MORE_DATA.
//
// "\\.\pipe\NAME" is the socket "<state directory>/pipes/<escaped name>" (the
// name folded to lower case: pipe names ignore case). Beside it lie
// "<escaped name>.lock", which the serving process holds an exclusive flock on
// for as long as it serves the name, and "<escaped name>.wait", the pipe's
// default wait for clients. A server that takes a client sends it the one
// byte kServedByte first.
//
// Pipe waits are measured on the real monotonic clock even when tests run the
// virtual clock: they wait for another process's progress, which virtual time
// does not make.
#ifndef PLATFORM_SIM_PIPE_TRANSPORT_H_
#define PLATFORM_SIM_PIPE_TRANSPORT_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "os/types.h"

namespace sim {

// The wait of a pipe whose server gave none.
inline constexpr os::DWORD kDefaultWaitMs = 50;
inline constexpr char kServedByte = 1;

// Checks a pipe name and returns its folded local part ("name" of
// "\\.\PIPE\Name"). Returns 0 or a Win32 error code.
os::DWORD parsePipeName(const char16_t* name, std::u16string* local);

// The files of one pipe name on the current machine.
struct PipeFiles {
    std::filesystem::path directory;
    std::string socketName;  // inside `directory`
    std::filesystem::path socket() const { return directory / socketName; }
    std::filesystem::path lock() const { return directory / (socketName + ".lock"); }
    std::filesystem::path wait() const { return directory / (socketName + ".wait"); }
};
// Returns 0 or a Win32 error code (ERROR_NOT_READY without a machine).
os::DWORD pipeFiles(const std::u16string& local, PipeFiles* files);

// A socket address for a path that may be longer than sun_path allows: the
// directory is then opened and named through /proc/self/fd.
class SocketAddress {
  public:
    explicit SocketAddress(const PipeFiles& files);
    SocketAddress(const SocketAddress&) = delete;
    SocketAddress& operator=(const SocketAddress&) = delete;
    ~SocketAddress();

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t size() const { return sizeof(address_); }

  private:
    sockaddr_un address_{};
    int directoryFd_ = -1;
};

std::uint64_t monotonicMs();
// Sends a whole message (length and bytes). 0 or an errno value.
int sendMessage(int fd, const void* data, std::uint32_t size);
// Reads one whole message. 0, EPIPE when the peer closed, EBADMSG for a
// length no writer of ours sends, or an errno value.
int receiveMessage(int fd, std::vector<unsigned char>* message);
// Whether an errno value from the functions above means the peer has gone.
bool isPeerGone(int error);
// Waits until `fd` is readable or `deadline` (monotonic ms, 0 = never)
// passes. True when readable.
bool waitReadable(int fd, std::uint64_t deadline);

}  // namespace sim

#endif  // PLATFORM_SIM_PIPE_TRANSPORT_H_
