#include "kiv/cachefile/kivapi.h"

#include <atomic>
#include <thread>
#include <type_traits>

#include "os/error.h"
#include "os/module.h"
#include "os/sync.h"

const char* const kKivApiEntryPoints[13] = {
    "KIV_Open",
    "KIV_Close",
    "KIV_DeviceIoControl",
    "KIV_Read",
    "KIV_Prepare",
    "KIV_Create",
    "KIV_Destroy",
    "KIV_GetAsyncResult",
    "KIV_CancelAsyncOperation",
    "KIV_GetVolumeInformation",
    "KIV_GenerateVolumeName",
    "KIV_GetCacheMap",
    "KIV_FreeResource",
};

namespace {

// The binding lock. Plain storage and an atomic state, both constant
// initialised, so no constructor runs at library load.
os::CRITICAL_SECTION bindingLock;
enum LockState : int { kLockAbsent = 0, kLockCreating = 1, kLockReady = 2 };
std::atomic<int> bindingLockState{kLockAbsent};

// Creates the lock once, whoever comes first: the library's load routine or,
// in programs that link the provider statically (tests), the first kivApi().
void ensureBindingLock() {
    if (bindingLockState.load(std::memory_order_acquire) == kLockReady) {
        return;
    }
    int expected = kLockAbsent;
    if (bindingLockState.compare_exchange_strong(expected, kLockCreating,
                                                 std::memory_order_acq_rel)) {
        os::InitializeCriticalSectionAndSpinCount(&bindingLock, /*spinCount=*/1);
        bindingLockState.store(kLockReady, std::memory_order_release);
        return;
    }
    while (bindingLockState.load(std::memory_order_acquire) != kLockReady) {
        std::this_thread::yield();
    }
}

// The process-wide table. Plain storage without a destructor: the driver
// library is unloaded by the plug-in's unload routine (releaseKivApi), after
// the nodes have closed their driver handles, never by the exit-time
// destructors, which run before that routine when the process exits with the
// plug-in loaded.
struct KivApiHolder {
    KivApi api{};
    std::atomic<bool> built{false};
};
static_assert(std::is_trivially_destructible_v<KivApiHolder>);

constinit KivApiHolder apiHolder;

KivApiHolder& holder() {
    return apiHolder;
}

class BindingLockGuard {
  public:
    BindingLockGuard() { os::EnterCriticalSection(&bindingLock); }
    ~BindingLockGuard() { os::LeaveCriticalSection(&bindingLock); }
    BindingLockGuard(const BindingLockGuard&) = delete;
    BindingLockGuard& operator=(const BindingLockGuard&) = delete;
};

template <class Function>
Function entryPoint(os::FARPROC address) {
    return reinterpret_cast<Function>(address);
}

}  // namespace

void initKivApiLock() {
    ensureBindingLock();
}

void deleteKivApiLock() {
    int expected = kLockReady;
    if (bindingLockState.compare_exchange_strong(expected, kLockCreating,
                                                 std::memory_order_acq_rel)) {
        os::DeleteCriticalSection(&bindingLock);
        bindingLockState.store(kLockAbsent, std::memory_order_release);
    }
}

void releaseKivApi() {
    KivApiHolder& table = holder();
    if (!table.built.exchange(false, std::memory_order_acq_rel)) {
        return;
    }
    if (table.api.module != nullptr) {
        os::FreeLibrary(table.api.module);
    }
    table.api = KivApi{};
}

KivApi* kivApi() {
    KivApiHolder& table = holder();
    if (table.built.load(std::memory_order_acquire)) {
        return &table.api;
    }
    ensureBindingLock();
    BindingLockGuard guard;
    if (table.built.load(std::memory_order_acquire)) {
        return &table.api;
    }
    os::HMODULE module = os::LoadLibraryW(u"kivapi.dll");
    if (module == nullptr) {
        throw os::GetLastError();
    }
    os::FARPROC found[13] = {};
    for (int i = 0; i < 13; ++i) {
        found[i] = os::GetProcAddress(module, kKivApiEntryPoints[i]);
        if (found[i] == nullptr) {
            const os::DWORD error = os::GetLastError();
            // Each attempt loads the library again; drop this attempt's
            // reference so that retries do not pile them up.
            os::FreeLibrary(module);
            throw error;
        }
    }
    KivApi& api = table.api;
    api.open = entryPoint<KIV_Open_t>(found[0]);
    api.close = entryPoint<KIV_Close_t>(found[1]);
    api.deviceIoControl = entryPoint<KIV_DeviceIoControl_t>(found[2]);
    api.read = entryPoint<KIV_Read_t>(found[3]);
    api.prepare = entryPoint<KIV_Prepare_t>(found[4]);
    api.create = entryPoint<KIV_Create_t>(found[5]);
    api.destroy = entryPoint<KIV_Destroy_t>(found[6]);
    api.getAsyncResult = entryPoint<KIV_GetAsyncResult_t>(found[7]);
    api.cancelAsyncOperation = entryPoint<KIV_CancelAsyncOperation_t>(found[8]);
    api.getVolumeInformation = entryPoint<KIV_GetVolumeInformation_t>(found[9]);
    api.generateVolumeName = entryPoint<KIV_GenerateVolumeName_t>(found[10]);
    api.getCacheMap = entryPoint<KIV_GetCacheMap_t>(found[11]);
    api.freeResource = entryPoint<KIV_FreeResource_t>(found[12]);
    api.module = module;
    table.built.store(true, std::memory_order_release);
    return &api;
}

std::uint32_t KIV_Open(KivApi* api, const char* name, std::uint32_t access, std::uint32_t flags,
                       std::uint32_t a, std::uint32_t b, KivHandle* handle) {
    return api->open(name, access, flags, a, b, handle);
}

std::uint32_t KIV_Close(KivApi* api, KivHandle* handle) {
    return api->close(handle);
}

std::uint32_t KIV_Prepare(KivApi* api, const void* parameters, std::uint16_t count,
                          std::uint16_t elementSize, KivHandle* snapshot) {
    return api->prepare(parameters, count, elementSize, snapshot);
}

std::uint32_t KIV_Create(KivApi* api, KivHandle snapshot, std::uint32_t quiesceWait,
                         std::uint32_t quiesceTimeout, std::uint64_t reserved) {
    return api->create(snapshot, quiesceWait, quiesceTimeout, reserved);
}

std::uint32_t KIV_Destroy(KivApi* api, KivHandle* snapshot, std::uint32_t flags) {
    return api->destroy(snapshot, flags);
}

std::uint32_t KIV_GetVolumeInformation(KivApi* api, KivHandle handle, std::uint16_t size,
                                       KivVolumeInformation* information) {
    return api->getVolumeInformation(handle, size, information);
}

std::uint32_t KIV_GenerateVolumeName(KivApi* api, std::uint16_t kind, char** name) {
    return api->generateVolumeName(kind, name);
}

std::uint32_t KIV_FreeResource(KivApi* api, void* resource) {
    return api->freeResource(resource);
}
