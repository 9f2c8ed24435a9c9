#include "host/agent_process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "kivagent/agent_state.h"
#include "sim/machine.h"

extern char** environ;

namespace host {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(20);
constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kStopTimeout = std::chrono::seconds(10);

// Runs `program` with `arguments`, its output discarded, and answers its exit
// code; -1 when it could not be started or did not exit normally.
int runToEnd(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What the agent of this machine leaves in its state directory.
kivagent::AgentStatus agentStatus() {
    const sim::Machine* machine = sim::Machine::currentOrNull();
    if (machine == nullptr) {
        return {};
    }
    return kivagent::readAgentStatus(machine->stateDirectory());
}

bool alive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

}  // namespace

AgentProcess::AgentProcess(std::string program) : program_(std::move(program)) {}

AgentProcess::~AgentProcess() {
    (void)stop();
}

bool AgentProcess::running() const {
    return agentStatus().running;
}

Status AgentProcess::start(const std::vector<std::string>& arguments) {
    if (access(program_.c_str(), X_OK) != 0) {
        return Status::notFound("no backup agent program at " + program_);
    }
    std::vector<std::string> words{"--daemon"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    int exitCode = runToEnd(program_, words);
    if (exitCode != 0) {
        return Status::loadFailed(program_ + " --daemon exited with " + std::to_string(exitCode));
    }
    auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (kivagent::AgentStatus status = agentStatus(); status.running) {
            pid_ = status.processId;
            return Status::ok();
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    return Status::loadFailed("the backup agent started by " + program_ + " does not answer");
}

Status AgentProcess::stop() {
    if (pid_ <= 0) {
        return Status::ok();
    }
    pid_t pid = std::exchange(pid_, 0);
    if (kill(pid, SIGTERM) != 0 && errno == ESRCH) {
        return Status::ok();
    }
    auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
    while (alive(pid)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return Status::loadFailed("the backup agent " + std::to_string(pid) +
                                      " did not stop on SIGTERM");
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    return Status::ok();
}

Status AgentProcess::stopRunning() {
    kivagent::AgentStatus status = agentStatus();
    if (!status.running) {
        return Status::ok();
    }
    pid_ = status.processId;
    return stop();
}

std::string defaultAgentPath() {
    std::error_code error;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return "kivagent";
    }
    return (self.parent_path() / "kivagent").string();
}

}  // namespace host
