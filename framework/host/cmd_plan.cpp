// fihost plan: the dry run of cache placement. It runs the provider's own
// placement on this machine, as snapshot preparation would in a new process,
// and shows per target the cache volume, file and sizes, and for every other
// volume why it was not chosen. It creates no cache file, no directory and no
// snapshot: the placement runs without the cache directory, and the names
// inside the directory are worked out here the way the provider makes them.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "fiprovlib/TraceMethod.h"
#include "host/host_context.h"
#include "host/text.h"
#include "kiv/cachefile/cachefilename.h"
#include "kiv/cachefile/cachefileplacement.h"
#include "kiv/cachefile/placementreport.h"
#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"
#include "machine_view.h"
#include "mutex_probe.h"
#include "os/file.h"
#include "output.h"
#include "placement_options.h"

namespace fihost {
namespace {

constexpr char16_t kCacheFilePrefix[] = u"_tarnKivCacheFile_";

struct PlanOptions {
    std::vector<std::string> volumes;
    PlacementOptions placement;
};

struct PlannedFile {
    std::string target;
    std::string path;  // in the user's form
    std::uint32_t initialMb = 0;
    std::uint32_t maximumMb = 0;
};

// The name the provider gives the next cache file in `directory` (which ends
// in a backslash): the first counter value, from `counter` on, whose file does
// not exist. Advances `counter` past every name tried, as the provider does.
std::u16string nextCacheFile(const std::u16string& directory, std::uint32_t& counter) {
    for (;;) {
        std::u16string path =
            directory + kCacheFilePrefix + host::toUtf16(std::to_string(counter++)) + u".KIV";
        if (!fileExists(path)) {
            return path;
        }
    }
}

// Why a volume was not chosen, from what the placement recorded.
std::string reasonOf(const PlacementCandidate& candidate) {
    std::string text = host::toUtf8(placementRemovalText(candidate.removal));
    switch (candidate.removal) {
        case PlacementRemoval::kDriverAttributes:
            return text + ": " + attributeText(candidate.detail);
        case PlacementRemoval::kDriverOpen:
            return text + " (status " + std::to_string(candidate.detail) + ")";
        case PlacementRemoval::kExcluded:
            return "excluded (--exclude)";
        default:
            return text;
    }
}

std::map<std::string, std::string> reasonsByVolume(const PlacementReport& report,
                                                   const std::vector<VolumeView>& volumes) {
    std::map<std::string, std::string> reasons;
    const std::string chosen = foldCase(host::toUtf8(report.cacheVolume));
    std::uint64_t chosenFree = 0;
    if (const VolumeView* volume = findVolume(volumes, host::toUtf8(report.cacheVolume))) {
        chosenFree = volume->freeBytes.value_or(0);
    }
    for (const auto* list : {&report.preferred, &report.fallback}) {
        for (const PlacementCandidate& candidate : *list) {
            const std::string name = foldCase(host::toUtf8(candidate.name));
            if (candidate.removal != PlacementRemoval::kNone) {
                reasons[name] = reasonOf(candidate);
            } else if (name != chosen && !chosen.empty()) {
                reasons[name] = "usable, but with less free space than the chosen volume (" +
                                sizeText(chosenFree) + ")";
            }
        }
    }
    return reasons;
}

std::string outcomeText(const PlacementReport& report) {
    const std::string preferredFailed =
        report.fallbackRan && !report.preferred.empty() ? "no --cache-volume is usable; " : "";
    switch (report.outcome) {
        case PlacementOutcome::kPreferred:
            return "the --cache-volume with the most free space";
        case PlacementOutcome::kFallback:
            return preferredFailed + "the usable volume with the most free space";
        case PlacementOutcome::kLastResort:
            return preferredFailed +
                   "no other volume is usable, so each volume holds its own cache file";
        default:
            return "the placement did not finish";
    }
}

int runPlan(const GlobalOptions& options, const PlanOptions& plan) {
    if (std::string problem = checkPlacement(plan.volumes, plan.placement); !problem.empty()) {
        return usageFailure("plan", problem);
    }
    host::HostContext context;
    context.setListener(
        [&options](const host::HostMessage& message) { options.output->message(message); });
    try {
        // The sizing reports its rule through the coordinator's context.
        KivFiCoordinator::instance().setFrameworkContext(context.context());
    } catch (os::DWORD error) {
        std::cerr << "fihost plan: the snapshot driver library kivapi.dll cannot be loaded ("
                  << systemErrorText(error) << "); without it no cache can be placed\n";
        return kExitFailed;
    }
    setLogContext(context.context());
    setPluginName(u"fikiv");

    std::vector<std::u16string> targets;
    for (const std::string& volume : plan.volumes) {
        targets.push_back(host::toUtf16(*volumeGuidOf(volume)));
    }
    CacheFileHints hints;
    for (const std::string& volume : plan.placement.cacheVolumes) {
        hints.preferredVolumes.push_back(host::toUtf16(volume));
    }
    for (const std::string& volume : plan.placement.excludedVolumes) {
        hints.excludedVolumes.push_back(host::toUtf16(volume));
    }
    hints.initialCacheFileSizeMB = plan.placement.initialMb.value_or(0);
    hints.maxCacheFileSizeMB = plan.placement.maxMb.value_or(0);
    hints.initialCacheFileSizePct = plan.placement.initialPercent.value_or(0);
    hints.maxCacheFileSizePct = plan.placement.maxPercent.value_or(0);

    std::vector<std::u16string> paths;
    std::vector<CacheFileSizes> sizes;
    PlacementReport report;
    MutexState mutexBefore = probeProviderMutex();
    bool placed = false;
    try {
        placed = placeCacheFiles(ProviderMutex(), targets, hints, paths, sizes, &report);
    } catch (os::DWORD error) {
        std::cerr << "fihost plan: the placement failed (" << systemErrorText(error)
                  << "); is the snapshot driver library kivapi.dll missing?\n";
        return kExitFailed;
    }
    if (!placed) {
        std::cerr << "fihost plan: " << mutexFailureText(mutexBefore) << "\n";
        return kExitFailed;
    }
    if (mutexBefore == MutexState::kAbandoned) {
        std::cerr << "fihost plan: " << mutexFailureText(mutexBefore) << "\n";
    }

    const std::vector<VolumeView> volumes = readVolumes();
    const std::u16string directory = host::toUtf16(
        plan.placement.cacheDirectory.empty() ? "" : plan.placement.cacheDirectory + "\\");
    std::uint32_t counter = 0;
    std::vector<PlannedFile> files;
    std::vector<std::string> directoryNotes;
    for (std::size_t i = 0; i < paths.size() && i < sizes.size(); ++i) {
        const std::u16string root = paths[i].substr(0, paths[i].rfind(kCacheFilePrefix));
        if (!directory.empty()) {
            const std::string shown = displayPath(volumes, host::toUtf8(root + directory));
            const os::DWORD attributes = os::GetFileAttributesW((root + directory).c_str());
            std::string note;
            if (attributes == os::INVALID_FILE_ATTRIBUTES) {
                note = "the cache directory " + shown +
                       " does not exist yet: the snapshot would create it";
            } else if ((attributes & os::FILE_ATTRIBUTE_DIRECTORY) == 0) {
                note = shown +
                       " is a file, not a directory: the driver could not create the "
                       "cache file in it";
            }
            if (!note.empty() && std::find(directoryNotes.begin(), directoryNotes.end(), note) ==
                                     directoryNotes.end()) {
                directoryNotes.push_back(note);
            }
        }
        PlannedFile file;
        file.target = plan.volumes[i];
        file.path = displayPath(volumes, host::toUtf8(nextCacheFile(root + directory, counter)));
        file.initialMb = sizes[i].first;
        file.maximumMb = sizes[i].second;
        files.push_back(file);
    }

    const std::map<std::string, std::string> reasons = reasonsByVolume(report, volumes);
    std::string cacheVolumeName;
    if (const VolumeView* chosen = findVolume(volumes, host::toUtf8(report.cacheVolume))) {
        cacheVolumeName = chosen->displayName();
    }
    nlohmann::json fileFacts = nlohmann::json::array();
    for (const PlannedFile& file : files) {
        fileFacts.push_back({{"volume", file.target},
                             {"cacheFile", file.path},
                             {"initialMb", file.initialMb},
                             {"maximumMb", file.maximumMb}});
    }
    nlohmann::json otherFacts = nlohmann::json::array();
    std::vector<std::pair<std::string, std::string>> others;
    for (const VolumeView& volume : volumes) {
        if (foldCase(volume.guidName) == foldCase(host::toUtf8(report.cacheVolume))) {
            continue;
        }
        auto found = reasons.find(foldCase(volume.guidName));
        std::string reason =
            found != reasons.end() ? found->second : "not looked at: a --cache-volume was usable";
        others.emplace_back(volume.displayName(), reason);
        otherFacts.push_back({{"volume", volume.displayName()}, {"reason", reason}});
    }
    options.output->result(
        {{"dryRun", true},
         {"cacheFiles", fileFacts},
         {"cacheVolume",
          cacheVolumeName.empty() ? nlohmann::json() : nlohmann::json(cacheVolumeName)},
         {"why", outcomeText(report)},
         {"directoryNotes", directoryNotes},
         {"otherVolumes", otherFacts}});
    if (options.output->json()) {
        return kExitOk;
    }
    std::cout << "dry run: no cache file, directory or snapshot is made\n\n";
    std::size_t width = 6;
    for (const PlannedFile& file : files) {
        width = std::max(width, file.target.size());
    }
    for (const PlannedFile& file : files) {
        std::cout << std::left << std::setw(static_cast<int>(width)) << file.target << "  "
                  << file.path << "  initial " << file.initialMb << " MB, maximum "
                  << file.maximumMb << " MB\n";
    }
    for (const std::string& note : directoryNotes) {
        std::cout << note << "\n";
    }
    std::cout << "\ncache volume "
              << (cacheVolumeName.empty() ? std::string("(each volume its own)") : cacheVolumeName)
              << ": " << outcomeText(report) << "\n\nthe other volumes:\n";
    width = 6;
    for (const auto& other : others) {
        width = std::max(width, other.first.size());
    }
    for (const auto& [name, reason] : others) {
        std::cout << "  " << std::left << std::setw(static_cast<int>(width)) << name << "  "
                  << reason << "\n";
    }
    return kExitOk;
}

}  // namespace

CommandRun configurePlan(CLI::App& command) {
    auto plan = std::make_shared<PlanOptions>();
    command.add_option("volumes", plan->volumes, "Volumes a snapshot would be taken of (C:, E:\\)")
        ->required();
    addPlacementOptions(command, plan->placement);
    command.footer(
        "Creates no cache file, no directory and no snapshot.\n"
        "Examples:\n"
        "  fihost plan C: E:                          where the cache files would go, and why\n"
        "  fihost plan C: --cache-volume D: --exclude E: --cache-dir snapshots\\cache\n"
        "  fihost plan C: --initial-percent 20 --max-percent 50");
    return [plan](const GlobalOptions& options) { return runPlan(options, *plan); };
}

}  // namespace fihost
