// fihost list: the snapshots that exist on the machine, as the snapshot
// driver records them: source volume, snapshot volume, when it was made, its
// cache file and sizes, whether the backup agent holds it, and the directory
// where its point-in-time content can be read.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>

#include "commands.h"
#include "host/driver_state.h"
#include "kivagent/agent_state.h"
#include "machine_view.h"
#include "output.h"
#include "sim/machine.h"

namespace fihost {
namespace {

int runList(const GlobalOptions& options) {
    const std::filesystem::path state = sim::Machine::current().stateDirectory();
    std::vector<host::ExistingSnapshot> snapshots;
    if (host::Status read = host::readExistingSnapshots(state, &snapshots); !read.isOk()) {
        std::cerr << "fihost list: " << read.toString() << "\n";
        return kExitFailed;
    }
    const kivagent::AgentStatus agent = kivagent::readAgentStatus(state);
    const std::vector<VolumeView> volumes = readVolumes();
    nlohmann::json facts = nlohmann::json::array();
    for (const host::ExistingSnapshot& snapshot : snapshots) {
        const VolumeView* source = findVolume(volumes, snapshot.source);
        const bool held =
            agent.running &&
            std::any_of(agent.held.begin(), agent.held.end(), [&](const kivagent::HeldVolume& v) {
                return v.volumeName == snapshot.snapshotName;
            });
        const std::string made = snapshot.made ? host::utcText(*snapshot.made) : "unknown";
        const std::string cacheFile = displayPath(volumes, snapshot.cacheFile);
        facts.push_back({{"source", source != nullptr ? source->displayName() : snapshot.source},
                         {"snapshotVolume", snapshot.snapshotName},
                         {"made", made},
                         {"cacheFile", cacheFile},
                         {"initialMb", snapshot.initialCacheMb},
                         {"maximumMb", snapshot.maximumCacheMb},
                         {"agentHolds", held},
                         {"content", snapshot.contentPath.string()}});
        if (options.output->json()) {
            continue;
        }
        std::cout << snapshot.snapshotName << "\n"
                  << "  source       "
                  << (source != nullptr ? source->displayName() : snapshot.source) << "\n"
                  << "  made         " << made << "\n"
                  << "  cache file   " << cacheFile << ", initial " << snapshot.initialCacheMb
                  << " MB, maximum " << snapshot.maximumCacheMb << " MB\n"
                  << "  agent        "
                  << (held            ? "holds it"
                      : agent.running ? "does not hold it"
                                      : "no backup agent runs")
                  << "\n"
                  << "  content      " << snapshot.contentPath.string() << "\n";
    }
    options.output->result({{"snapshots", facts}});
    if (!options.output->json() && snapshots.empty()) {
        std::cout << "no snapshots on this machine\n";
    }
    return kExitOk;
}

}  // namespace

CommandRun configureList(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost list               the snapshots that exist, with their cache files\n"
        "  fihost --json list        the same as JSON, for scripts");
    return &runList;
}

}  // namespace fihost
