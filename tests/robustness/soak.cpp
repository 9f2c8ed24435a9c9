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

#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/snapshot_run.h"
#include "lifecycle.h"
#include "sim/hooks.h"
#include "support/leftovers.h"

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
    for (auto it = fs::directory_iterator(proc + "/fd", error);
         !error && it != fs::directory_iterator(); it.increment(error)) {
        ++sample.descriptors;
    }
    return sample;
}

// Watches one process over `count` rounds: samples and prints it after the
// first, the middle and the last round, and counts (and prints the first
// five) failed rounds.
class Watch {
  public:
    Watch(const char* who, const char* round, const char* rounds, int count)
        : who_(who), round_(round), rounds_(rounds), count_(count) {}

    void failed(int index, const std::string& why) {
        if (failures_++ < 5) {
            std::cout << "  " << round_ << " " << index << " failed: " << why << "\n";
        }
    }
    void sample(int index, pid_t pid) {
        const char* when = index == 0            ? "first"
                           : index == count_ / 2 ? "middle"
                           : index == count_ - 1 ? "last"
                                                 : nullptr;
        if (when == nullptr) {
            return;
        }
        Sample sample = sampleOf(pid);
        std::cout << "  " << who_ << " after " << when << " (" << index + 1 << "): resident "
                  << sample.residentKiB << " KiB, descriptors " << sample.descriptors << "\n";
        (index == 0 ? first_ : last_) = sample;
    }
    // Prints the failures and what is left; 0 when neither, and the
    // descriptors did not grow.
    int finish(const fs::path& machineDirectory) const {
        std::vector<std::string> left = testsupport::machineLeftovers(machineDirectory);
        std::cout << "  failed " << rounds_ << ": " << failures_
                  << ", left on the machine: " << left.size() << "\n";
        bool grew = last_.descriptors > first_.descriptors;
        return failures_ == 0 && left.empty() && !grew ? 0 : 1;
    }

  private:
    const char* who_;
    const char* round_;
    const char* rounds_;
    int count_;
    int failures_ = 0;
    Sample first_;
    Sample last_;
};

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
    Watch watch("host", "lifecycle", "lifecycles", lifecycles);
    for (int index = 0; index < lifecycles; ++index) {
        {
            host::SnapshotRun run(plugin, context, nullptr);
            host::Status status = run.take(options);
            if (status.isOk()) {
                status = run.dispose();
            }
            if (!status.isOk()) {
                watch.failed(index, status.toString());
            }
            run.deInit();
        }
        // The context keeps every message; a host that logs them lets them go.
        context.takeMessages();
        watch.sample(index, getpid());
    }
    plugin.unload();
    return watch.finish(machineDirectory);
}

int soakAcrossProcesses(robustness::AgentMachine& machine, int processes) {
    std::cout << processes << " host processes one after another, one lifecycle each:\n";
    Watch watch("agent", "process", "processes", processes);
    for (int index = 0; index < processes; ++index) {
        robustness::ChildResult result = robustness::lifecycleInChild();
        if (!result.completed()) {
            watch.failed(index, result.report.has_value() ? result.report->dump() : result.ending);
        }
        watch.sample(index, machine.agent().pid());
    }
    return watch.finish(machine.directory());
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
    robustness::AgentMachine machine(2);
    if (!machine.startAgent("soak")) {
        return 2;
    }
    int result = 0;
    if (processes > 0) {
        result = std::max(result, soakAcrossProcesses(machine, processes));
    }
    if (lifecycles > 0) {
        result = std::max(result, soakInProcess(machine.directory(), lifecycles));
    }
    return result;
}
