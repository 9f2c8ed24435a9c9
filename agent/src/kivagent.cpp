// kivagent: the backup agent. Serves the handle rendezvous pipe of the current
// machine, in the foreground or detached, and answers whether one runs.
//
// Exit codes: 0 success (for --status: an agent is running), 1 failure (for
// --status: none is running), 2 bad usage.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include "agent_files.h"
#include "agent_log.h"
#include "handle_table.h"
#include "kivagent/agent_state.h"
#include "os/process.h"
#include "pipe_server.h"
#include "request.h"
#include "sim/machine.h"
#include "sim/text.h"
#include "system_handles.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr auto kStopWait = std::chrono::seconds(10);

struct Options {
    bool daemon = false;
    bool status = false;
    bool stop = false;
    unsigned instances = 4;
    std::uint32_t busy = 0;
    std::vector<std::string> failures;
};

struct Failure {
    std::uint32_t code = 0;
    std::uint32_t status = 0;
    std::uint32_t count = kivagent::Faults::kEveryRequest;
};

bool parseNumber(std::string_view text, std::uint32_t* value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// "CODE:STATUS" or "CODE:STATUS:COUNT".
bool parseFailure(const std::string& text, Failure* failure) {
    std::size_t first = text.find(':');
    if (first == std::string::npos) {
        return false;
    }
    std::size_t second = text.find(':', first + 1);
    std::string_view all(text);
    if (!parseNumber(all.substr(0, first), &failure->code)) {
        return false;
    }
    if (second == std::string::npos) {
        return parseNumber(all.substr(first + 1), &failure->status);
    }
    return parseNumber(all.substr(first + 1, second - first - 1), &failure->status) &&
           parseNumber(all.substr(second + 1), &failure->count) && failure->count > 0;
}

std::string hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// Where a detached agent tells the starting process how its start went: one
// line "ok <pid>" or "error <message>". -1 in the foreground.
class StartReport {
  public:
    explicit StartReport(int fd) : fd_(fd) {}
    void failed(const std::string& message) {
        std::fprintf(stderr, "kivagent: %s\n", message.c_str());
        send("error " + message + "\n");
    }
    void serving() { send("ok " + std::to_string(getpid()) + "\n"); }

  private:
    void send(const std::string& text) {
        if (fd_ < 0) {
            return;
        }
        [[maybe_unused]] ssize_t ignored = write(fd_, text.data(), text.size());
        close(fd_);
        fd_ = -1;
    }
    int fd_;
};

const char* signalName(int signal) {
    return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "a signal";
}

int runAgent(const std::filesystem::path& state, const Options& options,
             const std::vector<Failure>& failures, StartReport report) {
    // Stop signals are taken by sigwait below, never by a serving thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    kivagent::AgentLock lock;
    pid_t other = 0;
    std::string error;
    switch (lock.acquire(state, &other, &error)) {
        case kivagent::AgentLock::Result::kAcquired:
            break;
        case kivagent::AgentLock::Result::kAlreadyRunning:
            report.failed("an agent is already running for this machine (pid " +
                          std::to_string(other) + ")");
            return kExitFailed;
        case kivagent::AgentLock::Result::kFailed:
        default:
            report.failed(error);
            return kExitFailed;
    }

    kivagent::AgentLog log;
    if (!log.openFile(kivagent::logFilePath(state), &error)) {
        log.write("logging to stderr only: " + error);
    }
    kivagent::SystemHandleOperations operations;
    kivagent::HandleTable table(operations);
    kivagent::Faults faults;
    faults.setBusy(options.busy);
    for (const Failure& failure : failures) {
        faults.setFailure(failure.code, failure.status, failure.count);
    }
    const pid_t self = getpid();
    kivagent::writeHeldFile(state, self, {});
    table.setChangeListener([&](const std::vector<kivagent::HeldHandle>& held) {
        if (!kivagent::writeHeldFile(state, self, held)) {
            log.write("cannot write " + kivagent::heldFilePath(state).string());
        }
    });

    kivagent::RequestContext context{table, os::GetCurrentProcessId(),
                                     static_cast<std::uint32_t>(getuid()), &faults};
    kivagent::PipeServer server(context, log);
    const std::string pipeName = sim::toUtf8(orbhandle::kPipeName);
    if (os::DWORD failed = server.start(options.instances); failed != 0) {
        kivagent::removeHeldFile(state);
        report.failed("cannot serve " + pipeName + ": error " + std::to_string(failed) +
                      (failed == 5 ? " (another process serves it)" : ""));
        return kExitFailed;
    }
    log.write("serving " + pipeName + " with " + std::to_string(options.instances) +
              " instances (pid " + std::to_string(self) + ")");
    if (options.busy > 0) {
        log.write("test option: the first " + std::to_string(options.busy) +
                  " exchanges are answered busy");
    }
    for (const Failure& failure : failures) {
        log.write("test option: " + std::string(orbhandle::requestName(failure.code)) +
                  " requests (code " + std::to_string(failure.code) + ") are answered " +
                  std::to_string(failure.status) +
                  (failure.count == kivagent::Faults::kEveryRequest
                       ? std::string()
                       : " the first " + std::to_string(failure.count) + " times"));
    }
    report.serving();

    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    log.write(std::string("stopping on ") + signalName(signal));
    server.stop();
    std::vector<kivagent::HeldHandle> held = table.held();
    for (const kivagent::HeldHandle& entry : held) {
        log.write("closing " + hex(entry.handle) + " held for \"" + sim::toUtf8(entry.volumeName) +
                  "\"");
    }
    std::size_t closed = table.closeAll();
    kivagent::removeHeldFile(state);
    log.write("stopped; closed " + std::to_string(closed) + " handles");
    return kExitOk;
}

// Detaches: the calling process returns once the agent serves the pipe (0) or
// has failed to start (1). Returns -1 in the detached agent, with `*reportFd`
// set to where it reports its start.
int detach(int* reportFd) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "kivagent: cannot detach: %s\n", std::strerror(errno));
        return kExitFailed;
    }
    std::fflush(nullptr);
    pid_t first = fork();
    if (first < 0) {
        std::fprintf(stderr, "kivagent: cannot detach: %s\n", std::strerror(errno));
        return kExitFailed;
    }
    if (first == 0) {
        close(channel[0]);
        setsid();
        // A second fork leaves a process that no terminal or parent waits on.
        pid_t agent = fork();
        if (agent != 0) {
            _exit(agent < 0 ? kExitFailed : kExitOk);
        }
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            if (null > STDERR_FILENO) {
                close(null);
            }
        }
        *reportFd = channel[1];
        return -1;
    }
    close(channel[1]);
    int status = 0;
    waitpid(first, &status, 0);
    std::string answer;
    char buffer[256];
    for (;;) {
        ssize_t got = read(channel[0], buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        answer.append(buffer, static_cast<std::size_t>(got));
    }
    close(channel[0]);
    if (answer.starts_with("ok ")) {
        std::printf("kivagent: serving %s (pid %d)\n", sim::toUtf8(orbhandle::kPipeName).c_str(),
                    std::atoi(answer.c_str() + 3));
        return kExitOk;
    }
    if (answer.starts_with("error ")) {
        std::fprintf(stderr, "kivagent: %s", answer.substr(6).c_str());
    } else {
        std::fprintf(stderr, "kivagent: the agent ended before it served the pipe\n");
    }
    return kExitFailed;
}

int showStatus(const std::filesystem::path& state) {
    kivagent::AgentStatus status = kivagent::readAgentStatus(state);
    if (!status.running) {
        std::printf("kivagent: not running\n");
        return kExitFailed;
    }
    std::printf("kivagent: running (pid %d), holding %zu handle%s\n",
                static_cast<int>(status.processId), status.held.size(),
                status.held.size() == 1 ? "" : "s");
    for (const kivagent::HeldVolume& volume : status.held) {
        std::printf("  %s  handle %s, registered by pid %u\n", volume.volumeName.c_str(),
                    hex(volume.handle).c_str(), volume.registeredBy);
    }
    return kExitOk;
}

int stopAgent(const std::filesystem::path& state) {
    kivagent::AgentStatus status = kivagent::readAgentStatus(state);
    if (!status.running || status.processId <= 0) {
        std::fprintf(stderr, "kivagent: no agent is running\n");
        return kExitFailed;
    }
    if (kill(status.processId, SIGTERM) != 0) {
        std::fprintf(stderr, "kivagent: cannot stop pid %d: %s\n",
                     static_cast<int>(status.processId), std::strerror(errno));
        return kExitFailed;
    }
    auto deadline = std::chrono::steady_clock::now() + kStopWait;
    while (kivagent::readAgentStatus(state).running) {
        if (std::chrono::steady_clock::now() >= deadline) {
            std::fprintf(stderr, "kivagent: the agent (pid %d) did not stop within %lld s\n",
                         static_cast<int>(status.processId),
                         static_cast<long long>(kStopWait.count()));
            return kExitFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::printf("kivagent: stopped the agent (pid %d)\n", static_cast<int>(status.processId));
    return kExitOk;
}

int agentMain(int argc, char** argv) {
    CLI::App app{
        "The backup agent: serves \\\\.\\Pipe\\ORBHandleRendevous on the current machine and "
        "holds the snapshot volume handles that providers register with it"};
    app.footer(
        "Exit status: 0 success (--status: an agent is running), 1 failure (--status: none is "
        "running), 2 bad usage.\nThe machine is the one FIKIV_MACHINE names (or the default "
        "machine); the agent's pid file, held names and log are in its state directory, under "
        "agent/.");
    Options options;
    auto* daemon =
        app.add_flag("--daemon", options.daemon, "Detach and return once the pipe is served");
    auto* status = app.add_flag("--status", options.status,
                                "Say whether an agent runs and which names it holds");
    auto* stop = app.add_flag("--stop", options.stop, "Stop the running agent and wait for it");
    auto* instances =
        app.add_option("--instances", options.instances, "Clients served at once (pipe instances)")
            ->check(CLI::Range(1u, 16u))
            ->capture_default_str();
    auto* busy =
        app.add_option("--busy", options.busy,
                       "Test: answer the first N exchanges as if the pipe were busy (231)");
    auto* fail = app.add_option("--fail", options.failures,
                                "Test: answer STATUS to requests with CODE (2 register, 3 "
                                "retrieve, 4 release), every time or the first COUNT times")
                     ->type_name("CODE:STATUS[:COUNT]");
    status->excludes(daemon, stop, instances, busy, fail);
    stop->excludes(daemon, status, instances, busy, fail);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        int code = app.exit(error);
        return code == 0 ? kExitOk : kExitUsage;
    }
    std::vector<Failure> failures;
    for (const std::string& text : options.failures) {
        Failure failure;
        if (!parseFailure(text, &failure)) {
            std::fprintf(stderr,
                         "kivagent: --fail wants CODE:STATUS or CODE:STATUS:COUNT with numbers, "
                         "not \"%s\"\n",
                         text.c_str());
            return kExitUsage;
        }
        failures.push_back(failure);
    }

    std::string error;
    const sim::Machine* machine = sim::Machine::currentOrNull(&error);
    if (machine == nullptr) {
        std::fprintf(stderr, "kivagent: cannot load the machine: %s\n", error.c_str());
        return kExitFailed;
    }
    const std::filesystem::path state = machine->stateDirectory();
    if (options.status) {
        return showStatus(state);
    }
    if (options.stop) {
        return stopAgent(state);
    }
    int reportFd = -1;
    if (options.daemon) {
        if (int exitCode = detach(&reportFd); exitCode >= 0) {
            return exitCode;
        }
    }
    return runAgent(state, options, failures, StartReport(reportFd));
}

}  // namespace

int main(int argc, char** argv) {
    // An unexpected failure (memory, a file of the state directory) ends the
    // agent with a message and the failure status, its objects unwound,
    // rather than through std::terminate.
    try {
        return agentMain(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kivagent: stopped by an unexpected failure: %s\n", failure.what());
    } catch (...) {
        std::fprintf(stderr, "kivagent: stopped by an unexpected failure\n");
    }
    return kExitFailed;
}
