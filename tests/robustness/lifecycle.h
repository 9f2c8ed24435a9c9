// What the robustness programs share: a small machine with a real agent, a
// whole snapshot lifecycle through the plug-in's entry points with a report
// of what it did and what it left in this process, and running such work in
// a forked child so that a crash or a hang is seen from outside.
#ifndef TESTS_ROBUSTNESS_LIFECYCLE_H_
#define TESTS_ROBUSTNESS_LIFECYCLE_H_

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/agent_process.h"
#include "host/snapshot_run.h"
#include "support/temp_machine.h"

namespace robustness {

// The drive letter of source `number` (1-based): "C:", "D:", "F:", ...
std::string sourceDrive(int number);

// Volumes 1 to `sources` (C:, D:, F:, G:, ...) are for snapshots; one more,
// E:, has the most free space and takes the cache files. A real kivagent
// serves the machine once startAgent has answered true.
class AgentMachine {
  public:
    explicit AgentMachine(int sources);

    // Starts (or restarts) the agent; says why not on stderr, as `program`.
    bool startAgent(const char* program);
    bool agentRunning() const { return agent_.has_value() && agent_->running(); }
    host::AgentProcess& agent() { return *agent_; }
    const std::filesystem::path& directory() const { return machine_.directory(); }
    // Stops the agent, removes the machine's state and every cache file, and
    // starts a new agent.
    bool reset(const char* program);

  private:
    testsupport::TempMachine machine_;
    std::optional<host::AgentProcess> agent_;
};

struct LifecycleOptions {
    std::vector<std::string> volumes = {"C:", "D:"};
    bool virtualClock = true;
    // Called after the call counters are cleared, before the plug-in loads.
    std::function<void()> beforeLoad;
    // Hears the run's progress (steps, agent exchanges, waits).
    host::ProgressCallback progress;
    // Called once the snapshot is taken, before it is disposed.
    std::function<void()> afterTake;
    // A dispose that answers a failure is tried once more after clearing the
    // injected faults, as a host would.
    bool retryDispose = true;
    // The injected fault keeps a handle open by definition: a descriptor left
    // in the host is not reported.
    bool descriptorsMayLeak = false;
};

// Loads the plug-in, initialises it, takes and disposes a snapshot, detaches
// every node and unloads the plug-in. The report: "failed" (the steps that
// answered a failure, with their status), "messages" (what the plug-in told
// the user about the failure), "retried" (a second dispose was needed),
// "problems" (what must not happen: an undocumented status, init not
// answering 0, a descriptor left in the host), and "calls" (this process's
// call counter of every function named in `counted`).
nlohmann::json runLifecycle(const LifecycleOptions& options,
                            const std::vector<std::string>& counted = {});

struct ChildResult {
    std::optional<nlohmann::json> report;  // none when the child did not report
    std::string ending;                    // how the child ended, when not normally

    // The lifecycle reported no failing step and no problem.
    bool completed() const;
    // As a user would read it: the first problem, the first failed step with
    // the last message, "snapshot taken and disposed", or how the child ended.
    std::string outcome() const;
};

// A forked child running `body`, ended after `seconds` at the latest, that
// hands its report back. The child leaves the parent's objects alone.
class Child {
  public:
    Child(const std::function<nlohmann::json()>& body, unsigned seconds);
    // Waits for a child not yet waited for.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    // Waits for the child and reads its report.
    ChildResult wait();

  private:
    pid_t pid_ = -1;
    int report_ = -1;
    unsigned seconds_ = 0;
    std::string error_;  // why the child could not be started
};

// Runs `body` in a child and waits for it.
ChildResult runInChild(const std::function<nlohmann::json()>& body, unsigned seconds);
// Runs one lifecycle in a child (a minute at most) and waits for it.
ChildResult lifecycleInChild(const LifecycleOptions& options = {},
                             const std::vector<std::string>& counted = {});

// Reads "--name N" pairs into the counts named in `options`; false (with a
// usage line on stderr) for anything else.
bool readCounts(int argc, char** argv, const std::vector<std::pair<std::string, int*>>& options,
                const std::string& usage);

}  // namespace robustness

#endif  // TESTS_ROBUSTNESS_LIFECYCLE_H_
