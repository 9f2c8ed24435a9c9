// Why a cache placement chose its volume: every candidate it looked at, what
// removed each one that was dropped, and the survivors in free-space order.
//
// placeCacheFiles fills one of these for every placement and hands it to a
// caller that asks for it (fihost plan prints it); none of it reaches the
// host. Plain data; no state.
#ifndef PROVIDERS_KIV_CACHEFILE_PLACEMENTREPORT_H_
#define PROVIDERS_KIV_CACHEFILE_PLACEMENTREPORT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What took a candidate out of the running, in the order the tests run.
enum class PlacementRemoval : std::uint32_t {
    kNone,              // survived every test
    kExcluded,          // excluded and not also preferred (detail unused)
    kTarget,            // one of the targets (detail unused)
    kFileSystem,        // unrecognised file system or no such volume (detail: error code)
    kNotFixed,          // not a fixed disk (detail: drive type)
    kNoPath,            // no drive letter or mount point reaches it (detail unused)
    kDriverOpen,        // the driver could not open it (detail: status, 0 for a bad handle)
    kDriverAttributes,  // the driver marks it unusable (detail: attribute word)
};

struct PlacementCandidate {
    std::u16string name;        // compared form, after normalisation
    std::u16string configured;  // as configured; empty for enumerated volumes
    PlacementRemoval removal = PlacementRemoval::kNone;
    std::uint32_t detail = 0;
};

struct PlacementRank {
    std::u16string name;
    // Total free bytes as last seen while ordering; unset when the volume was
    // never compared (a single survivor needs no free-space query).
    std::optional<std::uint64_t> freeBytes;
};

enum class PlacementOutcome : std::uint32_t {
    kNotRun,            // nothing recorded yet, or a thrown error ended it
    kMutexNotObtained,  // the provider mutex timed out or was abandoned
    kPreferred,         // a preferred volume holds the cache files
    kFallback,          // another volume of the machine holds them
    kLastResort,        // each target holds its own cache file
};

struct PlacementReport {
    std::vector<std::u16string> targets;
    std::vector<PlacementCandidate> preferred;  // in the order tested
    bool fallbackRan = false;
    std::vector<PlacementCandidate> fallback;  // in the order tested
    std::vector<PlacementRank> order;          // the deciding stage, most free space first
    PlacementOutcome outcome = PlacementOutcome::kNotRun;
    std::u16string cacheVolume;  // empty unless a volume was chosen
};

// A short text for a removal, such as "not a fixed disk".
std::u16string placementRemovalText(PlacementRemoval removal);

#endif  // PROVIDERS_KIV_CACHEFILE_PLACEMENTREPORT_H_
