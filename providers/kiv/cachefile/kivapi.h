// Binding of the snapshot driver's API library "kivapi.dll", whose records
// and entry point types come with the library (kivsim/kivapi.h).
//
// One process-wide table holds the library handle and the 13 entry points in
// their fixed order; it is built on first use under the binding lock and
// released (the library unloaded) at process exit. Once built it is read-only
// and shared by all threads.
#ifndef PROVIDERS_KIV_CACHEFILE_KIVAPI_H_
#define PROVIDERS_KIV_CACHEFILE_KIVAPI_H_

#include <cstdint>

#include "kivsim/kivapi.h"
#include "os/types.h"

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
