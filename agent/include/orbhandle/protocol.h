// The backup agent's handle rendezvous: the messages that a provider and the
// agent exchange on the pipe "\\.\Pipe\ORBHandleRendevous".
//
// Each exchange is one request and one reply on a fresh connection. The agent
// serves the pipe; a provider registers the handle of a new snapshot volume,
// retrieves the agent's handle to one (to duplicate it into itself), and asks
// the agent to release its handle before the snapshot is destroyed.
//
// Both records are little-endian with fixed layouts; every byte not set is 0.
#ifndef AGENT_INCLUDE_ORBHANDLE_PROTOCOL_H_
#define AGENT_INCLUDE_ORBHANDLE_PROTOCOL_H_

#include <cstddef>
#include <cstdint>

namespace orbhandle {

inline constexpr char16_t kPipeName[] = u"\\\\.\\Pipe\\ORBHandleRendevous";

enum RequestCode : std::uint32_t {
    kRegisterVolumeHandle = 2,
    kRetrieveHandle = 3,
    kReleaseVolumeHandle = 4,
};

// A volume name holds at most this many UTF-16 units before its NUL.
inline constexpr std::size_t kMaxVolumeNameLength = 259;

struct Request {
    std::uint32_t code;                             // a RequestCode
    std::uint32_t processId;                        // the requesting process
    std::uint64_t handle;                           // register: the requester's handle; otherwise 0
    char16_t volumeName[kMaxVolumeNameLength + 1];  // NUL-terminated, rest 0
};
static_assert(sizeof(Request) == 536);
static_assert(offsetof(Request, processId) == 4);
static_assert(offsetof(Request, handle) == 8);
static_assert(offsetof(Request, volumeName) == 16);

struct Reply {
    std::uint32_t status;       // 0, or the agent's Win32 error code
    unsigned char unused[512];  // never read by a provider
    std::uint32_t processId;    // retrieve: the process holding the handle
    std::uint64_t handle;       // retrieve: the handle in that process
};
static_assert(sizeof(Reply) == 528);
static_assert(offsetof(Reply, processId) == 516);
static_assert(offsetof(Reply, handle) == 520);

// A request code as logs and progress lines name it: "register", "retrieve",
// "release" or "unknown".
inline const char* requestName(std::uint32_t code) {
    switch (code) {
        case kRegisterVolumeHandle:
            return "register";
        case kRetrieveHandle:
            return "retrieve";
        case kReleaseVolumeHandle:
            return "release";
        default:
            return "unknown";
    }
}

}  // namespace orbhandle

#endif  // AGENT_INCLUDE_ORBHANDLE_PROTOCOL_H_
