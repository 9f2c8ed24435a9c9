// `fihost volumes` as a whole process on a machine of 1,000 volumes: start,
// load the machine, the plug-in and the driver library, list every volume
// with its paths, space and driver attributes, and ask the plug-in whether it
// would interpose each. The first run (which writes the machine's state) is
// left out; each timed run starts a new process.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/generated_machine.h"
#include "support/temp_machine.h"

extern char** environ;

namespace {

using testsupport::TempMachine;

// Runs `fihost volumes` with its output thrown away; its exit status.
int runVolumes() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char program[] = FIHOST_PROGRAM;
    char command[] = "volumes";
    char* arguments[] = {program, command, nullptr};
    pid_t child = -1;
    int status = -1;
    if (posix_spawn(&child, program, &actions, nullptr, arguments, environ) == 0) {
        waitpid(child, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void BM_FihostVolumes(benchmark::State& state) {
    TempMachine machine(benchsupport::generatedMachine(static_cast<int>(state.range(0))));
    if (runVolumes() != 0) {
        state.SkipWithError("fihost volumes failed");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(runVolumes());
    }
}

BENCHMARK(BM_FihostVolumes)
    ->Arg(10)
    ->Arg(1000)
    ->ArgName("volumes")
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
