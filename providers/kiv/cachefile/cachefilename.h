// Cache file names and sizes.
//
// Builds the full path of a snapshot's cache file on a chosen volume (making
// the name unique with the process-wide cache file counter) and computes the
// file's initial and maximum size in whole megabytes (1 MB = 2^20 bytes,
// rounded down). The sizing reports the rule it applied through the host's
// message callback of the coordinator's framework context.
//
// Thread safety: none of its own. Every caller holds the machine-wide
// ProviderMutex while it names files, which also serialises the counter.
//
// Decisions where the platform leaves the outcome open:
// - A failed GetDiskFreeSpaceExW counts as a volume of zero total and zero
//   free bytes (so the sizing falls to its 50 MB floor and the free-space
//   order puts the volume last). A volume reporting more free than total
//   bytes counts as having nothing used.
// - Percentage shares are computed in 64-bit arithmetic from the full
//   megabyte counts and saturate at 0xFFFFFFFF MB, instead of wrapping in
//   32 bits; without that a volume of more than about 41 TiB would get a
//   tiny, meaningless share. The 95% message prints its two numbers as 32-bit
//   values (what the "%lu" conversion takes), saturated the same way.
// - makeCacheFilePath retries for as long as names exist; only the counter's
//   wrap-around bounds it.
#ifndef PROVIDERS_KIV_CACHEFILE_CACHEFILENAME_H_
#define PROVIDERS_KIV_CACHEFILE_CACHEFILENAME_H_

#include <cstdint>
#include <string>
#include <utility>

#include "kiv/cachefile/cachefilehints.h"

// (initial size MB, maximum size MB); first never exceeds second.
using CacheFileSizes = std::pair<std::uint32_t, std::uint32_t>;

inline constexpr std::uint64_t kBytesPerMB = 1ull << 20;
// Sizes computed from percentages are never below this.
inline constexpr std::uint32_t kMinCacheFileSizeMB = 50;
// Paths longer than this never count as existing.
inline constexpr std::size_t kMaxCacheFilePathLength = 260;

// The counter that makes cache file names unique within the process: 0 when
// the library is loaded, advanced by every name tried, wrapping after
// 4,294,967,295. The setter exists for tests and tools.
std::uint32_t cacheFileCounter();
void setCacheFileCounter(std::uint32_t value);

// "<root>\[<cacheFileDir>\]_tarnKivCacheFile_<n>.KIV" with single separators,
// whether or not `volumeRoot` and `cacheFileDir` end in a backslash. Creates
// the directory (failures ignored: the path inside it is returned all the
// same) and skips every counter value whose file already exists.
std::u16string makeCacheFilePath(const std::u16string& volumeRoot,
                                 const std::u16string& cacheFileDir);

// Creates `path` and any missing parents, parents first. True when the
// directory exists afterwards. On false the thread's last error is that of the
// failing call, or ERROR_ALREADY_EXISTS when a non-directory is in the way.
bool createDirectoryPath(const std::u16string& path);

// True when a file or directory of that name exists. Paths of more than 260
// characters never exist.
bool fileExists(const std::u16string& path);

// Limits a percentage to 1..99 (0 becomes 1, 100 becomes 99).
void clampPercentage(std::uint32_t& percentage);

// Initial size for a cache file on the snapshotted volume itself:
// initialCacheFileSizeMB when set, else the clamped percentage of the
// volume's used space, capped at 95% of its free space, at least 50 MB.
// Reports the rule applied (and a warning below 50 MB free) to the host.
std::uint32_t computeInitialCacheFileSize(const std::u16string& volumeName,
                                          const CacheFileHints& hints);

// Maximum size on the cache volume: maxCacheFileSizeMB when set, else the
// clamped percentage of its free space, at least 50 MB. Reports nothing.
std::uint32_t computeMaxCacheFileSize(const std::u16string& volumeName,
                                      const CacheFileHints& hints);

// Both sizes for `target` with its cache file on `cacheVolume`. The initial
// size is 0 unless the two names are equal (exactly, trailing backslashes
// ignored), and never above the maximum.
CacheFileSizes computeCacheFileSizes(const std::u16string& target,
                                     const std::u16string& cacheVolume,
                                     const CacheFileHints& hints);

// Total and total free bytes of the volume holding `volumeName` (a backslash
// is appended when missing); both 0 when the query fails.
struct VolumeSpace {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
};
VolumeSpace queryVolumeSpace(const std::u16string& volumeName);

#endif  // PROVIDERS_KIV_CACHEFILE_CACHEFILENAME_H_
