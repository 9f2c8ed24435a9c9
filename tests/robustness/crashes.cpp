// Crashes: a host killed with SIGKILL after prepare, after make and during
// dispose; the agent killed while it holds handles; a process killed while
// it holds the provider mutex. After each:
//   - the next snapshot (a new host process, C: and D:) works;
//   - what survived is listed (snapshots in the driver, cache files, handles
//     in the agent), and a prepared set that was never created is given up by
//     the driver once its process is gone;
//   - `fihost list` shows the surviving snapshots and `fihost delete --all`
//     disposes of them, and then nothing is left.
//
//   crashes [--repeat N]   (default 10 of each)
//
// Prints the count of each outcome; exits 1 when a next run failed or
// something could not be cleaned up.
#include <signal.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "lifecycle.h"
#include "os/handle.h"
#include "os/sync.h"
#include "support/leftovers.h"

namespace {

using host::ProgressEvent;
using host::Step;
using robustness::ChildResult;

bool killedBySignal(const ChildResult& result) {
    return result.ending == std::string("crashed: ") + strsignal(SIGKILL);
}

// The lifecycle of C: and D:, killed with SIGKILL as the `occurrence`th
// `step` starts; whether the signal ended it.
bool hostKilledAt(Step step, int occurrence = 1) {
    int seen = 0;
    robustness::LifecycleOptions options;
    options.progress = [step, occurrence, &seen](const ProgressEvent& event) {
        if (event.kind == ProgressEvent::Kind::kStep && event.step == step &&
            ++seen == occurrence) {
            raise(SIGKILL);
        }
    };
    return killedBySignal(robustness::lifecycleInChild(options));
}

struct Tally {
    int runs = 0;
    int killed = 0;     // the victim died by the signal as planned
    int survivors = 0;  // runs after which something survived the crash
    int nextRunWorked = 0;
    int deleted = 0;                      // runs whose made snapshots fihost delete had to remove
    int cleanedUp = 0;                    // nothing left after the next run and fihost delete
    std::map<std::string, int> survived;  // what survived, by kind
};

// fihost list names what survived; fihost delete --all disposes of it.
void deleteWithFihost() {
    const std::string fihost = std::string(FIHOST_PATH) + " --plugin " + FIKIV_PLUGIN_PATH;
    for (const std::string& command : {fihost + " list", fihost + " delete --all"}) {
        if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
            std::cout << "  failed: " << command << "\n";
        }
    }
}

// After the crash: lists what survived, runs the next snapshot, deletes the
// survivors with fihost and checks that nothing is left.
void recover(const robustness::AgentMachine& machine, Tally& tally, bool killed) {
    ++tally.runs;
    tally.killed += killed ? 1 : 0;
    std::vector<std::string> left = testsupport::machineLeftovers(machine.directory());
    if (!left.empty()) {
        ++tally.survivors;
    }
    for (const std::string& line : left) {
        ++tally.survived[line.substr(0, line.find(' ', line.find(' ') + 1))];
    }

    ChildResult next = robustness::lifecycleInChild();
    if (next.completed()) {
        ++tally.nextRunWorked;
    } else {
        std::cout << "  next run: " << (next.report.has_value() ? next.report->dump() : next.ending)
                  << "\n";
    }
    // What is left now are snapshots that were made: prepared sets of a
    // process that is gone have been given up by the driver.
    if (!testsupport::driverSnapshotFields(machine.directory(), "snapshotName").empty()) {
        ++tally.deleted;
        deleteWithFihost();
    }
    std::vector<std::string> after = testsupport::machineLeftovers(machine.directory());
    if (after.empty()) {
        ++tally.cleanedUp;
    } else {
        std::cout << "  left after fihost delete: " << after.front() << "\n";
    }
}

void report(const char* scenario, const Tally& tally) {
    std::cout << scenario << ": " << tally.runs << " runs, killed " << tally.killed
              << ", something survived " << tally.survivors << ", next run worked "
              << tally.nextRunWorked << ", made snapshots left for fihost delete " << tally.deleted
              << ", clean in the end " << tally.cleanedUp << "\n";
    for (const auto& [kind, count] : tally.survived) {
        std::cout << "    survived: " << kind << " (" << count << " in all)\n";
    }
}

// The agent is killed while the host holds a snapshot; a new agent serves
// the dispose.
bool agentKilledWhileHolding(robustness::AgentMachine& machine) {
    robustness::LifecycleOptions options;
    options.afterTake = [&machine] { kill(machine.agent().pid(), SIGKILL); };
    ChildResult result = robustness::lifecycleInChild(options);
    if (result.report.has_value() && !(*result.report)["failed"].empty()) {
        std::cout << "  dispose with the agent gone: " << (*result.report)["failed"][0] << "\n";
    }
    // The old agent is reaped and a new one serves the machine.
    return result.report.has_value() && machine.startAgent("crashes");
}

// A process takes the provider mutex and is killed holding it.
bool mutexHolderKilled() {
    ChildResult result = robustness::runInChild(
        [] {
            os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
            if (mutex != nullptr && os::WaitForSingleObject(mutex, 0) == os::WAIT_OBJECT_0) {
                raise(SIGKILL);
            }
            return nlohmann::json::object();
        },
        60);
    return killedBySignal(result);
}

}  // namespace

int main(int argc, char** argv) {
    int repeat = 10;
    if (!robustness::readCounts(argc, argv, {{"--repeat", &repeat}}, "crashes [--repeat N]")) {
        return 2;
    }
    robustness::AgentMachine machine(2);
    if (!machine.startAgent("crashes")) {
        return 2;
    }
    struct Scenario {
        const char* name;
        std::function<bool()> crash;
    };
    const std::vector<Scenario> scenarios = {
        {"host killed after prepare", [] { return hostKilledAt(Step::kQuiesce); }},
        {"host killed after make", [] { return hostKilledAt(Step::kUnquiesce); }},
        // Between the first volume's dispose and the second's.
        {"host killed during dispose", [] { return hostKilledAt(Step::kDispose, 2); }},
        {"agent killed while holding handles",
         [&machine] { return agentKilledWhileHolding(machine); }},
        {"provider mutex holder killed", [] { return mutexHolderKilled(); }},
    };
    int result = 0;
    for (const Scenario& scenario : scenarios) {
        Tally tally;
        for (int i = 0; i < repeat; ++i) {
            bool killed = scenario.crash();
            recover(machine, tally, killed);
        }
        report(scenario.name, tally);
        if (tally.nextRunWorked != tally.runs || tally.cleanedUp != tally.runs ||
            tally.killed != tally.runs) {
            result = 1;
        }
    }
    return result;
}
