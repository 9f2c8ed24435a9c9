// Exchanges with a real kivagent over the rendezvous pipe, from 1 and 8
// client threads of this process: each iteration registers a handle under a
// name of the thread's own, retrieves it and releases it (three exchanges, a
// fresh connection each, as the plug-in makes them). items_per_second is
// exchanges per second across all threads. "busy" counts exchanges the pipe
// answered busy (clients wait for an instance, so it should stay 0) and
// "failed" every other failure.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "host/agent_process.h"
#include "orbhandle/protocol.h"
#include "os/error.h"
#include "os/pipe.h"
#include "sim/handles.h"
#include "support/agent_client.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

std::atomic<std::uint64_t> busyAnswers{0};
std::atomic<std::uint64_t> failedAnswers{0};

// The machine and the agent, shared by every thread of a benchmark run.
struct AgentBench {
    TempMachine machine{{{"volumes", {TempMachine::volume(1, {"C:\\"})}}}};
    host::AgentProcess agent{KIVAGENT_PATH};
    bool ok = agent.start().isOk();
};

AgentBench* bench = nullptr;

// One exchange; counts its failure.
void exchange(std::uint32_t code, const std::u16string& name, std::uint64_t handle) {
    testsupport::AgentExchange answer =
        testsupport::exchangeWithAgent(code, name, handle, os::NMPWAIT_WAIT_FOREVER);
    if (answer.status() == os::ERROR_PIPE_BUSY) {
        busyAnswers++;
    } else if (answer.status() != 0) {
        failedAnswers++;
    }
}

void BM_AgentExchange(benchmark::State& state) {
    if (state.thread_index() == 0) {
        busyAnswers = 0;
        failedAnswers = 0;
        bench = new AgentBench;
    }
    // The descriptor registered: any open file serves.
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    auto handle = reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd));
    std::string ascii = "\\\\?\\BenchSnap" + std::to_string(state.thread_index()) + ":";
    std::u16string name(ascii.begin(), ascii.end());
    for (auto _ : state) {
        if (!bench->ok) {
            state.SkipWithError("the agent did not start");
            break;
        }
        exchange(orbhandle::kRegisterVolumeHandle, name, handle);
        exchange(orbhandle::kRetrieveHandle, name, 0);
        exchange(orbhandle::kReleaseVolumeHandle, name, 0);
    }
    close(fd);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * 3);
    if (state.thread_index() == 0) {
        state.counters["busy"] = static_cast<double>(busyAnswers.load());
        state.counters["failed"] = static_cast<double>(failedAnswers.load());
        delete bench;
        bench = nullptr;
    }
}

BENCHMARK(BM_AgentExchange)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
