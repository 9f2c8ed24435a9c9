#include "lifecycle.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/snapshot_run.h"
#include "sim/hooks.h"
#include "support/leftovers.h"
#include "support/temp_machine.h"

namespace robustness {
namespace {

using testsupport::TempMachine;

constexpr std::uint64_t kGiB = 1ull << 30;

// 0, or 3 invalid request, 4 not supported, 5 out of memory, 6 internal
// failure, 7 no version record.
bool isDocumentedStatus(std::int32_t status) {
    return status == 0 || (status >= 3 && status <= 7);
}

void noteStep(const char* what, const host::Status& status, nlohmann::json& report) {
    if (status.isOk()) {
        return;
    }
    report["failed"].push_back(std::string(what) + ": " + status.toString());
    if (status.code() == host::Status::Code::kPluginFailed &&
        !isDocumentedStatus(status.pluginStatus())) {
        report["problems"].push_back(std::string(what) + " answered status " +
                                     std::to_string(status.pluginStatus()) +
                                     ", which is no status of the plug-in");
    }
}

void noteNewDescriptors(const std::vector<std::string>& before,
                        const std::vector<std::string>& after, nlohmann::json& report) {
    std::multiset<std::string> left(after.begin(), after.end());
    for (const std::string& descriptor : before) {
        if (auto found = left.find(descriptor); found != left.end()) {
            left.erase(found);
        }
    }
    for (const std::string& descriptor : left) {
        report["problems"].push_back("the host kept a descriptor to " + descriptor);
    }
}

}  // namespace

std::string sourceDrive(int number) {
    // E: is the cache volume.
    char letter = static_cast<char>('C' + number - 1);
    if (letter >= 'E') {
        ++letter;
    }
    return std::string(1, letter) + ":";
}

namespace {

nlohmann::json machineWith(int sources) {
    nlohmann::json volumes = nlohmann::json::array();
    for (int number = 1; number <= sources; ++number) {
        std::string root = sourceDrive(number) + "\\";
        volumes.push_back(
            TempMachine::volume(number, {root.c_str()}, "fixed", "NTFS", 100 * kGiB, 40 * kGiB));
    }
    volumes.push_back(
        TempMachine::volume(sources + 1, {"E:\\"}, "fixed", "NTFS", 4000 * kGiB, 3000 * kGiB));
    return {{"volumes", volumes}};
}

}  // namespace

AgentMachine::AgentMachine(int sources) : machine_(machineWith(sources)) {}

bool AgentMachine::startAgent(const char* program) {
    agent_.emplace(KIVAGENT_PATH);
    host::Status started = agent_->start();
    if (!started.isOk()) {
        std::cerr << program << ": the agent did not start: " << started.toString() << "\n";
    }
    return started.isOk();
}

bool AgentMachine::reset(const char* program) {
    agent_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory() / "machine.state", ignored);
    for (const std::string& file : testsupport::cacheFiles(directory())) {
        std::filesystem::remove(file, ignored);
    }
    return startAgent(program);
}

nlohmann::json runLifecycle(const LifecycleOptions& options,
                            const std::vector<std::string>& counted) {
    nlohmann::json report = {{"failed", nlohmann::json::array()},
                             {"problems", nlohmann::json::array()},
                             {"messages", nlohmann::json::array()},
                             {"retried", false}};
    std::vector<std::string> descriptorsBefore = testsupport::openDescriptors();
    sim::useVirtualClock(options.virtualClock);
    sim::clearFaults();
    if (options.beforeLoad) {
        options.beforeLoad();
    }
    {
        host::HostContext context;
        host::PluginHost plugin;
        host::Status loaded = plugin.load(FIKIV_PLUGIN_PATH);
        if (!loaded.isOk()) {
            report["problems"].push_back("the plug-in did not load: " + loaded.toString());
            return report;
        }
        tarn_version version{};
        if (std::int32_t status = plugin.init(context.context(), &version); status != 0) {
            report["problems"].push_back("init answered " + std::to_string(status));
        }
        {
            host::SnapshotRun run(plugin, context, options.progress);
            host::SnapshotOptions snapshot;
            snapshot.volumes = options.volumes;
            host::Status taken = run.take(snapshot);
            noteStep("take", taken, report);
            if (taken.isOk()) {
                if (options.afterTake) {
                    options.afterTake();
                }
                host::Status disposed = run.dispose();
                noteStep("dispose", disposed, report);
                if (!disposed.isOk() && options.retryDispose) {
                    sim::clearFaults();
                    report["retried"] = true;
                    noteStep("second dispose", run.dispose(), report);
                }
            }
            for (const std::string& text : run.failureTexts()) {
                report["messages"].push_back(text);
            }
            run.deInit();
        }
        plugin.fini();
        nlohmann::json calls = nlohmann::json::object();
        for (const std::string& function : counted) {
            calls[function] = sim::callCount(function);
        }
        report["calls"] = calls;
        plugin.unload();
    }
    if (!options.descriptorsMayLeak) {
        noteNewDescriptors(descriptorsBefore, testsupport::openDescriptors(), report);
    }
    return report;
}

Child::Child(const std::function<nlohmann::json()>& body, unsigned seconds) : seconds_(seconds) {
    int channel[2];
    if (pipe(channel) != 0) {
        error_ = std::string("pipe: ") + std::strerror(errno);
        return;
    }
    std::cout.flush();
    std::cerr.flush();
    pid_ = fork();
    if (pid_ < 0) {
        error_ = std::string("fork: ") + std::strerror(errno);
        close(channel[0]);
        close(channel[1]);
        return;
    }
    if (pid_ == 0) {
        close(channel[0]);
        alarm(seconds);
        std::string text = body().dump() + "\n";
        for (std::size_t written = 0; written < text.size();) {
            ssize_t n = write(channel[1], text.data() + written, text.size() - written);
            if (n <= 0) {
                break;
            }
            written += static_cast<std::size_t>(n);
        }
        // No destructors of the parent's objects (its agent, its machine).
        _exit(0);
    }
    // Closed at once, so that children forked later do not hold it open.
    close(channel[1]);
    report_ = channel[0];
}

Child::~Child() {
    if (pid_ > 0) {
        wait();
    }
}

ChildResult Child::wait() {
    ChildResult result;
    if (pid_ < 0) {
        result.ending = error_;
        return result;
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(report_, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    close(report_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    if (WIFSIGNALED(status)) {
        int signal = WTERMSIG(status);
        result.ending = signal == SIGALRM
                            ? "hung (no end within " + std::to_string(seconds_) + " s)"
                            : std::string("crashed: ") + strsignal(signal);
        return result;
    }
    if (WEXITSTATUS(status) != 0) {
        result.ending = "exited with " + std::to_string(WEXITSTATUS(status));
        return result;
    }
    nlohmann::json report = nlohmann::json::parse(text, nullptr, false);
    if (report.is_discarded()) {
        result.ending = "gave no report";
        return result;
    }
    result.report = std::move(report);
    return result;
}

bool readCounts(int argc, char** argv, const std::vector<std::pair<std::string, int*>>& options,
                const std::string& usage) {
    for (int i = 1; i < argc; i += 2) {
        auto option = std::find_if(options.begin(), options.end(),
                                   [&](const auto& entry) { return entry.first == argv[i]; });
        char* end = nullptr;
        long value = i + 1 < argc ? std::strtol(argv[i + 1], &end, 10) : -1;
        if (option == options.end() || end == nullptr || *end != '\0' || value < 0) {
            std::cerr << "usage: " << usage << "\n";
            return false;
        }
        *option->second = static_cast<int>(value);
    }
    return true;
}

ChildResult runInChild(const std::function<nlohmann::json()>& body, unsigned seconds) {
    return Child(body, seconds).wait();
}

ChildResult lifecycleInChild(const LifecycleOptions& options,
                             const std::vector<std::string>& counted) {
    // A lifecycle on the virtual clock takes well under a second, on the
    // real one about a second per volume.
    return runInChild([&options, &counted] { return runLifecycle(options, counted); }, 60);
}

bool ChildResult::completed() const {
    return report.has_value() && (*report)["failed"].empty() && (*report)["problems"].empty();
}

std::string ChildResult::outcome() const {
    if (!report.has_value()) {
        return "no report: " + ending;
    }
    if (!(*report)["problems"].empty()) {
        return "problem: " + (*report)["problems"][0].get<std::string>();
    }
    if ((*report)["failed"].empty()) {
        return "snapshot taken and disposed";
    }
    std::string text = (*report)["failed"][0].get<std::string>();
    if (!(*report)["messages"].empty()) {
        text += " / " + (*report)["messages"].back().get<std::string>();
    }
    return text;
}

}  // namespace robustness
