// Choosing the volume that holds the cache files of a group of snapshot
// targets, and the text form of such a request.
//
// The choice runs under the machine-wide ProviderMutex: preferred volumes
// first, else any volume of the machine that is not excluded, else each
// target on its own volume. Among usable volumes the one with the most total
// free bytes wins; equal free space goes to the name that sorts first, for any
// number of candidates (the order is a stable sort, not just for small lists).
//
// Names are compared exactly, code unit by code unit, after normalisation.
// The preferred, excluded and enumerated lists are sorted, never thinned: a
// volume listed twice is tested twice. An empty name is kept as it is (the
// normalisation has no last character to look at); like a name that is still
// shorter than three characters after the volume lookup (say "d" or "x:" when
// no such drive exists), it matches nothing and the tests of suitability
// remove it.
//
// The placement writes no trace lines of its own (the host hears only the
// sizing messages of the cache files): why it chose a volume is collected in
// a PlacementReport for the tools that show it.
//
// Thread safety: the mutex serialises placements across threads and
// processes; nothing else is shared.
#ifndef PROVIDERS_KIV_CACHEFILE_CACHEFILEPLACEMENT_H_
#define PROVIDERS_KIV_CACHEFILE_CACHEFILEPLACEMENT_H_

#include <string>
#include <vector>

#include "kiv/cachefile/cachefilehints.h"
#include "kiv/cachefile/cachefilename.h"
#include "kiv/cachefile/placementreport.h"
#include "os/types.h"

// Places one cache file per target and appends, in target order, its path to
// `paths` and its sizes to `sizes`. Returns false, appending nothing, when the
// mutex is not obtained within 10 seconds or was abandoned. An os::DWORD
// thrown by volume enumeration, the volume-name binding or the driver library
// binding propagates, with nothing appended and the mutex released.
// When `report` is given it receives why the volume was chosen; it is
// overwritten, also on failure.
bool placeCacheFiles(os::HANDLE mutex, const std::vector<std::u16string>& targets,
                     const CacheFileHints& hints, std::vector<std::u16string>& paths,
                     std::vector<CacheFileSizes>& sizes, PlacementReport* report = nullptr);

// The targets and hints as text (tab-indented lines, each ending in a line
// feed), for the message reported when a placement fails.
std::u16string formatCacheFileRequest(const std::vector<std::u16string>& targets,
                                      const CacheFileHints& hints);

// Rewrites a volume name into the form used for comparison: its volume GUID
// name when the system can look it up, else the device form "\\.\D:\" of a
// drive root, else unchanged. Throws os::DWORD when the lookup cannot be bound.
void normaliseVolumeName(std::u16string& name);

// True when volume `a` has fewer total free bytes than volume `b`; both are
// queried afresh. A volume whose query fails counts as having none.
bool freeSpaceLess(const std::u16string& a, const std::u16string& b);

#endif  // PROVIDERS_KIV_CACHEFILE_CACHEFILEPLACEMENT_H_
