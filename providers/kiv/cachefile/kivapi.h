// Binding of the snapshot driver's API library "kivapi.dll".
//
// One process-wide table holds the library handle and the 13 entry points in
// their fixed order; it is built on first use under the binding lock and
// released (the library unloaded) at process exit. Once built it is read-only
// and shared by all threads.
#ifndef PROVIDERS_KIV_CACHEFILE_KIVAPI_H_
#define PROVIDERS_KIV_CACHEFILE_KIVAPI_H_

#include <cstddef>
#include <cstdint>

#include "os/types.h"

using KivHandle = std::uint64_t;
// 0 and all ones both mean "no handle".
inline constexpr KivHandle kInvalidKivHandle = ~KivHandle{0};
inline bool isValidKivHandle(KivHandle handle) {
    return handle != 0 && handle != kInvalidKivHandle;
}

// Volume attribute bits of KivVolumeInformation::attributes.
inline constexpr std::uint32_t KIV_ATTRIBUTE_SOURCE = 0x1;
inline constexpr std::uint32_t KIV_ATTRIBUTE_CLAIMED = 0x2;
inline constexpr std::uint32_t KIV_ATTRIBUTE_DISABLED = 0x4;
inline constexpr std::uint32_t KIV_ATTRIBUTE_SNAPSHOT = 0x8;
inline constexpr std::uint32_t KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE = 0x10;

struct KivVolumeInformation {
    std::uint32_t attributes;  // 0x00
    std::uint32_t value;       // 0x04, reported next to the attribute names
    unsigned char reserved[32];
};
static_assert(sizeof(KivVolumeInformation) == 40);
static_assert(offsetof(KivVolumeInformation, value) == 4);

// One element of the array given to KIV_Prepare.
struct KivSnapshotParametersRecord {
    KivHandle SourceVolumeObject;        // 0
    const char* SnapshotVolumeName;      // 8, UTF-8
    const char* CacheFileName;           // 16, UTF-8
    std::uint32_t InitialCacheFileSize;  // 24, MB
    std::uint32_t MaximumCacheFileSize;  // 28, MB
    std::uint32_t Reserved;              // 32, always 0
    std::uint32_t Padding;               // 36
};
static_assert(sizeof(KivSnapshotParametersRecord) == 40);
static_assert(offsetof(KivSnapshotParametersRecord, CacheFileName) == 16);
static_assert(offsetof(KivSnapshotParametersRecord, Reserved) == 32);

extern "C" {
typedef std::uint32_t (*KIV_Open_t)(const char* name, std::uint32_t access, std::uint32_t flags,
                                    std::uint32_t a, std::uint32_t b, KivHandle* handle);
typedef std::uint32_t (*KIV_Close_t)(KivHandle* handle);
typedef std::uint32_t (*KIV_DeviceIoControl_t)(KivHandle handle, std::uint32_t code, void* in,
                                               std::uint32_t inSize, void* out,
                                               std::uint32_t outSize, std::uint32_t* returned);
typedef std::uint32_t (*KIV_Read_t)(KivHandle handle, std::uint64_t offset, void* buffer,
                                    std::uint32_t size, std::uint32_t* read);
typedef std::uint32_t (*KIV_Prepare_t)(const void* parameters, std::uint16_t count,
                                       std::uint16_t elementSize, KivHandle* snapshot);
typedef std::uint32_t (*KIV_Create_t)(KivHandle snapshot, std::uint32_t quiesceWait,
                                      std::uint32_t quiesceTimeout, std::uint64_t reserved);
typedef std::uint32_t (*KIV_Destroy_t)(KivHandle* snapshot, std::uint32_t flags);
typedef std::uint32_t (*KIV_GetAsyncResult_t)(KivHandle handle, std::uint32_t* result);
typedef std::uint32_t (*KIV_CancelAsyncOperation_t)(KivHandle handle);
typedef std::uint32_t (*KIV_GetVolumeInformation_t)(KivHandle handle, std::uint16_t size,
                                                    KivVolumeInformation* information);
typedef std::uint32_t (*KIV_GenerateVolumeName_t)(std::uint16_t kind, char** name);
typedef std::uint32_t (*KIV_GetCacheMap_t)(KivHandle handle, void* buffer, std::uint32_t size,
                                           std::uint32_t* returned);
typedef std::uint32_t (*KIV_FreeResource_t)(void* resource);
}

struct KivApi {
    KIV_Open_t open;
    KIV_Close_t close;
    KIV_DeviceIoControl_t deviceIoControl;
    KIV_Read_t read;
    KIV_Prepare_t prepare;
    KIV_Create_t create;
    KIV_Destroy_t destroy;
    KIV_GetAsyncResult_t getAsyncResult;
    KIV_CancelAsyncOperation_t cancelAsyncOperation;
    KIV_GetVolumeInformation_t getVolumeInformation;
    KIV_GenerateVolumeName_t generateVolumeName;
    KIV_GetCacheMap_t getCacheMap;
    KIV_FreeResource_t freeResource;
    os::HMODULE module;
};

// The exported names in table order.
extern const char* const kKivApiEntryPoints[13];

// The process-wide table, built on first call. Throws the os::DWORD last error
// when the library or an entry point cannot be found; the next call tries
// again.
KivApi* kivApi();
// Unloads the driver library and empties the table when the plug-in is
// unloaded, after every node has closed its driver handles; a later kivApi()
// binds again. Does nothing when the table was never built.
void releaseKivApi();

// The binding lock; created when the plug-in is loaded, deleted at unload.
void initKivApiLock();
void deleteKivApiLock();

// Forwarding calls; each returns the entry point's status.
std::uint32_t KIV_Open(KivApi* api, const char* name, std::uint32_t access, std::uint32_t flags,
                       std::uint32_t a, std::uint32_t b, KivHandle* handle);
std::uint32_t KIV_Close(KivApi* api, KivHandle* handle);
std::uint32_t KIV_Prepare(KivApi* api, const void* parameters, std::uint16_t count,
                          std::uint16_t elementSize, KivHandle* snapshot);
std::uint32_t KIV_Create(KivApi* api, KivHandle snapshot, std::uint32_t quiesceWait,
                         std::uint32_t quiesceTimeout, std::uint64_t reserved);
std::uint32_t KIV_Destroy(KivApi* api, KivHandle* snapshot, std::uint32_t flags);
std::uint32_t KIV_GetVolumeInformation(KivApi* api, KivHandle handle, std::uint16_t size,
                                       KivVolumeInformation* information);
std::uint32_t KIV_GenerateVolumeName(KivApi* api, std::uint16_t kind, char** name);
std::uint32_t KIV_FreeResource(KivApi* api, void* resource);

#endif  // PROVIDERS_KIV_CACHEFILE_KIVAPI_H_
