// fihost snapshot and fihost delete: a whole snapshot of volumes through the
// plug-in's entry points, as the framework takes one, with a backup agent to
// hand the snapshot volumes to; and the disposal of snapshot volumes that an
// earlier snapshot --keep left behind.
//
// Progress and the plug-in's warnings go to stderr, one line per step, with a
// live count while the plug-in waits for the agent; the snapshot volumes,
// their cache files and sizes go to stdout.
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "host/agent_process.h"
#include "host/snapshot_run.h"
#include "session.h"

namespace fihost {
namespace {

constexpr std::uint32_t kPipeBusy = 231;
constexpr std::uint32_t kPipeMissing = 2;

// Prints progress events on stderr. On a terminal the wait counts overwrite
// each other on one line; elsewhere each is a line of its own.
class ProgressPrinter {
  public:
    ProgressPrinter() : live_(isatty(STDERR_FILENO) != 0) {}

    void operator()(const host::ProgressEvent& event) {
        using Kind = host::ProgressEvent::Kind;
        switch (event.kind) {
            case Kind::kStep:
                line(std::string(host::stepName(event.step)) +
                     (event.text.empty() ? "" : ": " + event.text));
                break;
            case Kind::kDetail:
                line("  " + event.text);
                break;
            case Kind::kMessage:
                line("  provider: " + event.text);
                break;
            case Kind::kAgentExchange:
                exchange(event);
                break;
            default:
                wait(event);
                break;
        }
    }

    // Ends a pending live line.
    void finish() {
        if (pending_) {
            std::cerr << "\n";
            pending_ = false;
        }
    }

  private:
    void line(const std::string& text) {
        finish();
        std::cerr << text << "\n";
    }

    void liveLine(const std::string& text) {
        if (!live_) {
            line(text);
            return;
        }
        std::cerr << "\r\033[K" << text << std::flush;
        pending_ = true;
    }

    void exchange(const host::ProgressEvent& event) {
        if (event.status == kPipeBusy) {
            // Shown through the wait count that follows.
            return;
        }
        std::string outcome = event.status == 0 ? "done"
                              : event.status == kPipeMissing
                                  ? "no backup agent answers (status 2)"
                                  : "status " + std::to_string(event.status);
        line("  backup agent: " + event.request + " " + event.volume + ": " + outcome);
    }

    void wait(const host::ProgressEvent& event) {
        switch (event.reason) {
            case host::WaitReason::kAgentBusy:
                if (event.count > event.budget) {
                    liveLine("  the backup agent stayed busy through " +
                             std::to_string(event.budget) + " retries");
                } else {
                    liveLine("  waiting for the backup agent, " + std::to_string(event.count) +
                             "/" + std::to_string(event.budget));
                }
                break;
            case host::WaitReason::kDriverBusy:
                liveLine("  waiting for the driver to destroy the snapshot, " +
                         std::to_string(event.count) + "/" + std::to_string(event.budget));
                break;
            default:
                // The pause after every answer is the provider's rule, not news.
                break;
        }
    }

    bool live_;
    bool pending_ = false;
};

void printFailure(const char* command, const host::Status& status,
                  const std::vector<std::string>& texts) {
    std::cerr << "fihost " << command << ": " << status.toString() << "\n";
    for (const std::string& text : texts) {
        std::cerr << "  " << text << "\n";
    }
}

void printVolumes(const std::vector<host::SnapshotVolume>& volumes) {
    std::size_t sourceWidth = 6;
    std::size_t snapshotWidth = 15;
    std::size_t cacheWidth = 10;
    for (const host::SnapshotVolume& volume : volumes) {
        sourceWidth = std::max(sourceWidth, volume.source.size());
        snapshotWidth = std::max(snapshotWidth, volume.snapshotName.size());
        cacheWidth = std::max(cacheWidth, volume.cacheFile.size());
    }
    std::cout << std::left << std::setw(static_cast<int>(sourceWidth)) << "volume"
              << "  " << std::setw(static_cast<int>(snapshotWidth)) << "snapshot volume"
              << "  " << std::setw(static_cast<int>(cacheWidth)) << "cache file"
              << "  "
              << "initial MB  maximum MB\n";
    for (const host::SnapshotVolume& volume : volumes) {
        std::cout << std::left << std::setw(static_cast<int>(sourceWidth)) << volume.source << "  "
                  << std::setw(static_cast<int>(snapshotWidth))
                  << (volume.snapshotName.empty() ? "(none)" : volume.snapshotName) << "  "
                  << std::setw(static_cast<int>(cacheWidth)) << volume.cacheFile << "  "
                  << std::right << std::setw(10) << volume.initialCacheMb << "  " << std::setw(10)
                  << volume.maximumCacheMb << "\n";
    }
    std::cout << std::left;
}

// Makes sure an agent serves the machine; starts one when none does.
bool ensureAgent(host::AgentProcess& agent) {
    if (agent.running()) {
        return true;
    }
    std::cerr << "fihost: no backup agent answers; starting " << agent.program() << " --daemon\n";
    host::Status started = agent.start();
    if (!started.isOk()) {
        std::cerr << "fihost: " << started.toString() << "\n";
        return false;
    }
    std::cerr << "fihost: backup agent started, process " << agent.pid() << "\n";
    return true;
}

void stopAgent(host::AgentProcess& agent) {
    if (!agent.started()) {
        return;
    }
    pid_t pid = agent.pid();
    host::Status stopped = agent.stop();
    if (stopped.isOk()) {
        std::cerr << "fihost: stopped the backup agent it started, process " << pid << "\n";
    } else {
        std::cerr << "fihost: " << stopped.toString() << "\n";
    }
}

struct SnapshotCommandOptions {
    host::SnapshotOptions snapshot;
    bool keep = false;
    bool noAgent = false;
    std::string agentPath = host::defaultAgentPath();
};

int runSnapshot(const GlobalOptions& options, const SnapshotCommandOptions& command) {
    host::AgentProcess agent(command.agentPath);
    if (!command.noAgent && !ensureAgent(agent)) {
        return kExitFailed;
    }
    ProviderSession session(std::nullopt);
    if (!session.start(options)) {
        stopAgent(agent);
        return kExitFailed;
    }
    ProgressPrinter printer;
    int exitCode = kExitOk;
    {
        host::SnapshotRun run(session.plugin(), session.context(),
                              [&printer](const host::ProgressEvent& event) { printer(event); });
        host::Status taken = run.take(command.snapshot);
        printer.finish();
        if (!taken.isOk()) {
            printFailure("snapshot", taken, run.failureTexts());
            exitCode =
                taken.code() == host::Status::Code::kInvalidArgument ? kExitUsage : kExitFailed;
        } else {
            printVolumes(run.volumes());
            if (command.keep) {
                std::cout << "kept; dispose of them with: fihost delete";
                for (const host::SnapshotVolume& volume : run.volumes()) {
                    std::cout << " '" << volume.snapshotName << "'";
                }
                std::cout << "\n";
            } else {
                host::Status disposed = run.dispose();
                printer.finish();
                if (!disposed.isOk()) {
                    printFailure("snapshot", disposed, run.failureTexts());
                    exitCode = kExitFailed;
                } else {
                    std::cout << "disposed " << run.volumes().size() << " snapshot "
                              << (run.volumes().size() == 1 ? "volume" : "volumes") << "\n";
                }
            }
        }
        run.deInit();
        printer.finish();
    }
    stopAgent(agent);
    return exitCode;
}

struct DeleteCommandOptions {
    std::vector<std::string> names;
    bool noAgent = false;
    std::string agentPath = host::defaultAgentPath();
};

int runDelete(const GlobalOptions& options, const DeleteCommandOptions& command) {
    host::AgentProcess agent(command.agentPath);
    if (!command.noAgent && !ensureAgent(agent)) {
        return kExitFailed;
    }
    ProviderSession session(std::nullopt);
    if (!session.start(options)) {
        stopAgent(agent);
        return kExitFailed;
    }
    ProgressPrinter printer;
    int exitCode = kExitOk;
    {
        host::SnapshotRun run(session.plugin(), session.context(),
                              [&printer](const host::ProgressEvent& event) { printer(event); });
        host::Status adopted = run.adopt(command.names);
        host::Status disposed = run.dispose();
        printer.finish();
        for (const host::SnapshotVolume& volume : run.volumes()) {
            std::cout << volume.snapshotName << ": "
                      << (volume.disposed ? "disposed" : "not disposed") << "\n";
        }
        if (!adopted.isOk() || !disposed.isOk()) {
            printFailure("delete", adopted.isOk() ? disposed : adopted, run.failureTexts());
            exitCode = kExitFailed;
        }
        run.deInit();
        printer.finish();
    }
    stopAgent(agent);
    return exitCode;
}

void addAgentOptions(CLI::App& command, bool* noAgent, std::string* agentPath) {
    command.add_flag("--no-agent", *noAgent,
                     "Do not look for or start a backup agent (the plug-in then finds none or "
                     "the one already running)");
    command.add_option("--agent", *agentPath, "Path of the kivagent program")
        ->capture_default_str();
}

}  // namespace

CommandRun configureSnapshot(CLI::App& command) {
    auto options = std::make_shared<SnapshotCommandOptions>();
    command.add_option("volumes", options->snapshot.volumes, "Volumes to snapshot (C:, E:\\, ...)")
        ->required();
    command.add_flag("--keep", options->keep,
                     "Keep the snapshot volumes (delete them later with fihost delete)");
    command.add_option("--cache-volume", options->snapshot.cacheVolumes,
                       "A volume to place cache files on first (repeatable)");
    command.add_option("--exclude", options->snapshot.excludedVolumes,
                       "A volume never to place cache files on (repeatable)");
    command.add_option("--cache-dir", options->snapshot.cacheDirectory,
                       "Directory under the cache volume's root for the cache files");
    command
        .add_option("--quiesce-wait", options->snapshot.quiesceWait,
                    "Quiesce wait handed to the driver")
        ->capture_default_str();
    command
        .add_option("--quiesce-timeout", options->snapshot.quiesceTimeout,
                    "Quiesce timeout handed to the driver")
        ->capture_default_str();
    addAgentOptions(command, &options->noAgent, &options->agentPath);
    return [options](const GlobalOptions& global) { return runSnapshot(global, *options); };
}

CommandRun configureDelete(CLI::App& command) {
    auto options = std::make_shared<DeleteCommandOptions>();
    command
        .add_option("names", options->names, "Snapshot volume names that snapshot --keep printed")
        ->required();
    addAgentOptions(command, &options->noAgent, &options->agentPath);
    return [options](const GlobalOptions& global) { return runDelete(global, *options); };
}

}  // namespace fihost
