// The kivagent program serving other processes: a handle registered by one
// process and taken back by another, refusals only the socket shows, the test
// options, SIGTERM and SIGINT, a second agent refused, the command line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kivagent/agent_state.h"
#include "orbhandle/protocol.h"
#include "os/error.h"
#include "os/pipe.h"
#include "sim/handles.h"
#include "sim/machine.h"
#include "support/agent_client.h"
#include "support/child_process.h"
#include "support/shell.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"
#include "request_bytes.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using testsupport::TempMachine;

using testsupport::AgentExchange;

AgentExchange sendMessage(const std::vector<unsigned char>& message) {
    AgentExchange result;
    os::DWORD got = 0;
    result.ok =
        os::CallNamedPipeW(orbhandle::kPipeName, const_cast<unsigned char*>(message.data()),
                           static_cast<os::DWORD>(message.size()), &result.reply,
                           sizeof(result.reply), &got, os::NMPWAIT_WAIT_FOREVER) != os::FALSE;
    result.error = result.ok ? 0 : os::GetLastError();
    return result;
}

AgentExchange exchange(std::uint32_t code, const std::u16string& name, std::uint64_t handle = 0) {
    return testsupport::exchangeWithAgent(code, name, handle, os::NMPWAIT_WAIT_FOREVER);
}

// Registers a descriptor of `path` as `name`, then closes this process's
// descriptor: the agent's copy must outlive it. The answered status.
os::DWORD registerPath(const fs::path& path, const std::u16string& name) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return os::ERROR_FILE_NOT_FOUND;
    }
    auto handle = reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd));
    os::DWORD status = exchange(orbhandle::kRegisterVolumeHandle, name, handle).status();
    close(fd);
    return status;
}

testsupport::CommandRun runAgentCommand(const std::string& arguments) {
    return testsupport::runCommand(std::string(KIVAGENT_PATH) + " " + arguments + " 2>&1");
}

// Where descriptor handle `handle` of process `pid` leads, or "" when it is
// not open.
std::string descriptorTarget(pid_t pid, std::uint64_t handle) {
    int fd = sim::fdFromHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle)));
    std::error_code error;
    fs::path target =
        fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd), error);
    return error ? std::string() : target.string();
}

// Waits for what another process brings about; the limit only keeps a broken
// agent from hanging the test.
template <class Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 30000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// Registers `path` as `name` and exits: the agent's copy outlives it.
FIKIV_CHILD_ROLE(registerFile) {
    return static_cast<int>(registerPath(arguments.at(0), testsupport::utf16(arguments.at(1))) &
                            0xff);
}

class AgentProcessTest : public ::testing::Test {
  protected:
    void TearDown() override {
        if (kivagent::readAgentStatus(state()).running) {
            runAgentCommand("--stop");
        }
    }

    fs::path state() const { return sim::Machine::current().stateDirectory(); }
    std::string agentLog() const { return testsupport::readFile(kivagent::logFilePath(state())); }
    std::size_t heldCount() const { return kivagent::readAgentStatus(state()).held.size(); }

    // Starts a detached agent; it serves when this returns.
    pid_t startDaemon(const std::string& arguments = "") {
        testsupport::CommandRun started = runAgentCommand("--daemon " + arguments);
        EXPECT_EQ(started.exitCode, 0) << started.output;
        EXPECT_NE(started.output.find("kivagent: serving"), std::string::npos) << started.output;
        kivagent::AgentStatus status = kivagent::readAgentStatus(state());
        EXPECT_TRUE(status.running);
        return status.processId;
    }

    // Starts an agent in the foreground as a child of this process, its
    // stderr going to `stderrPath`, and waits until it serves.
    pid_t startForeground(const fs::path& stderrPath) {
        char* argv[] = {const_cast<char*>(KIVAGENT_PATH), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t agent = 0;
        EXPECT_EQ(posix_spawn(&agent, KIVAGENT_PATH, &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        // An empty message is answered (with an error) once the pipe is served.
        EXPECT_TRUE(eventually([] { return sendMessage({}).ok; }));
        return agent;
    }

    fs::path makeFile(const std::string& name, const std::string& content = "x") {
        fs::path path = machine_.directory() / name;
        std::ofstream(path) << content;
        return path;
    }

    TempMachine machine_{{{"volumes", {TempMachine::volume(1, {"C:\\"})}}}};
};

// A handle registered by a process that then ended is taken back by another.
// Request handling itself is tested in-process; over the pipe, a message
// longer than any request and a process id that is not the caller's (known
// only from the socket) are refused, and nothing held changes.
TEST_F(AgentProcessTest, HandleRegisteredByOneProcessIsTakenBackByAnother) {
    pid_t agent = startDaemon();
    fs::path file = makeFile("volume.img");
    const std::u16string name = u"\\\\?\\Snap1:";
    pid_t registrar =
        testsupport::startChild("registerFile", {file.string(), testsupport::utf8(name)});
    ASSERT_EQ(testsupport::waitChild(registrar), 0) << "register answered an error";

    const os::DWORD self = static_cast<os::DWORD>(getpid());
    std::vector<unsigned char> longer = requestBytes(orbhandle::kRetrieveHandle, self, 0, name);
    longer.resize(5000, 0x41);
    for (const auto& [message, expected] :
         {std::pair{longer, os::ERROR_BAD_LENGTH},
          std::pair{requestBytes(orbhandle::kReleaseVolumeHandle, self + 1, 0, name),
                    os::ERROR_ACCESS_DENIED}}) {
        AgentExchange answered = sendMessage(message);
        ASSERT_TRUE(answered.ok) << "pipe error " << answered.error;
        EXPECT_EQ(answered.reply.status, expected);
    }
    const std::string log = agentLog();
    for (const char* logged :
         {"status 24: request of 5000 bytes", "status 5: request names process"}) {
        EXPECT_NE(log.find(logged), std::string::npos) << logged << "\n" << log;
    }
    testsupport::CommandRun status = runAgentCommand("--status");
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_NE(status.output.find("holding 1 handle\n  " + testsupport::utf8(name)),
              std::string::npos)
        << status.output;

    // The agent's own copy still leads to the file.
    AgentExchange retrieved = exchange(orbhandle::kRetrieveHandle, name);
    ASSERT_EQ(retrieved.status(), 0u);
    EXPECT_EQ(retrieved.reply.processId, static_cast<os::DWORD>(agent));
    EXPECT_EQ(descriptorTarget(agent, retrieved.reply.handle), fs::canonical(file).string());

    EXPECT_EQ(exchange(orbhandle::kReleaseVolumeHandle, name).status(), 0u);
    EXPECT_NE(descriptorTarget(agent, retrieved.reply.handle), fs::canonical(file).string())
        << "release closes the agent's handle";
    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, name).status(), os::ERROR_FILE_NOT_FOUND);
    status = runAgentCommand("--status");
    EXPECT_NE(status.output.find("holding 0 handles"), std::string::npos) << status.output;
}

// --busy answers the first exchanges busy whatever they hold; --fail answers
// its status to its own code only, every time or the first COUNT times, and
// never to a request refused for what it is.
TEST_F(AgentProcessTest, TestOptionsAnswerBusyAndInjectedStatuses) {
    startDaemon("--busy 3 --fail 3:5:2 --fail 4:31");
    fs::path file = makeFile("volume.img");
    const std::u16string name = u"\\\\?\\Snap1:";
    std::vector<os::DWORD> statuses = {registerPath(file, name),
                                       sendMessage({1, 2, 3}).reply.status,
                                       registerPath(file, name), registerPath(file, name)};
    for (std::uint32_t code :
         {orbhandle::kRetrieveHandle, orbhandle::kRetrieveHandle, orbhandle::kRetrieveHandle,
          orbhandle::kReleaseVolumeHandle, orbhandle::kReleaseVolumeHandle}) {
        statuses.push_back(exchange(code, name).status());
    }
    const os::DWORD other = static_cast<os::DWORD>(getpid()) + 1;
    statuses.push_back(sendMessage(requestBytes(4, other, 0, name)).reply.status);
    EXPECT_EQ(statuses,
              (std::vector<os::DWORD>{231, 231, 231, 0, 5, 5, 0, 31, 31, os::ERROR_ACCESS_DENIED}));
    EXPECT_EQ(heldCount(), 1u) << "a failed release keeps the handle";
}

// A provider whose release does not reach the agent goes on to destroy the
// snapshot; the agent must not keep the dead volume's handle for ever.
TEST_F(AgentProcessTest, HandleToADeletedVolumeIsDroppedAtTheNextExchange) {
    startDaemon();
    fs::path gone = machine_.directory() / "snapshot-volume";
    fs::create_directory(gone);
    EXPECT_EQ(registerPath(gone, u"\\\\?\\Snap1:"), 0u);
    EXPECT_EQ(registerPath(makeFile("kept.img"), u"\\\\?\\Snap2:"), 0u);
    fs::remove(gone);
    ASSERT_EQ(heldCount(), 2u) << "nothing asked yet";

    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"\\\\?\\Snap1:").status(),
              os::ERROR_FILE_NOT_FOUND);
    std::vector<kivagent::HeldVolume> held = kivagent::readAgentStatus(state()).held;
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held[0].volumeName, "\\\\?\\Snap2:");
}

TEST_F(AgentProcessTest, StopSignalClosesEveryHandleAndStopsServing) {
    for (int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(signal));
        fs::path errors = machine_.directory() / "agent.stderr";
        pid_t agent = startForeground(errors);
        EXPECT_EQ(registerPath(makeFile("first.img"), u"\\\\?\\Snap1:"), 0u);
        EXPECT_EQ(registerPath(makeFile("second.img"), u"\\\\?\\Snap2:"), 0u);
        ASSERT_EQ(heldCount(), 2u);

        ASSERT_EQ(kill(agent, signal), 0);
        int status = 0;
        ASSERT_EQ(waitpid(agent, &status, 0), agent);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

        const std::string log = testsupport::readFile(errors);
        EXPECT_NE(log.find("held for \"\\\\?\\Snap1:\""), std::string::npos) << log;
        EXPECT_NE(log.find("held for \"\\\\?\\Snap2:\""), std::string::npos) << log;
        EXPECT_NE(log.find("stopped; closed 2 handles"), std::string::npos) << log;
        EXPECT_TRUE(agentLog().ends_with(log)) << "the log file has the same lines";
        EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"\\\\?\\Snap1:").status(),
                  os::ERROR_FILE_NOT_FOUND)
            << "the pipe is no longer served";
        EXPECT_FALSE(fs::exists(kivagent::pidFilePath(state())));
        EXPECT_FALSE(fs::exists(kivagent::heldFilePath(state())));
    }
}

// One agent to a machine: a second is refused while the first runs, and one
// that was killed leaves nothing that blocks the next.
TEST_F(AgentProcessTest, OneAgentPerMachineAndADeadOneBlocksNothing) {
    pid_t first = startDaemon();
    for (const char* arguments : {"--daemon", ""}) {
        SCOPED_TRACE(arguments);
        testsupport::CommandRun second = runAgentCommand(arguments);
        EXPECT_EQ(second.exitCode, 1);
        EXPECT_NE(second.output.find("an agent is already running for this machine (pid " +
                                     std::to_string(first) + ")"),
                  std::string::npos)
            << second.output;
    }
    EXPECT_EQ(kivagent::readAgentStatus(state()).processId, first);
    EXPECT_TRUE(exchange(orbhandle::kRetrieveHandle, u"x").ok) << "the first still serves";

    ASSERT_EQ(kill(first, SIGKILL), 0);
    ASSERT_TRUE(eventually([first] { return kill(first, 0) != 0 && errno == ESRCH; }));
    EXPECT_TRUE(fs::exists(kivagent::pidFilePath(state()))) << "left behind by the killed agent";
    testsupport::CommandRun status = runAgentCommand("--status");
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(status.output, "kivagent: not running\n");

    pid_t next = startDaemon();
    EXPECT_NE(next, first);
    EXPECT_EQ(runAgentCommand("--stop").exitCode, 0);
    testsupport::CommandRun again = runAgentCommand("--stop");
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.output.find("no agent is running"), std::string::npos) << again.output;
}

TEST_F(AgentProcessTest, CommandLine) {
    struct Row {
        const char* arguments;
        int exitCode;
        const char* shown;
    };
    // clang-format off
    const Row rows[] = {
        {"--help", 0, "--daemon"},
        {"--frobnicate", 2, "--frobnicate"},
        {"--status --daemon", 2, "excludes"},
        {"--busy many", 2, "--busy"},
        {"--instances 0", 2, "--instances"},
        {"--fail 3", 2, "CODE:STATUS"},
        {"--fail 3:x", 2, "CODE:STATUS"},
        {"--fail 3:5:0", 2, "CODE:STATUS"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments);
        testsupport::CommandRun result = runAgentCommand(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.output;
        EXPECT_NE(result.output.find(row.shown), std::string::npos) << result.output;
    }
}

}  // namespace
