// fihost snapshot and fihost delete: a whole snapshot of volumes through the
// plug-in's entry points, as the framework takes one, with a backup agent to
// hand the snapshot volumes to, optionally a command run while the snapshot
// exists; and the disposal of snapshot volumes that an earlier snapshot
// --keep left behind.
//
// Progress and the plug-in's warnings go to stderr, one line per step, with a
// live count while the plug-in waits for the agent; the snapshot volumes,
// their cache files and sizes go to stdout.
#include <CLI/CLI.hpp>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "host/agent_process.h"
#include "host/driver_state.h"
#include "host/snapshot_run.h"
#include "host/text.h"
#include "machine_view.h"
#include "mutex_probe.h"
#include "os/file.h"
#include "output.h"
#include "placement_options.h"
#include "session.h"
#include "settings_file.h"
#include "sim/machine.h"

extern char** environ;

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
        std::string outcome =
            event.status == 0 ? "done"
            : !event.answered && event.status == kPipeMissing
                ? "no backup agent answers (status 2)"
                : (event.answered ? "the agent answered status " : "the pipe failed with status ") +
                      std::to_string(event.status);
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

// The snapshot's content directory of each snapshot volume, from the driver.
std::vector<std::string> contentPaths(const std::vector<host::SnapshotVolume>& volumes) {
    std::vector<host::ExistingSnapshot> existing;
    (void)host::readExistingSnapshots(sim::Machine::current().stateDirectory(), &existing);
    std::vector<std::string> paths;
    for (const host::SnapshotVolume& volume : volumes) {
        auto found = std::find_if(existing.begin(), existing.end(), [&](const auto& snapshot) {
            return snapshot.snapshotName == volume.snapshotName;
        });
        paths.push_back(found != existing.end() ? found->contentPath.string() : std::string());
    }
    return paths;
}

// The snapshot volumes with their cache files named in the user's form (the
// provider's own dump leaves a path inside a cache directory on its volume
// GUID name).
std::vector<host::SnapshotVolume> shownVolumes(std::vector<host::SnapshotVolume> volumes) {
    const std::vector<VolumeView> views = readVolumes();
    for (host::SnapshotVolume& volume : volumes) {
        volume.cacheFile = displayPath(views, volume.cacheFile);
    }
    return volumes;
}

nlohmann::json volumeFacts(const std::vector<host::SnapshotVolume>& volumes,
                           const std::vector<std::string>& contents) {
    nlohmann::json facts = nlohmann::json::array();
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        const host::SnapshotVolume& volume = volumes[i];
        facts.push_back({{"source", volume.source},
                         {"snapshotVolume", volume.snapshotName},
                         {"cacheFile", volume.cacheFile},
                         {"initialMb", volume.initialCacheMb},
                         {"maximumMb", volume.maximumCacheMb},
                         {"content", i < contents.size() ? contents[i] : ""},
                         {"disposed", volume.disposed}});
    }
    return facts;
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

// A cache file the failed prepare was given that exists now: another
// snapshot, placed at the same moment, took the same name.
std::string collidedCacheFile(const host::SnapshotRun& run) {
    if (run.failedStep() != host::Step::kPrepare) {
        return {};
    }
    for (const host::SnapshotVolume& volume : run.volumes()) {
        if (!volume.cacheFile.empty() &&
            os::GetFileAttributesW(host::toUtf16(volume.cacheFile).c_str()) !=
                os::INVALID_FILE_ATTRIBUTES) {
            return volume.cacheFile;
        }
    }
    return {};
}

// True when prepare failed without any cache file placed, and not for a
// system error the provider named: the provider mutex was not obtained.
bool placementFailed(const host::SnapshotRun& run) {
    if (run.failedStep() != host::Step::kPrepare) {
        return false;
    }
    for (const std::string& text : run.failureTexts()) {
        if (text.find("GetLastError()") != std::string::npos) {
            return false;
        }
    }
    return std::all_of(run.volumes().begin(), run.volumes().end(),
                       [](const host::SnapshotVolume& volume) { return volume.cacheFile.empty(); });
}

// Runs `command` through /bin/sh with the snapshot's environment and answers
// its exit status (128 + the signal when a signal ended it, -1 when it could
// not be started). fihost ignores interrupts meanwhile, so that a Ctrl-C ends
// the command and the snapshot is still disposed of. With --json the
// command's output goes to stderr, keeping stdout one document.
int runCommand(const std::string& command, bool json) {
    std::cout.flush();
    std::fflush(stdout);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (json) {
        posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    }
    std::string shell = "/bin/sh";
    std::string flag = "-c";
    std::string text = command;
    char* argv[] = {shell.data(), flag.data(), text.data(), nullptr};
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction oldInterrupt {};
    struct sigaction oldQuit {};
    sigaction(SIGINT, &ignore, &oldInterrupt);
    sigaction(SIGQUIT, &ignore, &oldQuit);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t child = 0;
    int spawned = posix_spawn(&child, shell.c_str(), &actions, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    int result = -1;
    if (spawned == 0) {
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    sigaction(SIGINT, &oldInterrupt, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    return result;
}

// FIKIV_SNAPSHOT_COUNT, and per snapshot n (from 1) FIKIV_SNAPSHOT_<n>_SOURCE,
// _NAME and _PATH.
void exportSnapshots(const std::vector<host::SnapshotVolume>& volumes,
                     const std::vector<std::string>& contents) {
    setenv("FIKIV_SNAPSHOT_COUNT", std::to_string(volumes.size()).c_str(), 1);
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        const std::string prefix = "FIKIV_SNAPSHOT_" + std::to_string(i + 1) + "_";
        setenv((prefix + "SOURCE").c_str(), volumes[i].source.c_str(), 1);
        setenv((prefix + "NAME").c_str(), volumes[i].snapshotName.c_str(), 1);
        setenv((prefix + "PATH").c_str(), contents[i].c_str(), 1);
    }
}

struct SnapshotCommandOptions {
    std::vector<std::string> volumes;
    PlacementOptions placement;
    QuiesceOptions quiesce;
    std::string settingsFile;
    std::string exec;
    bool keep = false;
    bool noAgent = false;
    std::string agentPath = host::defaultAgentPath();
};

// What the command line and the settings file ask for, or a usage problem.
std::string snapshotOptionsOf(SnapshotCommandOptions command, host::SnapshotOptions* snapshot) {
    if (!command.settingsFile.empty()) {
        std::string problem =
            mergeSettingsFile(command.settingsFile, command.placement, command.quiesce);
        if (!problem.empty()) {
            return problem;
        }
    }
    if (std::string problem = checkPlacement(command.volumes, command.placement);
        !problem.empty()) {
        return problem;
    }
    snapshot->volumes = command.volumes;
    snapshot->cacheSettings = cacheSettingsOf(command.placement);
    snapshot->quiesceWait = command.quiesce.wait.value_or(10);
    snapshot->quiesceTimeout = command.quiesce.timeout.value_or(30);
    return {};
}

int runSnapshot(const GlobalOptions& options, const SnapshotCommandOptions& command) {
    host::SnapshotOptions snapshot;
    if (std::string problem = snapshotOptionsOf(command, &snapshot); !problem.empty()) {
        return usageFailure("snapshot", problem);
    }
    host::AgentProcess agent(command.agentPath);
    if (!command.noAgent && !ensureAgent(agent)) {
        return kExitFailed;
    }
    ProviderSession session(options);
    if (!session.start(options)) {
        stopAgent(agent);
        return kExitFailed;
    }
    const MutexState mutexBefore = probeProviderMutex();
    if (mutexBefore == MutexState::kAbandoned) {
        std::cerr << "fihost snapshot: " << mutexFailureText(mutexBefore) << "\n";
    }
    ProgressPrinter printer;
    auto progress = [&printer](const host::ProgressEvent& event) { printer(event); };
    int exitCode = kExitOk;
    nlohmann::json facts = {{"taken", false}};
    std::optional<host::SnapshotRun> run;
    run.emplace(session.plugin(), session.context(), progress);
    run->forwardMessages([&options](const host::HostMessage& m) { options.output->message(m); });
    host::Status taken = run->take(snapshot);
    printer.finish();
    if (std::string collided = collidedCacheFile(*run); !taken.isOk() && !collided.empty()) {
        std::cerr << "fihost snapshot: another snapshot took the cache file name " << collided
                  << " at the same moment, and the driver refused this one; preparing once more "
                     "with the next free name\n";
        run.reset();
        run.emplace(session.plugin(), session.context(), progress);
        run->forwardMessages(
            [&options](const host::HostMessage& m) { options.output->message(m); });
        taken = run->take(snapshot);
        printer.finish();
        facts["preparedAgain"] = true;
    }
    if (!taken.isOk()) {
        printFailure("snapshot", taken, run->failureTexts());
        if (placementFailed(*run)) {
            std::cerr << "fihost snapshot: no cache file was placed; "
                      << mutexFailureText(mutexBefore) << "\n";
        }
        exitCode = kExitFailed;
    } else {
        facts["taken"] = true;
        const std::vector<std::string> contents = contentPaths(run->volumes());
        if (!options.output->json()) {
            printVolumes(shownVolumes(run->volumes()));
        }
        if (!command.exec.empty()) {
            exportSnapshots(run->volumes(), contents);
            std::cerr << "fihost snapshot: running while the snapshot exists: " << command.exec
                      << "\n";
            const int status = runCommand(command.exec, options.output->json());
            facts["execStatus"] = status;
            if (status == 127) {
                std::cerr << "fihost snapshot: the command was not found (the shell answered "
                             "127); check its name and PATH\n";
            } else if (status != 0) {
                std::cerr << "fihost snapshot: the command exited with status " << status << "\n";
            }
            exitCode = status < 0 ? kExitFailed : status;
        }
        if (command.keep) {
            if (!options.output->json()) {
                std::cout << "kept; see them with 'fihost list', dispose of them with 'fihost "
                             "delete --all' or: fihost delete";
                for (const host::SnapshotVolume& volume : run->volumes()) {
                    std::cout << " '" << volume.snapshotName << "'";
                }
                std::cout << "\n";
            }
        } else {
            host::Status disposed = run->dispose();
            printer.finish();
            if (!disposed.isOk()) {
                printFailure("snapshot", disposed, run->failureTexts());
                exitCode = kExitFailed;
            } else if (!options.output->json()) {
                std::cout << "disposed " << run->volumes().size() << " snapshot "
                          << (run->volumes().size() == 1 ? "volume" : "volumes") << "\n";
            }
        }
        facts["volumes"] = volumeFacts(shownVolumes(run->volumes()), contents);
    }
    facts["kept"] = taken.isOk() && command.keep;
    options.output->result(facts);
    run->deInit();
    printer.finish();
    run.reset();
    if (taken.isOk() && command.keep && agent.started()) {
        std::cerr << "fihost: the backup agent it started (process " << agent.pid()
                  << ") keeps running: it holds the kept snapshot volumes ('fihost agent stop' "
                     "ends it)\n";
        agent.release();
    }
    stopAgent(agent);
    return exitCode;
}

struct DeleteCommandOptions {
    std::vector<std::string> names;
    bool all = false;
};

int runDelete(const GlobalOptions& options, const DeleteCommandOptions& command) {
    if (!command.all && command.names.empty()) {
        return usageFailure("delete", "name the snapshot volumes to delete, or give --all");
    }
    std::vector<host::ExistingSnapshot> existing;
    host::Status read =
        host::readExistingSnapshots(sim::Machine::current().stateDirectory(), &existing);
    if (!read.isOk()) {
        std::cerr << "fihost delete: " << read.toString() << "\n";
        return kExitFailed;
    }
    std::vector<std::string> names = command.names;
    if (command.all) {
        for (const host::ExistingSnapshot& snapshot : existing) {
            names.push_back(snapshot.snapshotName);
        }
    }
    for (const std::string& name : names) {
        if (std::none_of(existing.begin(), existing.end(),
                         [&](const auto& snapshot) { return snapshot.snapshotName == name; })) {
            std::cerr << "fihost delete: no snapshot volume named " << name
                      << " exists on this machine ('fihost list' shows them); nothing deleted\n";
            return kExitFailed;
        }
    }
    if (names.empty()) {
        options.output->result({{"deleted", nlohmann::json::array()}});
        if (!options.output->json()) {
            std::cout << "no snapshots to delete\n";
        }
        return kExitOk;
    }
    // No agent is started here: a new agent would hold none of these volumes.
    ProviderSession session(options);
    if (!session.start(options)) {
        return kExitFailed;
    }
    ProgressPrinter printer;
    int exitCode = kExitOk;
    {
        host::SnapshotRun run(session.plugin(), session.context(),
                              [&printer](const host::ProgressEvent& event) { printer(event); });
        run.forwardMessages([&options](const host::HostMessage& m) { options.output->message(m); });
        host::Status adopted = run.adopt(names);
        host::Status disposed = run.dispose();
        printer.finish();
        nlohmann::json facts = nlohmann::json::array();
        for (const host::SnapshotVolume& volume : run.volumes()) {
            facts.push_back(
                {{"snapshotVolume", volume.snapshotName}, {"disposed", volume.disposed}});
            if (!options.output->json()) {
                std::cout << volume.snapshotName << ": "
                          << (volume.disposed ? "disposed" : "not disposed") << "\n";
            }
        }
        options.output->result({{"deleted", facts}});
        if (!adopted.isOk() || !disposed.isOk()) {
            printFailure("delete", adopted.isOk() ? disposed : adopted, run.failureTexts());
            exitCode = kExitFailed;
        }
        run.deInit();
        printer.finish();
    }
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
    command.add_option("volumes", options->volumes, "Volumes to snapshot (C:, E:\\, ...)")
        ->required();
    command.add_flag("--keep", options->keep,
                     "Keep the snapshot volumes (see them with fihost list, delete them later "
                     "with fihost delete)");
    command.add_option("--exec", options->exec,
                       "Run this shell command while the snapshot exists; its exit status "
                       "becomes fihost's");
    addPlacementOptions(command, options->placement);
    command.add_option("--quiesce-wait", options->quiesce.wait,
                       "Quiesce wait handed to the driver (default 10)");
    command.add_option("--quiesce-timeout", options->quiesce.timeout,
                       "Quiesce timeout handed to the driver (default 30)");
    command.add_option("--settings", options->settingsFile,
                       "A settings document with quiesce and cache keys (see the README)");
    addAgentOptions(command, &options->noAgent, &options->agentPath);
    command.footer(
        "While --exec runs, FIKIV_SNAPSHOT_COUNT holds the number of snapshot volumes and, for\n"
        "n from 1, FIKIV_SNAPSHOT_<n>_SOURCE the source volume, FIKIV_SNAPSHOT_<n>_NAME the\n"
        "snapshot volume and FIKIV_SNAPSHOT_<n>_PATH a directory with its point-in-time files.\n"
        "Examples:\n"
        "  fihost snapshot C: E:                       take, show and dispose of a snapshot\n"
        "  fihost snapshot C: --keep                   keep it for a later backup job\n"
        "  fihost snapshot C: --exec 'tar -C \"$FIKIV_SNAPSHOT_1_PATH\" -cf /backup/c.tar .'\n"
        "  fihost snapshot C: --cache-volume E: --cache-dir snapshots --max-percent 20\n"
        "  fihost snapshot C: --settings cache-settings.txt");
    return [options](const GlobalOptions& global) { return runSnapshot(global, *options); };
}

CommandRun configureDelete(CLI::App& command) {
    auto options = std::make_shared<DeleteCommandOptions>();
    CLI::Option* names = command.add_option("names", options->names,
                                            "Snapshot volume names, as fihost list shows them");
    command.add_flag("--all", options->all, "Every snapshot on the machine")->excludes(names);
    command.footer(
        "Examples:\n"
        "  fihost delete --all                                   every kept snapshot\n"
        "  fihost delete '\\\\?\\GLOBALROOT\\Device\\KivSnapshot1'     one of them");
    return [options](const GlobalOptions& global) { return runDelete(global, *options); };
}

}  // namespace fihost
