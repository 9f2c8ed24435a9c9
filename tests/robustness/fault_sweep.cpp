// The fault sweep: a two-volume snapshot lifecycle through the plug-in's
// entry points, run once to count its calls of each platform and driver
// function that can fail, then once for every such call failing with each
// error code the function can answer. Each lifecycle runs in a forked child
// on the virtual clock, against one machine and one real kivagent. A fault
// is survived when the child ends normally in time, init answers 0, every
// failing entry point answers a status of the plug-in (3 to 7), the host has
// no descriptor more than before (unless the fault is on a close), and
// nothing is left on the machine. A failed dispose is tried once more
// without the fault, as a host does. Two scenarios: dispose opens the
// snapshot volumes itself, or cannot and takes the agent's handles.
//
//   fault_sweep [--only FUNCTION] [--verbose]
//
// Prints the faults injected and survived and lists those that were not;
// exits 1 when any was not survived, 2 when the sweep itself cannot run.
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fault_table.h"
#include "lifecycle.h"
#include "os/error.h"
#include "orbhandle/protocol.h"
#include "os/pipe.h"
#include "sim/hooks.h"
#include "support/agent_client.h"
#include "support/leftovers.h"

namespace faultsweep {
namespace {

using robustness::AgentMachine;
using robustness::ChildResult;

struct Fault {
    std::string function;
    std::uint64_t call = 0;  // 1-based
    std::uint32_t error = 0;
    bool closesHandle = false;

    std::string describe() const {
        return function + " call " + std::to_string(call) + " fails with " +
               std::string(errorName(error)) + " (" + std::to_string(error) + ")";
    }
};

std::vector<std::string> countedFunctions() {
    std::vector<std::string> names;
    for (const FallibleFunction& function : fallibleFunctions()) {
        names.emplace_back(function.name);
    }
    return names;
}

// How dispose gets hold of each snapshot volume: the provider opens it
// itself, or (when it cannot) takes a duplicate of the agent's handle, which
// brings in the retrieve request, OpenProcess, the debug privilege and
// DuplicateHandle.
struct Scenario {
    const char* name;
    bool agentHandles;
};

constexpr Scenario kScenarios[] = {
    {"dispose opens the snapshot volumes itself", false},
    {"dispose takes the agent's handles (the provider cannot open the volumes)", true},
};

// One lifecycle of C: and D: in a child, with `fault` armed if there is one.
ChildResult runFault(const Scenario& scenario, const std::optional<Fault>& fault) {
    robustness::LifecycleOptions options;
    if (fault.has_value()) {
        options.beforeLoad = [&fault] {
            sim::injectFault(fault->function, fault->error,
                             static_cast<std::uint32_t>(fault->call - 1), 1);
        };
        options.descriptorsMayLeak = fault->closesHandle;
    }
    if (scenario.agentHandles) {
        // Every later open fails (the one-shot fault of the sweep still
        // counts its calls from the start).
        options.afterTake = [] {
            sim::injectFault("KIV_Open", os::ERROR_ACCESS_DENIED, 0, sim::kAlways);
        };
    }
    return robustness::lifecycleInChild(options, countedFunctions());
}

// What the last lifecycle left. One exchange with the agent first: the agent
// lets go of handles to destroyed snapshot volumes (left when a release
// failed and the provider went on to destroy) at its next exchange, as it
// would at the next snapshot.
std::vector<std::string> leftovers(const AgentMachine& bench) {
    testsupport::exchangeWithAgent(orbhandle::kRetrieveHandle, u"\\\\?\\FaultSweepProbe:", 0,
                                   os::NMPWAIT_WAIT_FOREVER);
    return testsupport::machineLeftovers(bench.directory());
}

struct Tally {
    std::uint64_t injected = 0;
    std::uint64_t survived = 0;
    std::uint64_t completed = 0;       // the lifecycle succeeded despite the fault
    std::uint64_t failedStatus = 0;    // a step answered a failing status
    std::uint64_t withMessage = 0;     // ... and the user was told why
    std::uint64_t retriedDispose = 0;  // a second dispose was needed
    std::vector<std::string> notSurvived;
};

// Runs one fault and adds it to the tally; resets the bench when the fault
// left something behind.
bool sweepOne(AgentMachine& bench, const Scenario& scenario, const Fault& fault, bool verbose,
              Tally& tally) {
    ++tally.injected;
    ChildResult result = runFault(scenario, fault);
    std::vector<std::string> problems;
    if (!result.report.has_value()) {
        problems.push_back(result.ending);
    } else {
        for (const auto& problem : (*result.report)["problems"]) {
            problems.push_back(problem.get<std::string>());
        }
    }
    for (const std::string& left : leftovers(bench)) {
        problems.push_back("left behind: " + left);
    }
    bool agentAlive = bench.agentRunning();
    if (!agentAlive) {
        problems.push_back("the agent is gone");
    }
    if (result.report.has_value()) {
        const nlohmann::json& report = *result.report;
        if (report["failed"].empty()) {
            ++tally.completed;
        } else {
            ++tally.failedStatus;
            if (!report["messages"].empty()) {
                ++tally.withMessage;
            }
        }
        if (report["retried"].get<bool>()) {
            ++tally.retriedDispose;
        }
        if (verbose) {
            std::cout << fault.describe() << ": " << result.outcome() << "\n";
        }
    }
    if (problems.empty()) {
        ++tally.survived;
        return true;
    }
    std::string line = fault.describe() + " (" + scenario.name + "):";
    for (const std::string& problem : problems) {
        line += "\n    " + problem;
    }
    tally.notSurvived.push_back(line);
    std::cout << "NOT SURVIVED " << line << "\n";
    return bench.reset("fault_sweep");
}

// Sweeps every fallible call of one scenario's lifecycle; false when the
// sweep cannot go on.
bool sweepScenario(AgentMachine& bench, const Scenario& scenario, const std::string& only,
                   bool verbose, Tally& tally) {
    ChildResult baseline = runFault(scenario, std::nullopt);
    if (!baseline.report.has_value() || !(*baseline.report)["problems"].empty() ||
        !(*baseline.report)["failed"].empty() || !leftovers(bench).empty()) {
        std::cerr << "fault_sweep: the lifecycle fails without a fault: "
                  << (baseline.report.has_value() ? baseline.report->dump() : baseline.ending)
                  << "\n";
        return false;
    }
    const nlohmann::json& calls = (*baseline.report)["calls"];

    std::vector<Fault> faults;
    std::uint64_t sites = 0;
    std::vector<std::string> called;
    for (const FallibleFunction& function : fallibleFunctions()) {
        std::uint64_t count = calls[std::string(function.name)].get<std::uint64_t>();
        if (count == 0) {
            continue;
        }
        called.push_back(std::string(function.name) + " x" + std::to_string(count));
        if (!only.empty() && function.name != only) {
            continue;
        }
        sites += count;
        for (std::uint64_t call = 1; call <= count; ++call) {
            for (std::uint32_t error : function.errors) {
                faults.push_back({std::string(function.name), call, error, function.closesHandle});
            }
        }
    }
    std::cout << "scenario: " << scenario.name << "\n"
              << "  calls the lifecycle makes that can fail:";
    for (const std::string& entry : called) {
        std::cout << " " << entry;
    }
    std::cout << "\n  call sites swept: " << sites << ", faults: " << faults.size() << "\n";
    for (const Fault& fault : faults) {
        if (!sweepOne(bench, scenario, fault, verbose, tally)) {
            std::cerr << "fault_sweep: the bench could not be restored\n";
            return false;
        }
    }
    return true;
}

int sweep(const std::string& only, bool verbose) {
    for (const FallibleFunction& function : fallibleFunctions()) {
        if (!sim::isKnownFunction(function.name)) {
            std::cerr << "fault_sweep: " << function.name << " takes no fault\n";
            return 2;
        }
    }
    AgentMachine bench(2);
    if (!bench.startAgent("fault_sweep")) {
        return 2;
    }
    std::cout << "fault sweep: two-volume lifecycle (C: and D:, caches on E:) with a real "
                 "kivagent\n";
    Tally tally;
    for (const Scenario& scenario : kScenarios) {
        if (!sweepScenario(bench, scenario, only, verbose, tally)) {
            return 2;
        }
    }
    std::cout << "faults injected: " << tally.injected << "\n"
              << "faults survived: " << tally.survived << "\n"
              << "  lifecycle completed despite the fault: " << tally.completed << "\n"
              << "  a step answered a failing status: " << tally.failedStatus
              << " (with a message to the user: " << tally.withMessage << ")\n"
              << "  dispose failed and a second dispose finished: " << tally.retriedDispose << "\n"
              << "faults not survived: " << tally.notSurvived.size() << "\n";
    for (const std::string& line : tally.notSurvived) {
        std::cout << "  " << line << "\n";
    }
    return tally.notSurvived.empty() ? 0 : 1;
}

}  // namespace
}  // namespace faultsweep

int main(int argc, char** argv) {
    std::string only;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (argument == "--verbose") {
            verbose = true;
        } else {
            std::cerr << "usage: fault_sweep [--only FUNCTION] [--verbose]\n";
            return 2;
        }
    }
    return faultsweep::sweep(only, verbose);
}
