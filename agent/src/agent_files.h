// The running agent's side of its state files (see kivagent/agent_state.h):
// the pid file with its lock, and the held-names file.
//
// Not thread-safe by itself: AgentLock is used by the main thread, and
// writeHeldFile is called under the handle table's lock.
#ifndef AGENT_SRC_AGENT_FILES_H_
#define AGENT_SRC_AGENT_FILES_H_

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "handle_table.h"

namespace kivagent {

// The lock that makes an agent the only one of its machine.
class AgentLock {
  public:
    AgentLock() = default;
    AgentLock(const AgentLock&) = delete;
    AgentLock& operator=(const AgentLock&) = delete;
    // Removes the pid file and lets go of the lock.
    ~AgentLock();

    enum class Result { kAcquired, kAlreadyRunning, kFailed };
    // Locks the pid file of `stateDirectory` and writes this process's id
    // into it. kAlreadyRunning with that agent's id in `*otherProcess`;
    // kFailed with a reason in `*error`.
    Result acquire(const std::filesystem::path& stateDirectory, pid_t* otherProcess,
                   std::string* error);

  private:
    std::filesystem::path path_;
    int fd_ = -1;
};

// Replaces the held-names file with `held` (write to a new file, then
// rename). False when it could not be written.
bool writeHeldFile(const std::filesystem::path& stateDirectory, pid_t agentProcess,
                   const std::vector<HeldHandle>& held);
void removeHeldFile(const std::filesystem::path& stateDirectory);

}  // namespace kivagent

#endif  // AGENT_SRC_AGENT_FILES_H_
