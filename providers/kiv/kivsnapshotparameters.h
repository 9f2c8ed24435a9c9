// One element of the array that KIV_Prepare receives: a source volume's
// handle, the name its snapshot volume is to get, the cache file and its
// sizes.
//
// The object has exactly the driver's 40-byte record layout, so a contiguous
// array of them (a std::vector) is the array the driver reads. Each element
// owns private copies of its two strings: they are duplicated when the
// element is built or copied and freed when it is destroyed, so the driver
// must not keep the pointers beyond the call.
#ifndef PROVIDERS_KIV_KIVSNAPSHOTPARAMETERS_H_
#define PROVIDERS_KIV_KIVSNAPSHOTPARAMETERS_H_

#include <cstdint>
#include <string>

#include "kiv/cachefile/kivapi.h"

class KivSnapshotParameters {
  public:
    KivSnapshotParameters(KivHandle sourceVolumeObject, const std::string& snapshotVolumeName,
                          const std::string& cacheFileName, std::uint32_t initialCacheFileSize,
                          std::uint32_t maximumCacheFileSize, std::uint32_t reserved = 0);
    KivSnapshotParameters(const KivSnapshotParameters& other);
    KivSnapshotParameters(KivSnapshotParameters&& other) noexcept;
    KivSnapshotParameters& operator=(const KivSnapshotParameters& other);
    KivSnapshotParameters& operator=(KivSnapshotParameters&& other) noexcept;
    ~KivSnapshotParameters();

    const KivSnapshotParametersRecord& record() const { return record_; }
    KivHandle sourceVolumeObject() const { return record_.SourceVolumeObject; }
    const char* snapshotVolumeName() const { return record_.SnapshotVolumeName; }
    const char* cacheFileName() const { return record_.CacheFileName; }
    std::uint32_t initialCacheFileSize() const { return record_.InitialCacheFileSize; }
    std::uint32_t maximumCacheFileSize() const { return record_.MaximumCacheFileSize; }

  private:
    void release() noexcept;

    KivSnapshotParametersRecord record_;
};

// An array of these is handed to the driver as an array of records.
static_assert(sizeof(KivSnapshotParameters) == 40);
static_assert(sizeof(KivSnapshotParameters) == sizeof(KivSnapshotParametersRecord));

#endif  // PROVIDERS_KIV_KIVSNAPSHOTPARAMETERS_H_
