// One exchange with the machine's backup agent on the rendezvous pipe, as a
// provider makes it: a request on a fresh connection, one reply.
#ifndef TESTS_SUPPORT_AGENT_CLIENT_H_
#define TESTS_SUPPORT_AGENT_CLIENT_H_

#include <cstdint>
#include <string>

#include "orbhandle/protocol.h"
#include "os/types.h"

namespace testsupport {

struct AgentExchange {
    bool ok = false;
    std::uint32_t error = 0;  // the pipe's error when !ok
    orbhandle::Reply reply{};
    // The status a provider sees: the pipe's error, or the reply's status.
    std::uint32_t status() const { return ok ? reply.status : error; }
};

// Sends `code` for `volumeName` (with `handle` for a registration) from this
// process; `timeOut` is CallNamedPipeW's wait for a free pipe instance.
AgentExchange exchangeWithAgent(std::uint32_t code, const std::u16string& volumeName,
                                std::uint64_t handle, os::DWORD timeOut);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_AGENT_CLIENT_H_
