// The snapshots that exist on a machine, as the snapshot driver records them
// in "<state directory>/driver/state.json", and where each snapshot volume's
// point-in-time content can be read ("driver/snapshots/<id>/"). The driver
// replaces the file atomically, so reading it needs no lock.
//
// No KIV_ entry point lists snapshots; this reader is how a host on this
// machine answers "which snapshots exist". Plain functions; thread-safe.
#ifndef FRAMEWORK_HOST_HOST_DRIVER_STATE_H_
#define FRAMEWORK_HOST_HOST_DRIVER_STATE_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/status.h"

namespace host {

// One snapshot volume of a created snapshot set.
struct ExistingSnapshot {
    std::uint64_t setId = 0;
    std::string snapshotName;  // "\\?\GLOBALROOT\Device\KivSnapshot1"
    std::string source;        // the source volume's GUID name
    std::string cacheFile;     // as given to the driver (a GUID path)
    std::filesystem::path cacheHostPath;
    std::uint32_t initialCacheMb = 0;
    std::uint32_t maximumCacheMb = 0;
    std::filesystem::path contentPath;  // the snapshot's files, read-only by convention
    // When the snapshot was made (its content folder's time), UTC; unset when
    // the folder is missing.
    std::optional<std::filesystem::file_time_type> made;
};

// Every snapshot volume of every created set, in set order. Sets that were
// prepared and never created hold no snapshot and are left out. A machine
// without driver state has no snapshots; a state file that does not parse is
// kInvalidArgument naming the file.
Status readExistingSnapshots(const std::filesystem::path& stateDirectory,
                             std::vector<ExistingSnapshot>* snapshots);

// "2026-11-23 17:04:05 UTC".
std::string utcText(std::filesystem::file_time_type time);

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_DRIVER_STATE_H_
