// One cache placement on generated machines of 10, 100 and 1,000 volumes for
// 1, 8 and 64 targets, with nothing preferred, so the fallback examines every
// volume of the machine. Besides the time, the counters give the machine-layer
// calls of one placement by function ("GetDiskFreeSpaceExW": two per
// comparison of the free-space order, queried afresh every time, plus one per
// target for its maximum size), their sum "calls", and "per_call", the
// placement's time divided among them.
//
// The first volumes are the targets; a machine needs more volumes than
// targets, so 64 targets run only on the larger machines.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/cachefile/cachefileplacement.h"
#include "kiv/cachefile/providermutex.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/hooks.h"
#include "support/call_counts.h"
#include "support/generated_machine.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

void BM_PlaceCacheFiles(benchmark::State& state) {
    const int volumeCount = static_cast<int>(state.range(0));
    const int targetCount = static_cast<int>(state.range(1));
    TempMachine machine(benchsupport::generatedMachine(volumeCount));
    os::UniqueHandle mutex(os::CreateMutexW(nullptr, os::FALSE, providerMutexName(10)));
    std::vector<std::u16string> targets;
    for (int number = 1; number <= targetCount; ++number) {
        targets.push_back(TempMachine::guidName(number));
    }
    CacheFileHints hints;
    hints.maxCacheFileSizePct = 10;

    const auto place = [&] {
        std::vector<std::u16string> paths;
        std::vector<CacheFileSizes> sizes;
        return placeCacheFiles(mutex.get(), targets, hints, paths, sizes) &&
               paths.size() == targets.size();
    };
    bool placed = false;
    // The calls are counted on a placement of their own: the counters stay
    // out of the timed ones.
    const benchsupport::CallCounts counts =
        benchsupport::countCalls([&] { placed = place(); });
    if (!placed) {
        state.SkipWithError("placement failed");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(place());
    }
    benchsupport::reportCalls(state, counts);
}

void placementArguments(benchmark::internal::Benchmark* benchmark) {
    for (int volumes : {10, 100, 1000}) {
        for (int targets : {1, 8, 64}) {
            if (targets < volumes) {
                benchmark->Args({volumes, targets});
            }
        }
    }
}

BENCHMARK(BM_PlaceCacheFiles)
    ->Apply(placementArguments)
    ->ArgNames({"volumes", "targets"})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
