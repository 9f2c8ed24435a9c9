// Whole snapshots across processes: this program is a framework host (the
// plug-in loaded through the host library), a real kivagent holds the
// snapshot volumes' handles, and fihost runs as a user runs it. What a single
// provider does in-process is tested by the node tests; here, what crosses
// processes. Each test ends with nothing left on the machine, in the agent or
// among the host's descriptors. Waits are real: across processes the clock is.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/agent_process.h"
#include "kivagent/agent_state.h"
#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/snapshot_run.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/hooks.h"
#include "support/child_process.h"
#include "support/leftovers.h"
#include "support/shell.h"
#include "support/temp_machine.h"

namespace {

namespace fs = std::filesystem;
using host::ProgressEvent;
using host::WaitReason;
using testsupport::driverSets;
using testsupport::openDescriptors;
using testsupport::TempMachine;

constexpr std::uint64_t kGiB = 1ull << 30;

// C: and F: to snapshot; E: has the most free space and takes the caches.
nlohmann::json e2eMachine() {
    return {
        {"volumes", nlohmann::json::array({
                        TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100 * kGiB, 40 * kGiB),
                        TempMachine::volume(2, {"E:\\"}, "fixed", "NTFS", 400 * kGiB, 300 * kGiB),
                        TempMachine::volume(3, {"F:\\"}, "fixed", "NTFS", 50 * kGiB, 20 * kGiB),
                    })}};
}

using testsupport::CommandRun;
using testsupport::readFile;

// Runs a command line through the shell; stdout and stderr together.
CommandRun runCommand(const std::string& command) {
    return testsupport::runCommand(command + " 2>&1");
}

std::string agentOption() {
    return std::string(" --agent ") + KIVAGENT_PATH;
}

class SnapshotEndToEndTest : public ::testing::Test {
  protected:
    // Starts the host: the plug-in loaded and initialised, a run ready (one
    // that records its progress events, or one that wants none).
    void startHost(bool recordProgress = true) {
        // Counted before the plug-in is loaded: its process-wide objects (the
        // provider mutex, the driver binding) live until it is unloaded.
        descriptorsBefore_ = openDescriptors();
        context_.emplace();
        plugin_.emplace();
        host::Status loaded = plugin_->load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(loaded.isOk()) << loaded.toString();
        tarn_version version{};
        ASSERT_EQ(plugin_->init(context_->context(), &version), 0);
        host::ProgressCallback record = [this](const ProgressEvent& e) { events_.push_back(e); };
        run_.emplace(*plugin_, *context_, recordProgress ? record : nullptr);
    }

    void startAgent(const std::vector<std::string>& arguments = {}) {
        agent_.emplace(KIVAGENT_PATH);
        host::Status started = agent_->start(arguments);
        ASSERT_TRUE(started.isOk()) << started.toString();
    }

    host::Status take(std::vector<std::string> volumes) {
        host::SnapshotOptions options;
        options.volumes = std::move(volumes);
        return run_->take(options);
    }

    // "request status" of every agent exchange, in order.
    std::vector<std::string> exchanges() const {
        std::vector<std::string> seen;
        for (const ProgressEvent& event : events_) {
            if (event.kind == ProgressEvent::Kind::kAgentExchange) {
                seen.push_back(event.request + " " + std::to_string(event.status));
            }
        }
        return seen;
    }

    // "count/budget" of every wait of one reason, in order.
    std::vector<std::string> waits(WaitReason reason) const {
        std::vector<std::string> seen;
        for (const ProgressEvent& event : events_) {
            if (event.kind == ProgressEvent::Kind::kWait && event.reason == reason) {
                seen.push_back(std::to_string(event.count) + "/" + std::to_string(event.budget));
            }
        }
        return seen;
    }

    // Disposes, detaches, and checks that nothing is left anywhere.
    void disposeAndExpectNothingLeft() {
        host::Status disposed = run_->dispose();
        EXPECT_TRUE(disposed.isOk()) << disposed.toString();
        run_->deInit();
        expectNothingLeft();
        expectNoDescriptorLeft();
    }

    // Unloads the plug-in; the host's process has what it had before.
    void expectNoDescriptorLeft() {
        run_.reset();
        plugin_->unload();
        EXPECT_EQ(openDescriptors(), descriptorsBefore_) << "the host leaked descriptors";
    }

    void expectNothingLeft() {
        EXPECT_EQ(testsupport::machineLeftovers(machine_.directory()), std::vector<std::string>{});
    }

    // Destroyed in reverse order: the run, the plug-in, the agent, then the
    // machine they all use.
    TempMachine machine_{e2eMachine()};
    std::optional<host::AgentProcess> agent_;
    std::optional<host::HostContext> context_;
    std::optional<host::PluginHost> plugin_;
    std::optional<host::SnapshotRun> run_;
    std::vector<ProgressEvent> events_;
    std::vector<std::string> descriptorsBefore_;
};

// Busy answers from the agent and "access denied" from the driver cost counted
// waits. At dispose the provider opens the first snapshot volume itself; its
// open of the second fails, so it duplicates the agent's handle instead.
TEST_F(SnapshotEndToEndTest, TwoVolumesThroughBusyAgentAndDriver) {
    startAgent({"--busy", "3"});
    startHost();
    host::Status taken = take({"C:", "F:"});
    ASSERT_TRUE(taken.isOk()) << taken.toString();
    EXPECT_EQ(waits(WaitReason::kAgentBusy), (std::vector<std::string>{"1/30", "2/30", "3/30"}));
    const std::vector<std::string> held = testsupport::agentHolds(machine_.directory());
    std::set<std::string> made;
    for (const host::SnapshotVolume& volume : run_->volumes()) {
        made.insert(volume.snapshotName);
    }
    EXPECT_EQ(std::set<std::string>(held.begin(), held.end()), made);
    EXPECT_EQ(driverSets(machine_.directory()), 1u);

    sim::injectFault("KIV_Open", 5 /*ERROR_ACCESS_DENIED*/, /*skip=*/1, /*count=*/1);
    sim::injectFault("KIV_Destroy", 5, 0, 3);
    disposeAndExpectNothingLeft();
    EXPECT_EQ(exchanges(), (std::vector<std::string>{"register 231", "register 231", "register 231",
                                                     "register 0", "register 0", "release 0",
                                                     "retrieve 0", "release 0"}));
    EXPECT_EQ(waits(WaitReason::kAfterAgentAnswer).size(), 5u);
    EXPECT_EQ(waits(WaitReason::kDriverBusy),
              (std::vector<std::string>{"1/100", "2/100", "3/100"}));
}

// Hosts count cache file names from _tarnKivCacheFile_0. With their look for
// existing files failing, this host and another fihost pick the name a kept
// snapshot uses: the driver refuses this host, and fihost retries with the next.
TEST_F(SnapshotEndToEndTest, TwoHostsPickingTheSameCacheFileNameTheDriverRefusesTheSecond) {
    startAgent();
    const std::string fihost = FIHOST_PATH;
    CommandRun first = runCommand(fihost + " snapshot C: --keep" + agentOption());
    EXPECT_EQ(first.exitCode, 0) << first.output;
    EXPECT_NE(first.output.find("E:\\_tarnKivCacheFile_0.KIV"), std::string::npos) << first.output;

    sim::injectFault("FindFirstFileW", 2 /*ERROR_FILE_NOT_FOUND*/, 0, sim::kAlways);
    startHost(/*recordProgress=*/false);
    EXPECT_FALSE(take({"F:"}).isOk());
    sim::clearFaults();
    const std::vector<std::string> refusal = run_->failureTexts();
    EXPECT_TRUE(std::ranges::any_of(refusal, [](const std::string& text) {
        return text.find("KIV_Prepare") != std::string::npos;
    }));

    const std::string description = readFile(machine_.file());
    nlohmann::json faulty = nlohmann::json::parse(description);
    faulty["faults"] = {{{"function", "FindFirstFileW"}, {"error", 2}, {"count", "always"}}};
    std::ofstream(machine_.file()) << faulty.dump(2);
    CommandRun third = runCommand(fihost + " snapshot F:" + agentOption());
    std::ofstream(machine_.file()) << description;
    EXPECT_EQ(third.exitCode, 0) << third.output;
    EXPECT_NE(third.output.find("another snapshot took the cache file name "
                                "E:\\_tarnKivCacheFile_0.KIV at the same moment"),
              std::string::npos)
        << third.output;
    EXPECT_NE(third.output.find("E:\\_tarnKivCacheFile_1.KIV"), std::string::npos) << third.output;
    EXPECT_EQ(runCommand(fihost + " delete --all").exitCode, 0);
    run_->deInit();
    expectNothingLeft();
    expectNoDescriptorLeft();
}

// fihost with --json: the document on stdout, stderr dropped.
nlohmann::json fihostJson(const std::string& arguments) {
    CommandRun run =
        runCommand("{ " + std::string(FIHOST_PATH) + " --json " + arguments + " 2>/dev/null; }");
    return nlohmann::json::parse(run.output, nullptr, false);
}

// A started agent runs on after fihost ends: snapshots kept (as text and as
// JSON) stay where the plan put them, listed and held by the agent; agent
// stop leaves them, and delete --all still disposes of them.
TEST_F(SnapshotEndToEndTest, FihostAgentPlanKeepListDeleteAroundKeptSnapshots) {
    const std::string fihost = FIHOST_PATH;
    CommandRun started = runCommand(fihost + " agent start" + agentOption());
    EXPECT_EQ(started.exitCode, 0) << started.output;
    nlohmann::json plan = fihostJson("plan C: F: --cache-dir kiv\\\\cow")["result"]["cacheFiles"];
    ASSERT_EQ(plan.size(), 2u) << plan.dump(2);
    EXPECT_EQ(plan[0]["cacheFile"], "E:\\kiv\\cow\\_tarnKivCacheFile_0.KIV");
    CommandRun kept =
        runCommand(fihost + " snapshot C: --keep --cache-dir kiv\\\\cow" + agentOption());
    EXPECT_EQ(kept.exitCode, 0) << kept.output;
    EXPECT_NE(kept.output.find("kept; see them with 'fihost list'"), std::string::npos)
        << kept.output;
    EXPECT_EQ(kept.output.find("keeps running"), std::string::npos) << "it did not start this one";
    EXPECT_EQ(fihostJson("snapshot F: --keep --cache-dir kiv\\\\cow" + agentOption())["exitCode"],
              0);
    EXPECT_EQ(fihostJson("agent status")["result"]["holds"].size(), 2u);

    nlohmann::json listed = fihostJson("list")["result"]["snapshots"];
    ASSERT_EQ(listed.size(), 2u) << listed.dump(2);
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(listed[i].dump());
        EXPECT_EQ(listed[i]["source"], i == 0 ? "C:" : "F:");
        EXPECT_EQ(listed[i]["cacheFile"], plan[i]["cacheFile"]);
        EXPECT_EQ(listed[i]["maximumMb"], plan[i]["maximumMb"]);
        EXPECT_EQ(listed[i]["agentHolds"], true);
        EXPECT_TRUE(fs::is_directory(listed[i]["content"].get<std::string>()));
    }

    CommandRun stopped = runCommand(fihost + " agent stop");
    EXPECT_EQ(stopped.exitCode, 0) << stopped.output;
    EXPECT_NE(stopped.output.find("they still exist"), std::string::npos) << stopped.output;
    EXPECT_EQ(fihostJson("agent status")["result"]["running"], false);
    listed = fihostJson("list")["result"]["snapshots"];
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0]["agentHolds"], false);

    CommandRun deleted = runCommand(fihost + " delete --all");
    EXPECT_EQ(deleted.exitCode, 0) << deleted.output;
    expectNothingLeft();
}

// With no agent answering, fihost starts one and stops it at the end; the
// command it runs sees the snapshot's content while the source changes.
TEST_F(SnapshotEndToEndTest, ExecSeesThePointInTimeContentWhileTheSourceChanges) {
    const fs::path volumeC = machine_.directory() / "machine.state" / "volumes" /
                             "{00000000-0000-0000-0000-000000000001}";
    fs::create_directories(volumeC);
    std::ofstream(volumeC / "report.txt") << "before\n";
    const fs::path seen = machine_.directory() / "seen.txt";
    const fs::path script = machine_.directory() / "backup.sh";
    std::ofstream(script) << R"(echo after > "$1"
cat "$FIKIV_SNAPSHOT_1_PATH/report.txt" > "$2"
echo "$FIKIV_SNAPSHOT_COUNT $FIKIV_SNAPSHOT_1_SOURCE $FIKIV_SNAPSHOT_2_SOURCE" >> "$2"
exit 7
)";
    CommandRun run =
        runCommand(std::string(FIHOST_PATH) + " --plugin " + FIKIV_PLUGIN_PATH + " snapshot C: F:" +
                   agentOption() + " --exclude F: --cache-dir kiv --exec 'sh " + script.string() +
                   " " + (volumeC / "report.txt").string() + " " + seen.string() + "'");
    EXPECT_EQ(run.exitCode, 7) << run.output;
    EXPECT_EQ(readFile(seen), "before\n2 C: F:\n");
    EXPECT_EQ(readFile(volumeC / "report.txt"), "after\n");
    for (const char* shown :
         {"no backup agent answers; starting", "backup agent: register ",
          "\\kiv\\_tarnKivCacheFile_1.KIV", "the command exited with status 7",
          "disposed 2 snapshot volumes", "stopped the backup agent it started"}) {
        EXPECT_NE(run.output.find(shown), std::string::npos) << shown << "\n" << run.output;
    }
    EXPECT_FALSE(kivagent::readAgentStatus(machine_.directory() / "machine.state").running)
        << "the agent fihost started still runs";

    // With --json too: the shell's complaint goes to stderr, the status is kept.
    CommandRun missing =
        runCommand(std::string(FIHOST_PATH) + " --json snapshot C:" + agentOption() +
                   " --exec no-such-command-anywhere");
    EXPECT_EQ(missing.exitCode, 127) << missing.output;
    EXPECT_NE(missing.output.find("the command was not found"), std::string::npos)
        << missing.output;
    expectNothingLeft();
}

// Takes the provider mutex and ends without releasing it.
FIKIV_CHILD_ROLE(abandonProviderMutex) {
    os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
    return mutex != nullptr && os::WaitForSingleObject(mutex, 0) == os::WAIT_OBJECT_0 ? 0 : 10;
}

// An abandoned provider mutex and one held too long read differently: the
// first is released and the plan goes on, the second fails after the wait.
TEST_F(SnapshotEndToEndTest, PlanTellsAnAbandonedProviderMutexFromAHeldOne) {
    // The mutex outlives its owner only while another process has it open.
    os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(testsupport::waitChild(testsupport::startChild("abandonProviderMutex")), 0);
    CommandRun abandoned = runCommand(std::string(FIHOST_PATH) + " plan C:");
    EXPECT_EQ(abandoned.exitCode, 0) << abandoned.output;
    EXPECT_NE(abandoned.output.find("abandoned by a process that ended while placing cache files; "
                                    "fihost released it"),
              std::string::npos)
        << abandoned.output;

    ASSERT_EQ(os::WaitForSingleObject(mutex, 0), os::WAIT_OBJECT_0);
    CommandRun timedOut = runCommand(std::string(FIHOST_PATH) + " plan C:");
    os::ReleaseMutex(mutex);
    os::CloseHandle(mutex);
    EXPECT_EQ(timedOut.exitCode, 1) << timedOut.output;
    EXPECT_NE(timedOut.output.find("stayed held by another process for 10 seconds"),
              std::string::npos)
        << timedOut.output;
    EXPECT_EQ(timedOut.output.find("abandoned"), std::string::npos) << timedOut.output;
}

}  // namespace
