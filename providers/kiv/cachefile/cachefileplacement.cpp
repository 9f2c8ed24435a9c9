#include "kiv/cachefile/cachefileplacement.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "fiprovlib/volumeiterator/volumeiterator.h"
#include "kiv/cachefile/kivapi.h"
#include "kiv/cachefile/providermutex.h"
#include "os/codepage.h"
#include "os/error.h"
#include "os/volume.h"
#include "path_helper.h"
#include "string_helper.h"

namespace {

// Driver open arguments used to probe a cache volume: access, flags and the
// two further values the driver expects for this use.
constexpr std::uint32_t kProbeAccess = 3;
constexpr std::uint32_t kProbeFlags = 128;
constexpr std::uint32_t kProbeArgumentA = 3;
constexpr std::uint32_t kProbeArgumentB = 1000;
// Claimed (0x2), disabled (0x4) and snapshot (0x8) volumes cannot hold a
// cache file; an active cache (0x10) does not stop another one.
constexpr std::uint32_t kUnusableAttributes =
    KIV_ATTRIBUTE_CLAIMED | KIV_ATTRIBUTE_DISABLED | KIV_ATTRIBUTE_SNAPSHOT;

std::u16string decimal(std::uint32_t value) {
    const std::string digits = std::to_string(value);
    return std::u16string(digits.begin(), digits.end());
}

bool contains(const std::vector<std::u16string>& sorted, const std::u16string& name) {
    return std::binary_search(sorted.begin(), sorted.end(), name);
}

struct Verdict {
    PlacementRemoval removal = PlacementRemoval::kNone;
    std::uint32_t detail = 0;
};

// The four suitability tests, in order; the first that fails decides.
// Throws os::DWORD from the volume path search or the driver binding.
Verdict testSuitability(const std::u16string& name) {
    const std::u16string root = withTrailingBackslash(name);
    os::DWORD fileSystemFlags = 0;
    if (!os::GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, &fileSystemFlags,
                                   nullptr, 0)) {
        const os::DWORD error = os::GetLastError();
        // Other failures (a drive not ready, say) do not prove the volume
        // useless, so they keep it.
        if (error == os::ERROR_UNRECOGNIZED_VOLUME || error == os::ERROR_PATH_NOT_FOUND) {
            return {PlacementRemoval::kFileSystem, error};
        }
    }

    const os::UINT driveType = os::GetDriveTypeW(name.c_str());
    if (driveType != os::DRIVE_FIXED) {
        return {PlacementRemoval::kNotFixed, driveType};
    }

    if (isVolumeApiAvailable()) {
        std::u16string path;
        if (!findVolumePath(name, path)) {
            return {PlacementRemoval::kNoPath, 0};
        }
    }

    KivApi* api = kivApi();
    const std::string driverName = toNarrow(withoutTrailingBackslashes(name), os::CP_UTF8);
    KivHandle handle = kInvalidKivHandle;
    const std::uint32_t status = KIV_Open(api, driverName.c_str(), kProbeAccess, kProbeFlags,
                                          kProbeArgumentA, kProbeArgumentB, &handle);
    if (status != 0 || !isValidKivHandle(handle)) {
        return {PlacementRemoval::kDriverOpen, status};
    }
    KivVolumeInformation information{};
    const std::uint32_t infoStatus =
        KIV_GetVolumeInformation(api, handle, sizeof(information), &information);
    KIV_Close(api, &handle);
    // Without the attributes nothing speaks against the volume.
    if (infoStatus == 0 && (information.attributes & kUnusableAttributes) != 0) {
        return {PlacementRemoval::kDriverAttributes, information.attributes};
    }
    return {};
}

// The normalised names of a configured list in ascending order, each with
// the spelling it was configured as. Every entry stays: a volume named twice
// is a candidate twice (and probed twice), and an empty name stays empty and
// is removed by the suitability tests like any name of no volume.
std::vector<std::pair<std::u16string, std::u16string>> normaliseList(
    const std::vector<std::u16string>& configured) {
    std::vector<std::pair<std::u16string, std::u16string>> list;
    for (const std::u16string& name : configured) {
        std::u16string normalised = name;
        normaliseVolumeName(normalised);
        list.emplace_back(std::move(normalised), name);
    }
    std::stable_sort(list.begin(), list.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return list;
}

std::vector<std::u16string> namesOf(
    const std::vector<std::pair<std::u16string, std::u16string>>& list) {
    std::vector<std::u16string> names;
    names.reserve(list.size());
    for (const auto& entry : list) {
        names.push_back(entry.first);
    }
    return names;
}

// A stable bottom-up merge sort. Unlike std::stable_sort, whose insertion
// step walks without bounds checks, it never leaves the range when `less`
// answers inconsistently, which free space queried afresh may do while other
// writers fill a volume.
template <typename Less>
void stableMergeSort(std::vector<std::u16string>& items, Less less) {
    const std::size_t size = items.size();
    std::vector<std::u16string> merged(size);
    for (std::size_t width = 1; width < size; width *= 2) {
        for (std::size_t low = 0; low < size; low += 2 * width) {
            const std::size_t middle = std::min(low + width, size);
            const std::size_t high = std::min(low + 2 * width, size);
            // On ties std::merge takes the left element first: stable.
            std::merge(std::make_move_iterator(items.begin() + low),
                       std::make_move_iterator(items.begin() + middle),
                       std::make_move_iterator(items.begin() + middle),
                       std::make_move_iterator(items.begin() + high), merged.begin() + low, less);
        }
        items.swap(merged);
    }
}

// Orders `survivors` (ascending by name) by total free bytes, most first,
// names in ascending order among equals, for any number of candidates: the
// list is reversed, sorted stably by ascending free space and read backwards.
std::vector<PlacementRank> orderByFreeSpace(std::vector<std::u16string> survivors) {
    std::map<std::u16string, std::uint64_t> seen;
    std::reverse(survivors.begin(), survivors.end());
    stableMergeSort(survivors, [&seen](const std::u16string& a, const std::u16string& b) {
        // The same two queries as freeSpaceLess, remembered for the report.
        const std::uint64_t freeA = queryVolumeSpace(a).freeBytes;
        const std::uint64_t freeB = queryVolumeSpace(b).freeBytes;
        seen[a] = freeA;
        seen[b] = freeB;
        return freeA < freeB;
    });
    std::reverse(survivors.begin(), survivors.end());
    std::vector<PlacementRank> order;
    order.reserve(survivors.size());
    for (std::u16string& name : survivors) {
        PlacementRank rank;
        if (auto found = seen.find(name); found != seen.end()) {
            rank.freeBytes = found->second;
        }
        rank.name = std::move(name);
        order.push_back(std::move(rank));
    }
    return order;
}

std::vector<std::u16string> survivorsOf(const std::vector<PlacementCandidate>& candidates) {
    std::vector<std::u16string> names;
    for (const PlacementCandidate& candidate : candidates) {
        if (candidate.removal == PlacementRemoval::kNone) {
            names.push_back(candidate.name);
        }
    }
    return names;
}

}  // namespace

void normaliseVolumeName(std::u16string& name) {
    if (name.empty()) {
        return;
    }
    volumeNameOf(name);
    // A name that now ends in a drive root ("x:\") becomes its device form.
    const std::size_t size = name.size();
    if (size >= 3 && name[size - 2] == u':') {
        char16_t& letter = name[size - 3];
        if (letter >= u'a' && letter <= u'z') {
            letter = static_cast<char16_t>(letter - u'a' + u'A');
        }
        name.insert(0, u"\\\\.\\");
    }
}

bool freeSpaceLess(const std::u16string& a, const std::u16string& b) {
    return queryVolumeSpace(a).freeBytes < queryVolumeSpace(b).freeBytes;
}

std::u16string formatCacheFileRequest(const std::vector<std::u16string>& targets,
                                      const CacheFileHints& hints) {
    std::u16string text = u"\tTargets\n";
    for (const std::u16string& target : targets) {
        text += u"\t\t" + target + u"\n";
    }
    text += u"\tHints\n";
    text += u"\t\texcludedVolumes = ";
    for (const std::u16string& volume : hints.excludedVolumes) {
        text += volume + u",";
    }
    text += u"\n\t\tpreferredVolumes = ";
    for (const std::u16string& volume : hints.preferredVolumes) {
        text += volume + u",";
    }
    text += u"\n\t\tinitialCacheFileSizeMB = " + decimal(hints.initialCacheFileSizeMB) + u"\n";
    text += u"\t\tmaxCacheFileSizeMB = " + decimal(hints.maxCacheFileSizeMB) + u"\n";
    text += u"\t\tinitialCacheFileSizePct = " + decimal(hints.initialCacheFileSizePct) + u"\n";
    text += u"\t\tmaxCacheFileSizePct = " + decimal(hints.maxCacheFileSizePct) + u"\n";
    return text;
}

bool placeCacheFiles(os::HANDLE mutex, const std::vector<std::u16string>& targets,
                     const CacheFileHints& hints, std::vector<std::u16string>& paths,
                     std::vector<CacheFileSizes>& sizes, PlacementReport* report) {
    // The explanation is collected for callers that show it (our tools); it is
    // never sent to the host, whose callback hears only the provider's own lines.
    PlacementReport local;
    PlacementReport& why = report != nullptr ? *report : local;
    why = PlacementReport{};
    why.targets = targets;

    // Held until the end of the placement on every path, a thrown error
    // included.
    std::optional<ProviderMutexLock> lock;
    try {
        lock.emplace(mutex);
    } catch (bool) {
        why.outcome = PlacementOutcome::kMutexNotObtained;
        return false;
    }

    try {
        std::vector<std::u16string> targetRoots;
        targetRoots.reserve(targets.size());
        for (const std::u16string& target : targets) {
            targetRoots.push_back(withTrailingBackslash(target));
        }
        std::vector<std::u16string> sortedTargets = targetRoots;
        std::sort(sortedTargets.begin(), sortedTargets.end());

        const auto preferred = normaliseList(hints.preferredVolumes);
        const std::vector<std::u16string> preferredNames = namesOf(preferred);
        std::vector<std::u16string> exclusions;
        for (const std::u16string& excluded : namesOf(normaliseList(hints.excludedVolumes))) {
            // Preferred wins over excluded.
            if (!contains(preferredNames, excluded)) {
                exclusions.push_back(excluded);
            }
        }

        // A single target may keep its cache on its own volume when that
        // volume is preferred; with several, no target holds the shared cache.
        for (const auto& [name, configured] : preferred) {
            PlacementCandidate candidate{name, configured};
            if (targets.size() != 1 && contains(sortedTargets, name)) {
                candidate.removal = PlacementRemoval::kTarget;
            } else {
                const Verdict verdict = testSuitability(name);
                candidate.removal = verdict.removal;
                candidate.detail = verdict.detail;
            }
            why.preferred.push_back(std::move(candidate));
        }

        std::vector<std::u16string> chosen = survivorsOf(why.preferred);
        PlacementOutcome outcome = PlacementOutcome::kPreferred;
        if (chosen.empty()) {
            why.fallbackRan = true;
            std::vector<std::u16string> volumes;
            for (VolumeIterator it = VolumeIterator::begin(); it != VolumeIterator::end(); ++it) {
                std::u16string name = *it;
                normaliseVolumeName(name);
                volumes.push_back(std::move(name));
            }
            std::sort(volumes.begin(), volumes.end());
            for (std::u16string& name : volumes) {
                PlacementCandidate candidate{std::move(name), {}};
                if (contains(exclusions, candidate.name)) {
                    candidate.removal = PlacementRemoval::kExcluded;
                } else {
                    const Verdict verdict = testSuitability(candidate.name);
                    candidate.removal = verdict.removal;
                    candidate.detail = verdict.detail;
                    // Targets are probed like every volume, then set aside.
                    if (candidate.removal == PlacementRemoval::kNone &&
                        contains(sortedTargets, candidate.name)) {
                        candidate.removal = PlacementRemoval::kTarget;
                    }
                }
                why.fallback.push_back(std::move(candidate));
            }
            chosen = survivorsOf(why.fallback);
            outcome = PlacementOutcome::kFallback;
        }

        std::vector<std::u16string> newPaths;
        std::vector<CacheFileSizes> newSizes;
        newPaths.reserve(targets.size());
        newSizes.reserve(targets.size());
        if (chosen.empty()) {
            // No shared cache volume: each target holds its own cache file.
            why.outcome = PlacementOutcome::kLastResort;
            for (const std::u16string& target : targetRoots) {
                const std::u16string volume = withoutTrailingBackslashes(target);
                newPaths.push_back(makeCacheFilePath(volume, hints.cacheFileDir));
                newSizes.push_back(computeCacheFileSizes(volume, volume, hints));
            }
        } else {
            why.order = orderByFreeSpace(std::move(chosen));
            why.outcome = outcome;
            why.cacheVolume = why.order.front().name;
            const std::u16string volume = withoutTrailingBackslashes(why.cacheVolume);
            for (const std::u16string& target : targetRoots) {
                newPaths.push_back(makeCacheFilePath(volume, hints.cacheFileDir));
                newSizes.push_back(
                    computeCacheFileSizes(withoutTrailingBackslashes(target), volume, hints));
            }
        }
        paths.insert(paths.end(), std::make_move_iterator(newPaths.begin()),
                     std::make_move_iterator(newPaths.end()));
        sizes.insert(sizes.end(), newSizes.begin(), newSizes.end());
        return true;
    } catch (os::DWORD) {
        why.outcome = PlacementOutcome::kNotRun;
        throw;
    }
}
