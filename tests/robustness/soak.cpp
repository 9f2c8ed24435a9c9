// Soak: many snapshot lifecycles in a row, watching resident memory and open
// descriptors for growth.
//
// 1. In one host process: the plug-in loaded once and --lifecycles
//    two-volume lifecycles on the virtual clock with a real kivagent. The
//    host's resident memory and descriptors are printed after the first, the
//    middle and the last lifecycle.
// 2. Across processes: --processes host processes one after another, each a
//    whole lifecycle (load to unload) against the same agent. The agent's
//    resident memory and descriptors are printed the same way.
// After both, nothing may be left on the machine.
//
//   soak [--lifecycles N] [--processes N]   (defaults 10000 and 200)
//
// Run under valgrind's memcheck by scripts/soak for the leak check. Exits 1
// when a lifecycle failed, something was left, or descriptors grew.
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "host/agent_process.h"
#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/snapshot_run.h"
#include "lifecycle.h"
#include "sim/hooks.h"
#include "support/leftovers.h"
#include "support/temp_machine.h"

namespace {

namespace fs = std::filesystem;

struct Sample {
    long residentKiB = 0;
    std::size_t descriptors = 0;
};

Sample sampleOf(pid_t pid) {
    Sample sample;
    std::string proc = "/proc/" + std::to_string(pid);
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            sample.residentKiB = std::stol(line.substr(6));
        }
    }
    std::error_code error;
    for (auto it = fs::directory_iterator(proc + "/fd", error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        ++sample.descriptors;
    }
    return sample;
}

void print(const char* who, const char* when, int done, const Sample& sample) {
    std::cout << "  " << who << " after " << when << " (" << done << "): resident "
              << sample.residentKiB << " KiB, descriptors " << sample.descriptors << "\n";
}

// Whether `index` (0-based) of `count` is the first, middle or last; its name.
const char* milestone(int index, int count) {
    if (index == 0) {
        return "first";
    }
    if (index == count / 2) {
        return "middle";
    }
    if (index == count - 1) {
        return "last";
    }
    return nullptr;
}

int soakInProcess(const fs::path& machineDirectory, int lifecycles) {
    sim::useVirtualClock(true);
    host::HostContext context;
    host::PluginHost plugin;
    tarn_version version{};
    if (!plugin.load(FIKIV_PLUGIN_PATH).isOk() || plugin.init(context.context(), &version) != 0) {
        std::cerr << "soak: the plug-in did not start\n";
        return 2;
    }
    host::SnapshotOptions options;
    options.volumes = {"C:", "D:"};
    std::cout << lifecycles << " lifecycles in one host process (virtual clock):\n";
    int failures = 0;
    Sample first;
    Sample last;
    for (int index = 0; index < lifecycles; ++index) {
        {
            host::SnapshotRun run(plugin, context, nullptr);
            host::Status status = run.take(options);
            if (status.isOk()) {
                status = run.dispose();
            }
            if (!status.isOk() && failures++ < 5) {
                std::cout << "  lifecycle " << index << " failed: " << status.toString() << "\n";
            }
            run.deInit();
        }
        // The context keeps every message; a host that logs them lets them go.
        context.takeMessages();
        if (const char* when = milestone(index, lifecycles)) {
            Sample sample = sampleOf(getpid());
            print("host", when, index + 1, sample);
            (index == 0 ? first : last) = sample;
        }
    }
    plugin.unload();
    std::vector<std::string> left = testsupport::machineLeftovers(machineDirectory);
    std::cout << "  failed lifecycles: " << failures << ", left on the machine: " << left.size()
              << "\n";
    bool grew = last.descriptors > first.descriptors;
    return failures == 0 && left.empty() && !grew ? 0 : 1;
}

int soakAcrossProcesses(const fs::path& machineDirectory, const host::AgentProcess& agent,
                        int processes) {
    std::cout << processes << " host processes one after another, one lifecycle each:\n";
    int failures = 0;
    Sample first;
    Sample last;
    for (int index = 0; index < processes; ++index) {
        robustness::ChildResult result = robustness::runInChild(
            [] {
                robustness::LifecycleOptions options;
                options.volumes = {"C:", "D:"};
                return robustness::runLifecycle(options);
            },
            60);
        bool ok = result.report.has_value() && (*result.report)["failed"].empty() &&
                  (*result.report)["problems"].empty();
        if (!ok && failures++ < 5) {
            std::cout << "  process " << index << " failed: "
                      << (result.report.has_value() ? result.report->dump() : result.ending)
                      << "\n";
        }
        if (const char* when = milestone(index, processes)) {
            Sample sample = sampleOf(agent.pid());
            print("agent", when, index + 1, sample);
            (index == 0 ? first : last) = sample;
        }
    }
    std::vector<std::string> left = testsupport::machineLeftovers(machineDirectory);
    std::cout << "  failed processes: " << failures << ", left on the machine: " << left.size()
              << "\n";
    bool grew = last.descriptors > first.descriptors;
    return failures == 0 && left.empty() && !grew ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    int lifecycles = 10000;
    int processes = 200;
    if (!robustness::readCounts(argc, argv,
                                {{"--lifecycles", &lifecycles}, {"--processes", &processes}},
                                "soak [--lifecycles N] [--processes N]")) {
        return 2;
    }
    testsupport::TempMachine machine(robustness::machineWith(2));
    host::AgentProcess agent(KIVAGENT_PATH);
    if (!agent.start().isOk()) {
        std::cerr << "soak: the agent did not start\n";
        return 2;
    }
    int result = 0;
    if (processes > 0) {
        result = std::max(result, soakAcrossProcesses(machine.directory(), agent, processes));
    }
    if (lifecycles > 0) {
        result = std::max(result, soakInProcess(machine.directory(), lifecycles));
    }
    return result;
}
