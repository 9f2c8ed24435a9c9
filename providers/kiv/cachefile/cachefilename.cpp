#include "kiv/cachefile/cachefilename.h"

#include <algorithm>
#include <cstdarg>
#include <limits>
#include <string>

#include "kiv/kivficoordinator.h"
#include "os/error.h"
#include "os/file.h"
#include "os/types.h"
#include "os/volume.h"
#include "path_helper.h"
#include "strings/bounded_string.h"
#include "tarn/records.h"

namespace {

// Guarded by the ProviderMutex that every caller holds; a plain integer so it
// needs no constructor and is 0 as soon as the library is loaded.
std::uint32_t gCacheFileCounter = 0;

constexpr std::size_t kMessageCapacity = 4096;
constexpr std::uint32_t kMessageInformation = 1;
constexpr std::uint32_t kMessageWarning = 2;

std::uint32_t saturate32(std::uint64_t value) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

// percentage (1..99) of `megabytes`, rounded down, in 64-bit arithmetic.
std::uint32_t shareOf(std::uint64_t megabytes, std::uint32_t percentage) {
    // megabytes < 2^44 (2^64 bytes / 2^20), so the product cannot overflow.
    return saturate32(megabytes * percentage / 100);
}

// Formats one sizing message and hands it to the host's callback; dropped
// when there is no coordinator, no framework context or no callback.
void reportSizing(std::uint32_t level, const char16_t* format, ...) {
    tarn_context* context = nullptr;
    try {
        context = KivFiCoordinator::instance().frameworkContext();
    } catch (os::DWORD) {
        // Without a driver binding there is no coordinator and no host to tell.
        return;
    }
    if (context == nullptr || context->msg_callback == nullptr) {
        return;
    }
    char16_t text[kMessageCapacity];
    va_list arguments;
    va_start(arguments, format);
    boundedFormatWide(text, kMessageCapacity, format, arguments);
    va_end(arguments);
    context->msg_callback(context, text, nullptr, level);
}

}  // namespace

std::uint32_t cacheFileCounter() {
    return gCacheFileCounter;
}

void setCacheFileCounter(std::uint32_t value) {
    gCacheFileCounter = value;
}

std::u16string makeCacheFilePath(const std::u16string& volumeRoot,
                                 const std::u16string& cacheFileDir) {
    for (;;) {
        std::u16string path = withTrailingBackslash(volumeRoot);
        if (!cacheFileDir.empty()) {
            path = withTrailingBackslash(path + cacheFileDir);
            // A directory that cannot be made shows only when the driver
            // creates the file; the name is still the one asked for.
            createDirectoryPath(path);
        }
        const std::uint32_t number = gCacheFileCounter++;  // unsigned: wraps to 0
        std::string digits = std::to_string(number);
        path += u"_tarnKivCacheFile_";
        path.append(digits.begin(), digits.end());
        path += u".KIV";
        if (!fileExists(path)) {
            return path;
        }
    }
}

bool createDirectoryPath(const std::u16string& path) {
    const os::DWORD attributes = os::GetFileAttributesW(path.c_str());
    if (attributes == os::INVALID_FILE_ATTRIBUTES) {
        if (os::CreateDirectoryW(path.c_str(), nullptr)) {
            return true;
        }
        // Most likely a parent is missing: make it, then try once more.
        const std::u16string trimmed = withoutTrailingBackslashes(path);
        const std::size_t lastSeparator = trimmed.rfind(u'\\');
        if (lastSeparator == std::u16string::npos || lastSeparator == 0) {
            return false;
        }
        if (!createDirectoryPath(trimmed.substr(0, lastSeparator))) {
            return false;
        }
        return os::CreateDirectoryW(path.c_str(), nullptr) != os::FALSE;
    }
    if ((attributes & os::FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return true;
    }
    os::SetLastError(os::ERROR_ALREADY_EXISTS);
    return false;
}

bool fileExists(const std::u16string& path) {
    if (path.size() > kMaxCacheFilePathLength) {
        return false;
    }
    os::WIN32_FIND_DATAW data{};
    const os::HANDLE find = os::FindFirstFileW(path.c_str(), &data);
    if (find == os::INVALID_HANDLE_VALUE || find == nullptr) {
        return false;
    }
    os::FindClose(find);
    return true;
}

void clampPercentage(std::uint32_t& percentage) {
    if (percentage > 99) {
        percentage = 99;
    } else if (percentage < 1) {
        percentage = 1;
    }
}

VolumeSpace queryVolumeSpace(const std::u16string& volumeName) {
    const std::u16string root = withTrailingBackslash(volumeName);
    os::ULARGE_INTEGER available{};
    os::ULARGE_INTEGER total{};
    os::ULARGE_INTEGER totalFree{};
    if (!os::GetDiskFreeSpaceExW(root.c_str(), &available, &total, &totalFree)) {
        return {};
    }
    return {total.QuadPart, totalFree.QuadPart};
}

std::uint32_t computeInitialCacheFileSize(const std::u16string& volumeName,
                                          const CacheFileHints& hints) {
    if (hints.initialCacheFileSizeMB != 0) {
        reportSizing(kMessageInformation,
                     u"INFO: Absolute value for cachevolume size is considered for resource %s",
                     volumeName.c_str());
        return hints.initialCacheFileSizeMB;
    }
    reportSizing(
        kMessageInformation,
        u"INFO: cachefileInitSizePercentages are considered to find cachesize for resource %s",
        volumeName.c_str());
    std::uint32_t percentage = hints.initialCacheFileSizePct;
    clampPercentage(percentage);

    const VolumeSpace space = queryVolumeSpace(volumeName);
    const std::uint64_t usedBytes =
        space.totalBytes > space.freeBytes ? space.totalBytes - space.freeBytes : 0;
    const std::uint64_t usedMB = usedBytes / kBytesPerMB;
    const std::uint64_t freeMB = space.freeBytes / kBytesPerMB;
    if (freeMB < kMinCacheFileSizeMB) {
        reportSizing(kMessageWarning,
                     u"WARNING: Freespace of cachevolume is less than 50MB for resource %s",
                     volumeName.c_str());
    }

    std::uint32_t size = shareOf(usedMB, percentage);
    if (size > freeMB) {
        size = shareOf(freeMB, 95);
        reportSizing(kMessageInformation,
                     u"INFO: 95%% [%lu MB] of Cache volume Freespace [%lu MB] is considered for "
                     u"resource %s",
                     size, saturate32(freeMB), volumeName.c_str());
    }
    return std::max(size, kMinCacheFileSizeMB);
}

std::uint32_t computeMaxCacheFileSize(const std::u16string& volumeName,
                                      const CacheFileHints& hints) {
    if (hints.maxCacheFileSizeMB != 0) {
        return hints.maxCacheFileSizeMB;
    }
    const std::uint64_t freeMB = queryVolumeSpace(volumeName).freeBytes / kBytesPerMB;
    std::uint32_t percentage = hints.maxCacheFileSizePct;
    clampPercentage(percentage);
    return std::max(shareOf(freeMB, percentage), kMinCacheFileSizeMB);
}

CacheFileSizes computeCacheFileSizes(const std::u16string& target,
                                     const std::u16string& cacheVolume,
                                     const CacheFileHints& hints) {
    std::uint32_t initial = 0;
    if (withoutTrailingBackslashes(target) == withoutTrailingBackslashes(cacheVolume)) {
        initial = computeInitialCacheFileSize(target, hints);
    }
    const std::uint32_t maximum = computeMaxCacheFileSize(cacheVolume, hints);
    return {std::min(initial, maximum), maximum};
}
