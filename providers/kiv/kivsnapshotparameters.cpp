#include "kiv/kivsnapshotparameters.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

static_assert(std::is_standard_layout_v<KivSnapshotParameters>);

namespace {

// A heap copy of `text` (null stays null); throws std::bad_alloc.
char* duplicate(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    std::size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

KivSnapshotParameters::KivSnapshotParameters(KivHandle sourceVolumeObject,
                                             const std::string& snapshotVolumeName,
                                             const std::string& cacheFileName,
                                             std::uint32_t initialCacheFileSize,
                                             std::uint32_t maximumCacheFileSize,
                                             std::uint32_t reserved)
    : record_{} {
    record_.SourceVolumeObject = sourceVolumeObject;
    record_.InitialCacheFileSize = initialCacheFileSize;
    record_.MaximumCacheFileSize = maximumCacheFileSize;
    record_.Reserved = reserved;
    record_.SnapshotVolumeName = duplicate(snapshotVolumeName.c_str());
    try {
        record_.CacheFileName = duplicate(cacheFileName.c_str());
    } catch (...) {
        release();
        throw;
    }
}

KivSnapshotParameters::KivSnapshotParameters(const KivSnapshotParameters& other)
    : record_(other.record_) {
    record_.SnapshotVolumeName = nullptr;
    record_.CacheFileName = nullptr;
    record_.SnapshotVolumeName = duplicate(other.record_.SnapshotVolumeName);
    try {
        record_.CacheFileName = duplicate(other.record_.CacheFileName);
    } catch (...) {
        release();
        throw;
    }
}

KivSnapshotParameters::KivSnapshotParameters(KivSnapshotParameters&& other) noexcept
    : record_(other.record_) {
    other.record_.SnapshotVolumeName = nullptr;
    other.record_.CacheFileName = nullptr;
}

KivSnapshotParameters& KivSnapshotParameters::operator=(const KivSnapshotParameters& other) {
    if (this != &other) {
        KivSnapshotParameters copy(other);
        *this = std::move(copy);
    }
    return *this;
}

KivSnapshotParameters& KivSnapshotParameters::operator=(KivSnapshotParameters&& other) noexcept {
    if (this != &other) {
        release();
        record_ = other.record_;
        other.record_.SnapshotVolumeName = nullptr;
        other.record_.CacheFileName = nullptr;
    }
    return *this;
}

KivSnapshotParameters::~KivSnapshotParameters() {
    release();
}

void KivSnapshotParameters::release() noexcept {
    std::free(const_cast<char*>(record_.SnapshotVolumeName));
    std::free(const_cast<char*>(record_.CacheFileName));
    record_.SnapshotVolumeName = nullptr;
    record_.CacheFileName = nullptr;
}
