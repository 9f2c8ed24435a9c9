// The machine as any program sees it: its volumes with their paths, type,
// file system, space and the snapshot driver's attributes, asked through the
// os:: volume functions and the driver's library (loaded with LoadLibraryW,
// as the plug-in loads it). fihost machine, volumes, plan and caches start
// from here.
//
// Not thread-safe; each call asks the machine afresh.
#ifndef FRAMEWORK_HOST_MACHINE_VIEW_H_
#define FRAMEWORK_HOST_MACHINE_VIEW_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace fihost {

struct VolumeView {
    std::string guidName;            // "\\?\Volume{...}\"
    std::vector<std::string> paths;  // drive roots and mount points, "C:\", "C:\mnt\data\"
    std::string type;                // "fixed", "removable", "cdrom", ...
    std::string fileSystem;          // "NTFS"; empty when the system would not say
    std::string label;
    std::string fileSystemProblem;  // why there is no file system: "no media", ...
    std::optional<std::uint64_t> totalBytes;
    std::optional<std::uint64_t> freeBytes;
    std::optional<std::uint32_t> driverAttributes;  // unset: the driver does not answer
    // Where the simulated machine keeps the volume's files on this Linux host.
    std::string files;

    // The first path, as a user names the volume; the GUID name without one.
    std::string displayName() const;
    nlohmann::json toJson() const;
};

// Every volume, in the order the system lists them.
std::vector<VolumeView> readVolumes();

// The volume of `views` with this GUID name (trailing backslash optional,
// case ignored); null when none.
const VolumeView* findVolume(const std::vector<VolumeView>& views, const std::string& guidName);

// The GUID name of the volume a user names ("C:", "e:\", "C:\mnt\data", a GUID
// name); nullopt when no volume of the machine is reached through it.
std::optional<std::string> volumeGuidOf(const std::string& name);

// A Windows path with its volume part in the user's form: "\\?\Volume{..07}\x"
// becomes "C:\mnt\data\x" when the volume has a path.
std::string displayPath(const std::vector<VolumeView>& views, const std::string& path);

// Windows names compare without case: `text` with ASCII letters lowered.
std::string foldCase(std::string text);

// "41.0 GiB", "512 B".
std::string sizeText(std::uint64_t bytes);
// "0x11 (valid source, active cache)".
std::string attributeText(std::uint32_t attributes);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_MACHINE_VIEW_H_
