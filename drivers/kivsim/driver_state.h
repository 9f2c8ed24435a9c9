// The snapshot driver's machine-wide state as a value: prepared and created
// snapshot sets, their snapshot volumes and cache files, and the counters of
// ids and generated names; and its JSON form in "driver/state.json".
//
// Reading checks the shape of every field: a document that is well-formed
// JSON but not a state of this driver (a number where a list belongs, a
// negative id) is refused with DriverStateError, never half-read.
#ifndef DRIVERS_KIVSIM_DRIVER_STATE_H_
#define DRIVERS_KIVSIM_DRIVER_STATE_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kivsim {

// One source volume of a snapshot set.
struct SnapshotElement {
    std::uint64_t snapshotId = 0;  // names the snapshot volume's directory
    std::string snapshotName;      // as given to KIV_Prepare, UTF-8
    std::string sourceGuid;        // UTF-8 GUID name of the source volume
    std::string cacheFileName;     // as given to KIV_Prepare, UTF-8
    std::string cacheKey;          // folded volume GUID + relative path, for comparison
    std::string cacheHostPath;     // the Linux file that holds the cache
    std::uint32_t initialSizeMb = 0;
    std::uint32_t maximumSizeMb = 0;

    bool operator==(const SnapshotElement&) const = default;
};

struct SnapshotSet {
    std::uint64_t id = 0;
    std::int64_t ownerPid = 0;  // the process that prepared the set
    bool created = false;
    std::uint32_t quiesceWait = 0;
    std::uint32_t quiesceTimeout = 0;
    std::vector<SnapshotElement> elements;

    bool operator==(const SnapshotSet&) const = default;
};

struct DriverState {
    std::uint64_t lastId = 0;    // of sets and snapshot volumes
    std::uint64_t lastName = 0;  // of KIV_GenerateVolumeName
    std::vector<SnapshotSet> sets;

    std::uint64_t nextId() { return ++lastId; }
    std::uint64_t nextNameNumber() { return ++lastName; }

    // The set of that id, or null.
    SnapshotSet* findSet(std::uint64_t id);
    // The snapshot volume of that id and, through `owner`, its set; or null.
    const SnapshotElement* findElement(std::uint64_t snapshotId,
                                       const SnapshotSet** owner = nullptr) const;
    // The snapshot volume of a created set whose name compares equal to
    // `name` (comparableSnapshotName), or null.
    const SnapshotElement* findCreatedSnapshot(std::string_view name) const;
    // Whether a snapshot of a created set keeps its cache file on the volume
    // whose GUID name ("\\?\Volume{...}\") is `guidName`.
    bool holdsActiveCache(std::u16string_view guidName) const;

    bool operator==(const DriverState&) const = default;
};

// Snapshot volume names compare without case, without trailing backslashes
// and with "\\.\" and "\\?\" taken as the same prefix.
std::string comparableSnapshotName(std::string_view name);

class DriverStateError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The state that `text` holds; `file` names it in messages, which read
// "<file>: <where>: <problem>". Absent fields read as empty or 0. Throws
// DriverStateError.
DriverState parseDriverState(std::string_view text, const std::string& file);
// The JSON form of `state`, which parseDriverState reads back equal.
std::string serializeDriverState(const DriverState& state);

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_DRIVER_STATE_H_
