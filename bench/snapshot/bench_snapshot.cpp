// A whole snapshot lifecycle through the plug-in's entry points (interpose to
// deInitNode, as fihost snapshot drives it) of 1, 8 and 64 volumes, with a
// real kivagent process holding the snapshot volumes.
//
// BM_SnapshotVirtualClock runs the plug-in's mandated waits (the pause after
// each exchange with the agent) on the virtual clock, so its CPU time is our
// own cost: the host library, the plug-in and the driver library in this
// process. The counter "mandatedWaitMs" is the waiting the plug-in asked for
// in one lifecycle. BM_SnapshotRealClock takes the waits for real: its wall
// time is what a snapshot costs a user, nearly all of it mandated waiting.
//
// BM_EntryPointCost takes a two-volume lifecycle on the virtual clock apart:
// the thread's CPU time from the start of one step to the start of the next,
// divided by the entry-point calls the step makes, gives each entry point's
// cost per call ("<name>_us" counters, averaged over the iterations). The
// host's building of records is included; the agent's own work, in its own
// process, is not.
#include <benchmark/benchmark.h>

#include <time.h>

#include <array>
#include <cstdint>
#include <numeric>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/agent_process.h"
#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/snapshot_run.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

// Volume 1 is C:\, the next 23 take the letters D: to Z:, the rest are
// mounted below C:\mnt. The last volume has the most free space and takes
// every cache file; the others are the sources.
nlohmann::json machineFor(int sources) {
    nlohmann::json volumes = nlohmann::json::array();
    int count = sources + 1;
    for (int number = 1; number <= count; ++number) {
        std::string path;
        if (number == 1) {
            path = "C:\\";
        } else if (number <= 24) {
            path = std::string(1, static_cast<char>('C' + number - 1)) + ":\\";
        } else {
            path = "C:\\mnt\\v" + std::to_string(number) + "\\";
        }
        std::uint64_t freeGB = number == count ? 3000 : 40;
        volumes.push_back(TempMachine::volume(number, {path.c_str()}, "fixed", "NTFS",
                                              4000ull << 30, freeGB << 30));
    }
    return {{"volumes", volumes}};
}

std::vector<std::string> sourceNames(int sources) {
    std::vector<std::string> names;
    for (int number = 1; number <= sources; ++number) {
        std::string guid = std::to_string(number);
        guid = std::string(12 - guid.size(), '0') + guid;
        names.push_back("\\\\?\\Volume{00000000-0000-0000-0000-" + guid + "}\\");
    }
    return names;
}

// The machine, a running agent and the plug-in loaded and initialised.
class Bench {
  public:
    explicit Bench(int sources) : machine_(machineFor(sources)), agent_(KIVAGENT_PATH) {
        ok_ = agent_.start().isOk() && plugin_.load(FIKIV_PLUGIN_PATH).isOk();
        tarn_version version{};
        ok_ = ok_ && plugin_.init(context_.context(), &version) == 0;
        options_.volumes = sourceNames(sources);
    }
    ~Bench() { sim::useVirtualClock(false); }

    bool ok() const { return ok_; }

    // One lifecycle; false when a step failed.
    bool lifecycle(host::ProgressCallback progress = nullptr) {
        host::SnapshotRun run(plugin_, context_, std::move(progress));
        bool taken = run.take(options_).isOk();
        bool disposed = taken && run.dispose().isOk();
        run.deInit();
        // The plug-in's trace lines are kept by the context; drop them.
        context_.takeMessages();
        return disposed;
    }

  private:
    TempMachine machine_;
    host::AgentProcess agent_;
    host::HostContext context_;
    host::PluginHost plugin_;
    host::SnapshotOptions options_;
    bool ok_ = false;
};

void BM_SnapshotVirtualClock(benchmark::State& state) {
    Bench bench(static_cast<int>(state.range(0)));
    if (!bench.ok()) {
        state.SkipWithError("the agent or the plug-in did not start");
        return;
    }
    sim::useVirtualClock(true);
    std::uint64_t waited = 0;
    for (auto _ : state) {
        sim::clearRecordedSleeps();
        if (!bench.lifecycle()) {
            state.SkipWithError("a snapshot step failed");
            break;
        }
        std::vector<std::uint32_t> sleeps = sim::recordedSleeps();
        waited = std::accumulate(sleeps.begin(), sleeps.end(), std::uint64_t{0});
    }
    state.counters["mandatedWaitMs"] = static_cast<double>(waited);
    state.counters["volumes"] = static_cast<double>(state.range(0));
}

void BM_SnapshotRealClock(benchmark::State& state) {
    Bench bench(static_cast<int>(state.range(0)));
    if (!bench.ok()) {
        state.SkipWithError("the agent or the plug-in did not start");
        return;
    }
    for (auto _ : state) {
        if (!bench.lifecycle()) {
            state.SkipWithError("a snapshot step failed");
            break;
        }
    }
    state.counters["volumes"] = static_cast<double>(state.range(0));
}

double threadCpuMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void BM_EntryPointCost(benchmark::State& state) {
    constexpr int kSources = 2;
    constexpr std::size_t kSteps = static_cast<std::size_t>(host::Step::kDeInitNode) + 1;
    // Entry-point calls per step of a lifecycle of kSources volumes: one per
    // volume, one more for the group object, or one for the whole set.
    constexpr std::array<int, kSteps> kCalls = {
        kSources,      kSources + 1, kSources + 1, 1, 1, 1, 1, 1, 1, kSources, kSources,
        2 * kSources + 1};
    Bench bench(kSources);
    if (!bench.ok()) {
        state.SkipWithError("the agent or the plug-in did not start");
        return;
    }
    sim::useVirtualClock(true);
    std::array<double, kSteps> spent{};
    for (auto _ : state) {
        std::size_t current = kSteps;
        double since = 0;
        auto progress = [&](const host::ProgressEvent& event) {
            if (event.kind != host::ProgressEvent::Kind::kStep) {
                return;
            }
            double now = threadCpuMicroseconds();
            if (current != kSteps) {
                spent[current] += now - since;
            }
            current = static_cast<std::size_t>(event.step);
            since = threadCpuMicroseconds();
        };
        if (!bench.lifecycle(progress)) {
            state.SkipWithError("a snapshot step failed");
            break;
        }
        if (current != kSteps) {
            spent[current] += threadCpuMicroseconds() - since;
        }
    }
    for (std::size_t step = 0; step < kSteps; ++step) {
        state.counters[std::string(host::stepName(static_cast<host::Step>(step))) + "_us"] =
            benchmark::Counter(spent[step] / kCalls[step], benchmark::Counter::kAvgIterations);
    }
}

BENCHMARK(BM_EntryPointCost)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SnapshotVirtualClock)->Arg(1)->Arg(8)->Arg(64)->Unit(benchmark::kMillisecond);
// Two seconds of waiting per volume: one iteration each, measured in wall time.
BENCHMARK(BM_SnapshotRealClock)
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
