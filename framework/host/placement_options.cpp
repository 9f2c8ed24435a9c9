#include "placement_options.h"

#include <CLI/CLI.hpp>

#include <set>

#include "machine_view.h"

namespace fihost {
namespace {

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ",") + item;
    }
    return text;
}

// Why a cache directory would not stay below the volume root, or empty.
std::string cacheDirectoryProblem(const std::string& directory) {
    if (directory.empty()) {
        return {};
    }
    if (directory.find_first_of(" \t\r\n") != std::string::npos) {
        return "contains a blank, which a settings value cannot hold";
    }
    if (directory.find_first_of("<>:\"|?*") != std::string::npos) {
        return "contains a character Windows refuses in names (<>:\"|?*)";
    }
    if (directory.front() == '\\' || directory.front() == '/') {
        return "starts at a root; name a directory below the volume root, such as snapshots\\cache";
    }
    std::size_t start = 0;
    while (start <= directory.size()) {
        std::size_t end = directory.find_first_of("\\/", start);
        if (end == std::string::npos) {
            end = directory.size();
        }
        const std::string part = directory.substr(start, end - start);
        if (part == ".." || part == ".") {
            return "has a '" + part + "' part; name a directory below the volume root";
        }
        start = end + 1;
    }
    return {};
}

std::string volumeListProblem(const char* option, const std::vector<std::string>& volumes) {
    for (const std::string& volume : volumes) {
        if (volume.find_first_of(", \t") != std::string::npos) {
            return std::string(option) + " takes one volume name without blanks or commas: '" +
                   volume + "'; repeat the option for more";
        }
        if (!volumeGuidOf(volume)) {
            return std::string(option) + " '" + volume +
                   "' is not a volume of this machine ('fihost volumes' lists them)";
        }
    }
    return {};
}

}  // namespace

void addPlacementOptions(CLI::App& command, PlacementOptions& options) {
    command.add_option("--cache-volume", options.cacheVolumes,
                       "A volume to place cache files on first (repeatable)");
    command.add_option("--exclude", options.excludedVolumes,
                       "A volume never to place cache files on (repeatable)");
    command.add_option("--cache-dir", options.cacheDirectory,
                       "Directory below the cache volume's root for the cache files");
    command
        .add_option("--initial-percent", options.initialPercent,
                    "Initial cache size in percent of the used space (on the source volume itself)")
        ->check(CLI::Range(0, 100));
    command
        .add_option("--max-percent", options.maxPercent,
                    "Largest cache size in percent of the cache volume's free space")
        ->check(CLI::Range(0, 100));
    command.add_option("--initial-mb", options.initialMb,
                       "Initial cache size in MB (instead of the percentage)");
    command.add_option("--max-mb", options.maxMb,
                       "Largest cache size in MB (instead of the percentage)");
}

std::string checkPlacement(const std::vector<std::string>& volumes,
                           const PlacementOptions& options) {
    std::set<std::string> seen;
    for (const std::string& volume : volumes) {
        std::optional<std::string> guid = volumeGuidOf(volume);
        if (!guid) {
            return "'" + volume + "' is not a volume of this machine ('fihost volumes' lists them)";
        }
        if (!seen.insert(*guid).second) {
            return volume + " is named twice (as the same volume); name each volume once";
        }
    }
    for (const std::string& problem : {volumeListProblem("--cache-volume", options.cacheVolumes),
                                       volumeListProblem("--exclude", options.excludedVolumes)}) {
        if (!problem.empty()) {
            return problem;
        }
    }
    if (std::string problem = cacheDirectoryProblem(options.cacheDirectory); !problem.empty()) {
        return "--cache-dir '" + options.cacheDirectory + "' " + problem;
    }
    return {};
}

std::vector<std::pair<std::string, std::string>> cacheSettingsOf(const PlacementOptions& options) {
    std::vector<std::pair<std::string, std::string>> settings;
    if (!options.cacheVolumes.empty()) {
        settings.emplace_back("cachefileAllowedVolumes", joined(options.cacheVolumes));
    }
    if (!options.excludedVolumes.empty()) {
        settings.emplace_back("cachefileDisallowedVolumes", joined(options.excludedVolumes));
    }
    const std::pair<const char*, const std::optional<std::uint32_t>*> numbers[] = {
        {"cachefileInitSizeinMB", &options.initialMb},
        {"cachefileMaxSizeInMB", &options.maxMb},
        {"cachefileInitSizePercentage", &options.initialPercent},
        {"cachefileMaxSizePercentage", &options.maxPercent},
    };
    for (const auto& [key, value] : numbers) {
        if (value->has_value()) {
            settings.emplace_back(key, std::to_string(**value));
        }
    }
    if (!options.cacheDirectory.empty()) {
        settings.emplace_back("cachefileDir", options.cacheDirectory);
    }
    return settings;
}

}  // namespace fihost
