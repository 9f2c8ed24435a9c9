// The cache placement request built from a group's cache settings.
#ifndef PROVIDERS_KIV_CACHEFILE_CACHEFILEHINTS_H_
#define PROVIDERS_KIV_CACHEFILE_CACHEFILEHINTS_H_

#include <cstdint>
#include <string>
#include <vector>

struct CacheFileHints {
    std::vector<std::u16string> preferredVolumes;  // tried first
    std::vector<std::u16string> excludedVolumes;   // never used unless also preferred
    std::u16string cacheFileDir;                   // below the volume root; may be empty
    std::uint32_t initialCacheFileSizeMB = 0;      // 0: the percentage applies
    std::uint32_t maxCacheFileSizeMB = 0;          // 0: the percentage applies
    std::uint32_t initialCacheFileSizePct = 0;     // of the volume's used space
    std::uint32_t maxCacheFileSizePct = 0;         // of the cache volume's free space
};

#endif  // PROVIDERS_KIV_CACHEFILE_CACHEFILEHINTS_H_
