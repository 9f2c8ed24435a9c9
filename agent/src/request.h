// One exchange on the rendezvous pipe: a request message in, a reply and a
// log record out.
//
// handleRequest checks everything it is given before it acts: the peer's
// user, the message size, the request code, the volume name, and that the
// process id in the request is the peer's own. Any failure is answered with a
// Win32 error code in the reply's status and explained in the log record;
// nothing in the request can make the agent stop serving. It knows nothing of
// pipes or processes: the peer's credentials come from the caller and handles
// move through the table's HandleOperations, so it runs the same in the agent,
// in tests and under a fuzzer.
//
// Thread-safe when the table and the faults are (they are).
#ifndef AGENT_SRC_REQUEST_H_
#define AGENT_SRC_REQUEST_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string>

#include "handle_table.h"
#include "orbhandle/protocol.h"
#include "os/types.h"

namespace kivagent {

// Who sent a request, as the system knows it (not as the request claims).
struct Peer {
    os::DWORD processId = 0;
    std::uint32_t userId = 0;
};

// Answers the agent's test options give instead of acting: the first exchanges
// answered as if the pipe were busy, and a status for one request code.
class Faults {
  public:
    static constexpr std::uint32_t kEveryRequest = 0xFFFFFFFF;

    void setBusy(std::uint32_t exchanges);
    // Requests with `code` are answered `status` (the first `count` of them).
    void setFailure(std::uint32_t code, os::DWORD status, std::uint32_t count = kEveryRequest);

    // True (and one fewer left) when this exchange is to see the pipe busy.
    bool takeBusy();
    // True with the status when a request with `code` is to fail.
    bool takeFailure(std::uint32_t code, os::DWORD* status);

  private:
    struct Failure {
        os::DWORD status = 0;
        std::uint32_t left = 0;
    };
    std::mutex mutex_;
    std::uint32_t busy_ = 0;
    std::map<std::uint32_t, Failure> failures_;
};

struct RequestContext {
    HandleTable& table;
    os::DWORD agentProcessId = 0;   // answered by retrieve
    std::uint32_t agentUserId = 0;  // peers must be this user or root
    Faults* faults = nullptr;
};

// What the log says about one exchange.
struct LogRecord {
    os::DWORD peerProcessId = 0;
    std::size_t size = 0;  // of the request message
    bool hasCode = false;  // the message was long enough to hold one
    std::uint32_t code = 0;
    std::u16string volumeName;  // as far as it could be read
    os::DWORD status = 0;
    std::string note;  // why it failed, or what it did; may be empty
};

struct Outcome {
    orbhandle::Reply reply{};
    LogRecord record;
};

Outcome handleRequest(std::span<const unsigned char> message, const Peer& peer,
                      RequestContext& context);

// The record as one line without time stamp or newline: peer, code, name,
// status and note. Characters that could break the line are escaped.
std::string formatLogRecord(const LogRecord& record);

}  // namespace kivagent

#endif  // AGENT_SRC_REQUEST_H_
