// Whole snapshots across processes: this test program is the framework host
// (the plug-in and its driver loaded into it through the host library), a
// real kivagent process holds the snapshot volumes' handles, and the driver's
// state is shared through the machine's state directory. Some tests run the
// fihost program itself, as a user does, two at once.
//
// Every wait of the plug-in here is a real 1000 ms wait: across processes the
// clock is real. Each test ends by checking that nothing is left: no snapshot
// in the driver, no cache file on any volume, no handle in the agent, no
// descriptor in the host.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
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
#include "support/temp_machine.h"

namespace {

namespace fs = std::filesystem;
using host::ProgressEvent;
using host::WaitReason;
using testsupport::cacheFiles;
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

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

using testsupport::waitForFile;

struct CommandRun {
    int exitCode = -1;
    std::string output;
};

// Runs a command line through the shell; stdout and stderr together.
CommandRun runCommand(const std::string& command) {
    CommandRun run;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[1024];
    std::size_t read = 0;
    while ((read = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        run.output.append(buffer, read);
    }
    int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::string agentOption() {
    return std::string(" --agent ") + KIVAGENT_PATH;
}

class SnapshotEndToEndTest : public ::testing::Test {
  protected:
    // Starts the host: the plug-in loaded and initialised, a run ready.
    void startHost() {
        // Counted before the plug-in is loaded: its process-wide objects (the
        // provider mutex, the driver binding) live until it is unloaded.
        descriptorsBefore_ = openDescriptors();
        context_.emplace();
        plugin_.emplace();
        host::Status loaded = plugin_->load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(loaded.isOk()) << loaded.toString();
        tarn_version version{};
        ASSERT_EQ(plugin_->init(context_->context(), &version), 0);
        run_.emplace(*plugin_, *context_,
                     [this](const ProgressEvent& event) { events_.push_back(event); });
    }

    void startAgent(const std::vector<std::string>& arguments = {}) {
        agent_.emplace(KIVAGENT_PATH);
        host::Status started = agent_->start(arguments);
        ASSERT_TRUE(started.isOk()) << started.toString();
    }

    std::vector<std::string> agentHolds() const {
        return testsupport::agentHolds(machine_.directory());
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

    // How many of the plug-in's messages contain `text`.
    std::size_t messagesContaining(const std::string& text) const {
        return std::count_if(events_.begin(), events_.end(), [&text](const ProgressEvent& event) {
            return event.kind == ProgressEvent::Kind::kMessage &&
                   event.text.find(text) != std::string::npos;
        });
    }

    std::vector<std::string> snapshotNames() const {
        std::vector<std::string> names;
        for (const host::SnapshotVolume& volume : run_->volumes()) {
            names.push_back(volume.snapshotName);
        }
        return names;
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
        fs::path directory = machine_.directory();
        EXPECT_EQ(driverSets(directory), 0u)
            << readFile(directory / "machine.state" / "driver" / "state.json");
        EXPECT_EQ(cacheFiles(directory), std::vector<std::string>{});
        EXPECT_EQ(agentHolds(), std::vector<std::string>{});
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

// The provider opens the first snapshot volume itself at dispose; its open of
// the second fails, so it retrieves the agent's handle and duplicates it out
// of the agent's process.
TEST_F(SnapshotEndToEndTest, TwoVolumesThroughEveryEntryPoint) {
    startAgent();
    startHost();
    host::Status taken = take({"C:", "F:"});
    ASSERT_TRUE(taken.isOk()) << taken.toString();

    ASSERT_EQ(run_->volumes().size(), 2u);
    for (const host::SnapshotVolume& volume : run_->volumes()) {
        SCOPED_TRACE(volume.source);
        EXPECT_TRUE(volume.objectName.starts_with("<kiv>\\\\?\\Volume{")) << volume.objectName;
        EXPECT_FALSE(volume.snapshotName.empty());
        EXPECT_TRUE(volume.cacheFile.starts_with("E:\\_tarnKivCacheFile_")) << volume.cacheFile;
        EXPECT_GT(volume.maximumCacheMb, 0u);
    }
    EXPECT_NE(run_->volumes()[0].snapshotName, run_->volumes()[1].snapshotName);
    EXPECT_NE(run_->volumes()[0].cacheFile, run_->volumes()[1].cacheFile);
    // While the snapshot exists the driver, the volumes and the agent all show it.
    EXPECT_EQ(driverSets(machine_.directory()), 1u);
    EXPECT_EQ(cacheFiles(machine_.directory()).size(), 2u);
    std::vector<std::string> held = agentHolds();
    std::sort(held.begin(), held.end());
    std::vector<std::string> made = snapshotNames();
    std::sort(made.begin(), made.end());
    EXPECT_EQ(held, made);

    sim::injectFault("KIV_Open", 5 /*ERROR_ACCESS_DENIED*/, /*skip=*/1, /*count=*/1);
    disposeAndExpectNothingLeft();
    EXPECT_EQ(exchanges(), (std::vector<std::string>{"register 0", "register 0", "release 0",
                                                     "retrieve 0", "release 0"}));
    EXPECT_EQ(waits(WaitReason::kAfterAgentAnswer).size(), 5u);
}

// The agent answers busy three times at registration, the driver answers
// "access denied" three times at destroy: each costs three waits and retries.
TEST_F(SnapshotEndToEndTest, BusyAgentAndBusyDestroyAreRetried) {
    startAgent({"--busy", "3"});
    startHost();
    host::Status taken = take({"C:"});
    ASSERT_TRUE(taken.isOk()) << taken.toString();
    EXPECT_EQ(waits(WaitReason::kAgentBusy), (std::vector<std::string>{"1/30", "2/30", "3/30"}));
    sim::injectFault("KIV_Destroy", 5, 0, 3);
    disposeAndExpectNothingLeft();
    EXPECT_EQ(exchanges(), (std::vector<std::string>{"register 231", "register 231", "register 231",
                                                     "register 0", "release 0"}));
    EXPECT_EQ(waits(WaitReason::kDriverBusy),
              (std::vector<std::string>{"1/100", "2/100", "3/100"}));
}

TEST_F(SnapshotEndToEndTest, AgentAbsentIsReportedAndTheSnapshotStillGoes) {
    startHost();
    host::Status taken = take({"C:"});
    ASSERT_TRUE(taken.isOk()) << taken.toString();
    EXPECT_EQ(messagesContaining("could not be handed to the backup agent"), 1u)
        << "make did not report the failed registration";
    disposeAndExpectNothingLeft();
    // No pipe, no waits: each request fails at once with "file not found".
    EXPECT_EQ(exchanges(), (std::vector<std::string>{"register 2", "release 2"}));
    EXPECT_TRUE(waits(WaitReason::kAfterAgentAnswer).empty());
}

// The agent is killed while it holds the snapshot volumes: its handles go
// with it, release finds no pipe (reported), and the snapshot is destroyed
// all the same.
TEST_F(SnapshotEndToEndTest, AgentKilledBetweenMakeAndDisposeLeavesNothing) {
    startAgent();
    startHost();
    host::Status taken = take({"C:", "F:"});
    ASSERT_TRUE(taken.isOk()) << taken.toString();
    EXPECT_EQ(agentHolds().size(), 2u);
    const pid_t agent = agent_->pid();
    ASSERT_EQ(kill(agent, SIGKILL), 0);
    for (int tries = 0; tries < 500 && agent_->running(); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_FALSE(agent_->running());

    disposeAndExpectNothingLeft();
    EXPECT_EQ(exchanges(),
              (std::vector<std::string>{"register 0", "register 0", "release 2", "release 2"}));
    EXPECT_EQ(messagesContaining("ORB::ReleaseVolumeHandle"), 2u);
}

// A host that takes a snapshot of arguments[0], publishes its cache file (or
// "failed") in arguments[1] and disposes of it once arguments[2] exists.
FIKIV_CHILD_ROLE(hostKeepingUntilReleased) {
    host::HostContext context;
    host::PluginHost plugin;
    if (!plugin.load(FIKIV_PLUGIN_PATH).isOk()) {
        return 10;
    }
    tarn_version version{};
    plugin.init(context.context(), &version);
    host::SnapshotRun run(plugin, context, nullptr);
    host::SnapshotOptions options;
    options.volumes = {arguments.at(0)};
    host::Status taken = run.take(options);
    testsupport::publishFile(arguments.at(1), taken.isOk() ? run.volumes()[0].cacheFile : "failed");
    if (!taken.isOk()) {
        return 11;
    }
    if (!waitForFile(arguments.at(2))) {
        return 13;
    }
    return run.dispose().isOk() ? 0 : 12;
}

// Each host process counts cache file names from _tarnKivCacheFile_0 and
// only sees another's file once that one has prepared. While a first host
// holds its snapshot, a second host in this process and then fihost both
// pick the same name, their look for existing files made to fail: the
// driver refuses the host's prepare, and fihost prepares once more with the
// next name.
TEST_F(SnapshotEndToEndTest, TwoHostsPickingTheSameCacheFileNameTheDriverRefusesTheSecond) {
    startAgent();
    fs::path made = machine_.directory() / "first.made";
    fs::path release = machine_.directory() / "first.release";
    pid_t first = testsupport::startChild("hostKeepingUntilReleased",
                                          {"C:", made.string(), release.string()});
    ASSERT_TRUE(waitForFile(made)) << "the first host made no snapshot within a minute";
    std::string firstCache = readFile(made);

    sim::injectFault("FindFirstFileW", 2 /*ERROR_FILE_NOT_FOUND*/, 0, sim::kAlways);
    startHost();
    host::Status second = take({"F:"});
    sim::clearFaults();

    const std::string description = readFile(machine_.file());
    nlohmann::json faulty = nlohmann::json::parse(description);
    faulty["faults"] = {{{"function", "FindFirstFileW"}, {"error", 2}, {"count", "always"}}};
    std::ofstream(machine_.file()) << faulty.dump(2);
    CommandRun third = runCommand(std::string(FIHOST_PATH) + " snapshot F:" + agentOption());
    std::ofstream(machine_.file()) << description;
    testsupport::publishFile(release);
    EXPECT_EQ(testsupport::waitChild(first), 0);

    std::string refusal;
    for (const std::string& text : run_->failureTexts()) {
        refusal += "    " + text + "\n";
    }
    std::printf(
        "first host: snapshot of C: with cache file %s\n"
        "second host, same cache file name: %s\n%s",
        firstCache.c_str(), second.toString().c_str(), refusal.c_str());
    EXPECT_EQ(firstCache, "E:\\_tarnKivCacheFile_0.KIV");
    EXPECT_FALSE(second.isOk());
    EXPECT_NE(refusal.find("KIV_Prepare"), std::string::npos) << refusal;
    EXPECT_EQ(third.exitCode, 0) << third.output;
    EXPECT_NE(third.output.find("another snapshot took the cache file name "
                                "E:\\_tarnKivCacheFile_0.KIV at the same moment"),
              std::string::npos)
        << third.output;
    EXPECT_NE(third.output.find("E:\\_tarnKivCacheFile_1.KIV"), std::string::npos) << third.output;
    run_->deInit();
    expectNothingLeft();
    expectNoDescriptorLeft();
}

// fihost itself: starts an agent when none answers and stops it at the end;
// two of them at once on different volumes of one machine.
TEST_F(SnapshotEndToEndTest, TwoFihostProcessesAtOnce) {
    std::string plugin = std::string(" --plugin ") + FIKIV_PLUGIN_PATH;
    std::string agent = std::string(" --agent ") + KIVAGENT_PATH;
    // One agent for both, started by the first fihost, would be stopped while
    // the second still needs it: start one for the machine here.
    startAgent();
    std::optional<CommandRun> first;
    std::thread other([&] { first = runCommand(FIHOST_PATH + plugin + " snapshot C:" + agent); });
    // One of them answers in JSON: a snapshot disposed of without a word.
    CommandRun second = runCommand(FIHOST_PATH + plugin + " --json snapshot F:" + agent);
    other.join();
    std::printf("fihost snapshot C: exit %d\n%s\nfihost snapshot F: exit %d\n%s\n", first->exitCode,
                first->output.c_str(), second.exitCode, second.output.c_str());
    // When both picked _tarnKivCacheFile_0, the driver refused one prepare and
    // that fihost prepared once more with the next name.
    EXPECT_EQ(first->exitCode, 0) << first->output;
    EXPECT_EQ(second.exitCode, 0) << second.output;
    expectNothingLeft();
}

TEST_F(SnapshotEndToEndTest, FihostStartsAndStopsAnAgentWhenNoneAnswers) {
    std::string command = std::string(FIHOST_PATH) + " --plugin " + FIKIV_PLUGIN_PATH +
                          " snapshot C: --agent " + KIVAGENT_PATH + " --exclude F: --cache-dir kiv";
    CommandRun run = runCommand(command);
    EXPECT_EQ(run.exitCode, 0) << run.output;
    for (const char* shown :
         {"no backup agent answers; starting", "make: ", "backup agent: register ",
          "\\kiv\\_tarnKivCacheFile_0.KIV", "disposed 1 snapshot volume",
          "stopped the backup agent it started"}) {
        EXPECT_NE(run.output.find(shown), std::string::npos) << shown << "\n" << run.output;
    }
    EXPECT_FALSE(kivagent::readAgentStatus(machine_.directory() / "machine.state").running)
        << "the agent fihost started still runs";
    expectNothingLeft();
}

// fihost with --json: the document on stdout, stderr dropped.
nlohmann::json fihostJson(const std::string& arguments) {
    CommandRun run =
        runCommand("{ " + std::string(FIHOST_PATH) + " --json " + arguments + " 2>/dev/null; }");
    return nlohmann::json::parse(run.output, nullptr, false);
}

// The plan places the caches where the snapshot then puts them; list shows
// the kept snapshots and delete --all disposes of them.
TEST_F(SnapshotEndToEndTest, FihostPlanKeepListDeleteAllLeavesNothing) {
    startAgent();
    nlohmann::json plan = fihostJson("plan C: F: --cache-dir kiv\\\\cow");
    nlohmann::json kept =
        fihostJson("snapshot C: F: --keep --cache-dir kiv\\\\cow" + agentOption());
    ASSERT_EQ(plan["exitCode"], 0) << plan.dump(2);
    ASSERT_EQ(kept["exitCode"], 0) << kept.dump(2);
    ASSERT_EQ(plan["result"]["cacheFiles"].size(), 2u);
    ASSERT_EQ(kept["result"]["volumes"].size(), 2u);
    EXPECT_EQ(plan["result"]["cacheFiles"][0]["cacheFile"],
              "E:\\kiv\\cow\\_tarnKivCacheFile_0.KIV");

    nlohmann::json listed = fihostJson("list");
    ASSERT_EQ(listed["result"]["snapshots"].size(), 2u) << listed.dump(2);
    for (std::size_t i = 0; i < 2; ++i) {
        const nlohmann::json& snapshot = listed["result"]["snapshots"][i];
        const nlohmann::json& volume = kept["result"]["volumes"][i];
        SCOPED_TRACE(snapshot.dump());
        EXPECT_EQ(plan["result"]["cacheFiles"][i]["cacheFile"], volume["cacheFile"]);
        EXPECT_EQ(plan["result"]["cacheFiles"][i]["maximumMb"], volume["maximumMb"]);
        EXPECT_EQ(snapshot["source"], i == 0 ? "C:" : "F:");
        EXPECT_EQ(snapshot["snapshotVolume"], volume["snapshotVolume"]);
        EXPECT_EQ(snapshot["cacheFile"], volume["cacheFile"]);
        EXPECT_EQ(snapshot["agentHolds"], true);
        EXPECT_TRUE(fs::is_directory(snapshot["content"].get<std::string>()));
    }
    CommandRun deleted = runCommand(std::string(FIHOST_PATH) + " delete --all");
    EXPECT_EQ(deleted.exitCode, 0) << deleted.output;
    EXPECT_EQ(fihostJson("list")["result"]["snapshots"].size(), 0u);
    expectNothingLeft();
}

TEST_F(SnapshotEndToEndTest, ExecSeesThePointInTimeContentWhileTheSourceChanges) {
    startAgent();
    const fs::path volumeC = machine_.directory() / "machine.state" / "volumes" /
                             "{00000000-0000-0000-0000-000000000001}";
    fs::create_directories(volumeC);
    std::ofstream(volumeC / "report.txt") << "before\n";
    const fs::path seen = machine_.directory() / "seen.txt";
    const fs::path script = machine_.directory() / "backup.sh";
    std::ofstream(script) << "echo after > '" << (volumeC / "report.txt").string() << "'\n"
                          << "cat \"$FIKIV_SNAPSHOT_1_PATH/report.txt\" > '" << seen.string()
                          << "'\n"
                          << "echo \"$FIKIV_SNAPSHOT_COUNT $FIKIV_SNAPSHOT_1_SOURCE "
                             "$FIKIV_SNAPSHOT_2_SOURCE\" >> '"
                          << seen.string() << "'\n"
                          << "exit 7\n";
    CommandRun run = runCommand(std::string(FIHOST_PATH) + " snapshot C: F:" + agentOption() +
                                " --exec 'sh " + script.string() + "'");
    EXPECT_EQ(run.exitCode, 7) << run.output;
    EXPECT_EQ(readFile(seen), "before\n2 C: F:\n");
    EXPECT_EQ(readFile(volumeC / "report.txt"), "after\n");
    EXPECT_NE(run.output.find("the command exited with status 7"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("disposed 2 snapshot volumes"), std::string::npos) << run.output;

    CommandRun missing = runCommand(std::string(FIHOST_PATH) + " snapshot C:" + agentOption() +
                                    " --exec no-such-command-anywhere");
    EXPECT_EQ(missing.exitCode, 127) << missing.output;
    EXPECT_NE(missing.output.find("the command was not found"), std::string::npos)
        << missing.output;
    expectNothingLeft();
}

// Takes the provider mutex and ends without releasing it, or holds it until
// the file arguments.at(0) appears.
FIKIV_CHILD_ROLE(providerMutexOwner) {
    os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
    if (mutex == nullptr || os::WaitForSingleObject(mutex, 0) != os::WAIT_OBJECT_0) {
        return 10;
    }
    std::ofstream(arguments.at(1)) << "held";
    while (arguments.at(0) != "abandon" && !fs::exists(arguments.at(0))) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return 0;
}

// An abandoned provider mutex and one held too long read differently: the
// first is released and the plan goes on, the second fails after the wait.
TEST_F(SnapshotEndToEndTest, PlanTellsAnAbandonedProviderMutexFromAHeldOne) {
    const fs::path held = machine_.directory() / "mutex.held";
    // The mutex outlives its owner only while another process has it open.
    os::HANDLE keepOpen = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
    ASSERT_NE(keepOpen, nullptr);
    EXPECT_EQ(testsupport::waitChild(
                  testsupport::startChild("providerMutexOwner", {"abandon", held.string()})),
              0);
    CommandRun abandoned = runCommand(std::string(FIHOST_PATH) + " plan C:");
    EXPECT_EQ(abandoned.exitCode, 0) << abandoned.output;
    EXPECT_NE(abandoned.output.find("abandoned by a process that ended while placing cache files; "
                                    "fihost released it"),
              std::string::npos)
        << abandoned.output;

    fs::remove(held);
    const fs::path release = machine_.directory() / "mutex.release";
    pid_t owner = testsupport::startChild("providerMutexOwner", {release.string(), held.string()});
    ASSERT_TRUE(waitForFile(held));
    CommandRun timedOut = runCommand(std::string(FIHOST_PATH) + " plan C:");
    std::ofstream(release) << "go";
    EXPECT_EQ(testsupport::waitChild(owner), 0);
    EXPECT_EQ(timedOut.exitCode, 1) << timedOut.output;
    EXPECT_NE(timedOut.output.find("stayed held by another process for 10 seconds"),
              std::string::npos)
        << timedOut.output;
    EXPECT_EQ(timedOut.output.find("abandoned"), std::string::npos) << timedOut.output;
    os::CloseHandle(keepOpen);
}

// The agent a kept snapshot was handed to runs on after fihost ends; agent
// stop ends it, the kept snapshot stays, and delete --all still disposes of it.
TEST_F(SnapshotEndToEndTest, FihostAgentStartStatusStopAroundAKeptSnapshot) {
    const std::string fihost = FIHOST_PATH;
    CommandRun started = runCommand(fihost + " agent start" + agentOption());
    EXPECT_EQ(started.exitCode, 0) << started.output;
    EXPECT_EQ(fihostJson("agent status")["result"]["running"], true);

    CommandRun kept = runCommand(fihost + " snapshot C: --keep" + agentOption());
    ASSERT_EQ(kept.exitCode, 0) << kept.output;
    EXPECT_EQ(kept.output.find("keeps running"), std::string::npos) << "it did not start this one";
    nlohmann::json status = fihostJson("agent status")["result"];
    ASSERT_EQ(status["holds"].size(), 1u) << status.dump();

    CommandRun stopped = runCommand(fihost + " agent stop");
    EXPECT_EQ(stopped.exitCode, 0) << stopped.output;
    EXPECT_NE(stopped.output.find("they still exist"), std::string::npos) << stopped.output;
    EXPECT_EQ(fihostJson("agent status")["result"]["running"], false);
    nlohmann::json listed = fihostJson("list")["result"]["snapshots"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["agentHolds"], false);

    CommandRun deleted = runCommand(fihost + " delete --all");
    EXPECT_EQ(deleted.exitCode, 0) << deleted.output;
    expectNothingLeft();
}

}  // namespace
