// The kivagent program serving other processes: malformed requests answered
// while it keeps serving, a handle registered by one process and taken back by
// another, the test options, SIGTERM, a second agent refused, --status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
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

std::vector<unsigned char> makeRequest(std::uint32_t code, const std::u16string& name,
                                       os::DWORD pid = static_cast<os::DWORD>(getpid())) {
    return requestBytes(code, pid, 0, name);
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

struct CommandResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr
};

CommandResult runAgentCommand(const std::string& arguments) {
    CommandResult result;
    std::string command = std::string(KIVAGENT_PATH) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 512> buffer;
    while (std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        result.output.append(buffer.data(), got);
    }
    int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string readText(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

// Waits for a condition that another process brings about. The generous limit
// only keeps a broken agent from hanging the test; no test depends on how long
// this takes.
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

// Becomes user and group 65534, then sends a well-formed release request;
// exits with the status it was answered (or 100 when it could not switch).
FIKIV_CHILD_ROLE(foreignUserRelease) {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
        return 100;
    }
    return static_cast<int>(
        exchange(orbhandle::kReleaseVolumeHandle, testsupport::utf16(arguments.at(0))).status() &
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
    std::string agentLog() const { return readText(kivagent::logFilePath(state())); }
    std::size_t heldCount() const { return kivagent::readAgentStatus(state()).held.size(); }

    // Starts a detached agent; it serves when this returns.
    pid_t startDaemon(const std::string& arguments = "") {
        CommandResult started = runAgentCommand("--daemon " + arguments);
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

TEST_F(AgentProcessTest, MalformedRequestsAreAnsweredAndTheAgentKeepsServing) {
    startDaemon();
    const std::u16string name = u"\\\\?\\Snap1:";
    std::vector<unsigned char> shorter = makeRequest(orbhandle::kRetrieveHandle, name);
    shorter.resize(100);
    std::vector<unsigned char> longer = makeRequest(orbhandle::kRetrieveHandle, name);
    longer.resize(5000, 0x41);
    struct Row {
        const char* label;
        std::vector<unsigned char> message;
        os::DWORD status;
    };
    // clang-format off
    const Row rows[] = {
        {"short", shorter, os::ERROR_BAD_LENGTH},
        {"long", longer, os::ERROR_BAD_LENGTH},
        {"empty", {}, os::ERROR_BAD_LENGTH},
        {"unknown code", makeRequest(7, name), os::ERROR_INVALID_FUNCTION},
        {"unterminated name", makeRequest(orbhandle::kRetrieveHandle, std::u16string(300, u'v')), os::ERROR_INVALID_NAME},
        {"another process's id", makeRequest(orbhandle::kReleaseVolumeHandle, name, getpid() + 1), os::ERROR_ACCESS_DENIED},
        {"unknown name", makeRequest(orbhandle::kReleaseVolumeHandle, name), os::ERROR_FILE_NOT_FOUND},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        AgentExchange answered = sendMessage(row.message);
        ASSERT_TRUE(answered.ok) << "pipe error " << answered.error;
        EXPECT_EQ(answered.reply.status, row.status);
        EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, name).status(), os::ERROR_FILE_NOT_FOUND)
            << "still serving";
    }
    const std::string log = agentLog();
    for (const char* logged :
         {"status 24: request of 100 bytes, not 536", "status 24: request of 5000 bytes",
          "code 7 unknown", "status 123: volume name not terminated",
          "status 5: request names process", "code 4 release name \"\\\\?\\Snap1:\" status 2"}) {
        EXPECT_NE(log.find(logged), std::string::npos) << logged << "\n" << log;
    }
}

TEST_F(AgentProcessTest, ForeignUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a client as another user";
    }
    startDaemon();
    // Let user 65534 reach the pipe's socket.
    for (const fs::path& path : {machine_.directory(), state(), state() / "pipes"}) {
        chmod(path.c_str(), 0755);
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(state() / "pipes")) {
        chmod(entry.path().c_str(), 0777);
    }
    pid_t client = testsupport::startChild("foreignUserRelease", {"\\\\?\\Snap1:"});
    EXPECT_EQ(testsupport::waitChild(client), static_cast<int>(os::ERROR_ACCESS_DENIED));
    EXPECT_NE(agentLog().find("status 5: caller runs as user 65534"), std::string::npos)
        << agentLog();
    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"\\\\?\\Snap1:").status(),
              os::ERROR_FILE_NOT_FOUND)
        << "still serving";
}

TEST_F(AgentProcessTest, HandleRegisteredByOneProcessIsTakenBackByAnother) {
    pid_t agent = startDaemon();
    fs::path file = makeFile("volume.img");
    const std::u16string name = u"\\\\?\\Snap1:";

    pid_t registrar =
        testsupport::startChild("registerFile", {file.string(), testsupport::utf8(name)});
    ASSERT_EQ(testsupport::waitChild(registrar), 0) << "register answered an error";

    CommandResult status = runAgentCommand("--status");
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_NE(status.output.find(testsupport::utf8(name)), std::string::npos) << status.output;

    // The registering process is gone; the agent's own copy still leads to
    // the file.
    AgentExchange retrieved = exchange(orbhandle::kRetrieveHandle, name);
    ASSERT_EQ(retrieved.status(), 0u);
    EXPECT_EQ(retrieved.reply.processId, static_cast<os::DWORD>(agent));
    EXPECT_EQ(descriptorTarget(agent, retrieved.reply.handle), fs::canonical(file).string());

    EXPECT_EQ(exchange(orbhandle::kReleaseVolumeHandle, name).status(), 0u);
    EXPECT_NE(descriptorTarget(agent, retrieved.reply.handle), fs::canonical(file).string())
        << "release closes the agent's handle";
    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, name).status(), os::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(exchange(orbhandle::kReleaseVolumeHandle, name).status(), os::ERROR_FILE_NOT_FOUND);
    status = runAgentCommand("--status");
    EXPECT_NE(status.output.find("holding 0 handles"), std::string::npos) << status.output;
}

// --busy answers the first exchanges busy whatever they ask; --fail answers
// its status to one request code, every time or the first COUNT times.
TEST_F(AgentProcessTest, TestOptionsAnswerBusyAndInjectedStatuses) {
    startDaemon("--busy 3 --fail 3:5:2 --fail 4:31");
    fs::path file = makeFile("volume.img");
    const std::u16string name = u"\\\\?\\Snap1:";
    std::vector<os::DWORD> statuses;
    for (int i = 0; i < 4; ++i) {
        statuses.push_back(registerPath(file, name));
    }
    for (std::uint32_t code : {orbhandle::kRetrieveHandle, orbhandle::kRetrieveHandle,
                               orbhandle::kRetrieveHandle, orbhandle::kReleaseVolumeHandle}) {
        statuses.push_back(exchange(code, name).status());
    }
    EXPECT_EQ(statuses, (std::vector<os::DWORD>{231, 231, 231, 0, 5, 5, 0, 31}));
    EXPECT_EQ(heldCount(), 1u) << "one registration took, the failed release kept it";
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

        const std::string log = readText(errors);
        EXPECT_NE(log.find("held for \"\\\\?\\Snap1:\""), std::string::npos) << log;
        EXPECT_NE(log.find("held for \"\\\\?\\Snap2:\""), std::string::npos) << log;
        EXPECT_NE(log.find("stopped; closed 2 handles"), std::string::npos) << log;
        EXPECT_TRUE(agentLog().ends_with(log)) << "the log file has the same lines";
        EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"\\\\?\\Snap1:").status(),
                  os::ERROR_FILE_NOT_FOUND)
            << "the pipe is no longer served";
        EXPECT_FALSE(fs::exists(kivagent::pidFilePath(state())));
        EXPECT_FALSE(fs::exists(kivagent::heldFilePath(state())));
        EXPECT_FALSE(kivagent::readAgentStatus(state()).running);
    }
}

// One agent to a machine: a second is refused while the first runs, and one
// that was killed leaves nothing that blocks the next.
TEST_F(AgentProcessTest, OneAgentPerMachineAndADeadOneBlocksNothing) {
    pid_t first = startDaemon();
    for (const char* arguments : {"--daemon", ""}) {
        SCOPED_TRACE(arguments);
        CommandResult second = runAgentCommand(arguments);
        EXPECT_EQ(second.exitCode, 1);
        EXPECT_NE(second.output.find("an agent is already running for this machine (pid " +
                                     std::to_string(first) + ")"),
                  std::string::npos)
            << second.output;
    }
    EXPECT_EQ(kivagent::readAgentStatus(state()).processId, first);
    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"x").status(), os::ERROR_FILE_NOT_FOUND)
        << "the first still serves";

    ASSERT_EQ(kill(first, SIGKILL), 0);
    ASSERT_TRUE(eventually([first] { return kill(first, 0) != 0 && errno == ESRCH; }));
    EXPECT_TRUE(fs::exists(kivagent::pidFilePath(state()))) << "left behind by the killed agent";
    CommandResult status = runAgentCommand("--status");
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(status.output, "kivagent: not running\n");
    EXPECT_EQ(exchange(orbhandle::kRetrieveHandle, u"x").status(), os::ERROR_FILE_NOT_FOUND);

    pid_t next = startDaemon();
    EXPECT_NE(next, first);
    EXPECT_EQ(runAgentCommand("--stop").exitCode, 0);
    EXPECT_EQ(runAgentCommand("--stop").exitCode, 1) << "nothing left to stop";
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
        {"--status", 1, "kivagent: not running"},
        {"--stop", 1, "no agent is running"},
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
        CommandResult result = runAgentCommand(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.output;
        EXPECT_NE(result.output.find(row.shown), std::string::npos) << result.output;
    }
}

}  // namespace
