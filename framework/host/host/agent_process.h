// The machine's backup agent as a host sees it: whether one serves the
// rendezvous pipe, starting one (kivagent --daemon) when none does, and
// stopping the one this object started.
//
// Not thread-safe.
#ifndef FRAMEWORK_HOST_HOST_AGENT_PROCESS_H_
#define FRAMEWORK_HOST_HOST_AGENT_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/status.h"

namespace host {

class AgentProcess {
  public:
    // `program` is the kivagent executable.
    explicit AgentProcess(std::string program);
    // Stops the agent this object started, if it still runs.
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    // True when an agent serves this machine (it holds the lock on its pid
    // file in the machine's state directory).
    bool running() const;
    // Starts kivagent --daemon with the extra arguments (such as --busy 3);
    // the agent serves the pipe by the time it returns. kNotFound when the program is missing,
    // kLoadFailed when it did not come up.
    Status start(const std::vector<std::string>& arguments = {});
    // Stops the agent this object started (SIGTERM) and waits for it to end.
    Status stop();
    // Stops whichever agent serves the machine, started here or not.
    Status stopRunning();
    // Leaves the agent this object started running: the destructor no longer
    // stops it.
    void release() { pid_ = 0; }

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    const std::string& program() const { return program_; }

  private:
    std::string program_;
    pid_t pid_ = 0;
};

// kivagent next to the running program.
std::string defaultAgentPath();

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_AGENT_PROCESS_H_
