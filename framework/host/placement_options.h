// The cache placement options that fihost plan and fihost snapshot share,
// their checks, and the cache settings they become.
#ifndef FRAMEWORK_HOST_PLACEMENT_OPTIONS_H_
#define FRAMEWORK_HOST_PLACEMENT_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace fihost {

struct PlacementOptions {
    std::vector<std::string> cacheVolumes;     // cachefileAllowedVolumes
    std::vector<std::string> excludedVolumes;  // cachefileDisallowedVolumes
    std::string cacheDirectory;                // cachefileDir
    std::optional<std::uint32_t> initialPercent;
    std::optional<std::uint32_t> maxPercent;
    std::optional<std::uint32_t> initialMb;
    std::optional<std::uint32_t> maxMb;
};

// Adds --cache-volume, --exclude, --cache-dir, --initial-percent,
// --max-percent, --initial-mb and --max-mb; the percentages are checked to lie
// in 0..100 by the parser.
void addPlacementOptions(CLI::App& command, PlacementOptions& options);

// One line saying what is wrong with the volumes and placement options, and
// what to do; empty when all is well. Every volume must be one of the machine
// (each target at most once), and the cache directory must stay below the
// volume root.
std::string checkPlacement(const std::vector<std::string>& volumes,
                           const PlacementOptions& options);

// The cache settings (key, value) the options stand for, in key-table order.
std::vector<std::pair<std::string, std::string>> cacheSettingsOf(const PlacementOptions& options);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_PLACEMENT_OPTIONS_H_
