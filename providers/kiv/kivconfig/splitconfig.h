// Typed views of a node's quiesce and split settings, read from the entries of
// its configuration (KivConfig) and handed to the snapshot driver.
#ifndef PROVIDERS_KIV_KIVCONFIG_SPLITCONFIG_H_
#define PROVIDERS_KIV_KIVCONFIG_SPLITCONFIG_H_

#include <cstdint>
#include <string>

// The two times that snapshot creation passes on to the driver, in the
// driver's unit; 0 when not configured.
struct QuiesceConfig {
    std::uint32_t quiesceWait = 0;
    std::uint32_t quiesceTimeout = 0;
};

// The snapshot volume and cache file of one source volume. Names are UTF-8;
// sizes are megabytes. Empty names and 0 sizes when not configured.
struct SplitConfig {
    std::string snapshotVolumeName;
    std::string cacheFileName;
    std::uint32_t initialCacheFileSize = 0;
    std::uint32_t maximumCacheFileSize = 0;
};

#endif  // PROVIDERS_KIV_KIVCONFIG_SPLITCONFIG_H_
