// claim and interpose of the first, middle and last volume of a machine of
// 1,000 volumes, through the plug-in's entry points as a host calls them.
// Each opens the volume with the driver library and asks for its attributes;
// interpose first finds the volume's GUID name through the machine. Both
// should cost the same wherever the volume sits on the machine.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"
#include "sim/hooks.h"
#include "sim/text.h"
#include "support/generated_machine.h"
#include "support/temp_machine.h"

namespace {

constexpr int kVolumes = 1000;

// The plug-in loaded and initialised on the generated machine.
class Bench {
  public:
    Bench() : machine_(benchsupport::generatedMachine(kVolumes)) {
        tarn_version version{};
        ok_ = plugin_.load(FIKIV_PLUGIN_PATH).isOk() &&
              plugin_.init(context_.context(), &version) == 0;
    }

    bool ok() const { return ok_; }
    host::PluginHost& plugin() { return plugin_; }
    // The plug-in's trace lines are kept by the context; drop them.
    void dropMessages() { context_.takeMessages(); }

  private:
    testsupport::TempMachine machine_;
    host::HostContext context_;
    host::PluginHost plugin_;
    bool ok_ = false;
};

// Volume number of the position: 0 first, 1 middle, 2 last.
int volumeAt(std::int64_t position) {
    return position == 0 ? 1 : position == 1 ? kVolumes / 2 : kVolumes;
}

void BM_Claim(benchmark::State& state) {
    Bench bench;
    host::HostNode volume(sim::fromUtf8(benchsupport::volumePath(volumeAt(state.range(0)))));
    int argument = 0;
    std::uint32_t flag = 0;
    // The volumes are sources the driver has not claimed: the answer is 0,
    // after asking the driver.
    const std::uint64_t asked = sim::callCount("KIV_GetVolumeInformation");
    if (!bench.ok() || bench.plugin().claim(volume.objid(), &argument, &flag) != 0 ||
        sim::callCount("KIV_GetVolumeInformation") != asked + 1) {
        state.SkipWithError("the plug-in did not ask the driver about the volume");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(bench.plugin().claim(volume.objid(), &argument, &flag));
        bench.dropMessages();
    }
}

void BM_Interpose(benchmark::State& state) {
    Bench bench;
    host::HostNode volume(sim::fromUtf8(benchsupport::volumePath(volumeAt(state.range(0)))));
    const auto interpose = [&] {
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        return bench.plugin().interpose(volume.record(), &identity, &groups, &count);
    };
    if (!bench.ok() || interpose() != 1) {
        state.SkipWithError("the plug-in did not interpose the volume");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(interpose());
        bench.dropMessages();
    }
}

BENCHMARK(BM_Claim)->Arg(0)->Arg(1)->Arg(2)->ArgName("first_middle_last")->Unit(
    benchmark::kMicrosecond);
BENCHMARK(BM_Interpose)->Arg(0)->Arg(1)->Arg(2)->ArgName("first_middle_last")->Unit(
    benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
