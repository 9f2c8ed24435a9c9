// The snapshot driver's API library "kivapi.dll": its handles, records,
// attribute bits and the signatures of its 13 entry points, as the library
// ships them to programs that load it. Callers bind the entry points by name
// at run time (GetProcAddress) and call them through these pointer types.
//
// Every entry point answers an unsigned 32-bit status: 0 on success, else a
// Win32 error code.
#ifndef DRIVERS_KIVSIM_INCLUDE_KIVSIM_KIVAPI_H_
#define DRIVERS_KIVSIM_INCLUDE_KIVSIM_KIVAPI_H_

#include <cstddef>
#include <cstdint>

using KivHandle = std::uint64_t;
// 0 and all ones both mean "no handle"; KIV_Close leaves all ones behind.
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

#endif  // DRIVERS_KIVSIM_INCLUDE_KIVSIM_KIVAPI_H_
