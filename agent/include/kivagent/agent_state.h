// What a running backup agent leaves in the machine's state directory, and
// how other programs read it (`kivagent --status`, fihost).
//
// The files, in the state directory:
//   kivagent.pid         the agent's process id; the agent holds a lock on it
//                        for as long as it runs, so a file left by an agent
//                        that died does not count as running
//   agent/held.json      the volume names the agent holds handles for,
//                        replaced atomically on every change
//   agent/kivagent.log   one line per request, appended
//
// A running agent is stopped with SIGTERM (or `kivagent --stop`); it closes
// every handle it holds and removes its pid and held files.
//
// Reading is safe from any thread and any process, while the agent runs.
#ifndef AGENT_INCLUDE_KIVAGENT_AGENT_STATE_H_
#define AGENT_INCLUDE_KIVAGENT_AGENT_STATE_H_

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kivagent {

// "<stateDirectory>/agent" and the agent's files.
std::filesystem::path agentDirectory(const std::filesystem::path& stateDirectory);
std::filesystem::path pidFilePath(const std::filesystem::path& stateDirectory);
std::filesystem::path heldFilePath(const std::filesystem::path& stateDirectory);
std::filesystem::path logFilePath(const std::filesystem::path& stateDirectory);

struct HeldVolume {
    std::string volumeName;          // UTF-8
    std::uint64_t handle = 0;        // the agent's handle value
    std::uint32_t registeredBy = 0;  // process id of the registering process
};

struct AgentStatus {
    bool running = false;
    pid_t processId = 0;           // when running
    std::vector<HeldVolume> held;  // when running: what it holds, by name
};

// Whether an agent serves the machine with this state directory, and what it
// holds. A missing or unreadable held file gives an empty list.
AgentStatus readAgentStatus(const std::filesystem::path& stateDirectory);

}  // namespace kivagent

#endif  // AGENT_INCLUDE_KIVAGENT_AGENT_STATE_H_
