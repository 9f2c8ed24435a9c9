#include "kiv/cachefile/providermutex.h"

#include <type_traits>

#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
#include "os/version.h"

namespace {

// The process's one handle to the mutex, closed by the plug-in's unload
// routine (releaseProviderMutex), also when the process exits with the
// plug-in loaded. No destructor of its own: the exit-time destructors run in
// an order the plug-in does not control.
struct MutexHolder {
    os::HANDLE handle = nullptr;
};
static_assert(std::is_trivially_destructible_v<MutexHolder>);

constinit MutexHolder mutexHolder;

MutexHolder& holder() {
    return mutexHolder;
}

}  // namespace

const char16_t* providerMutexName(os::DWORD majorVersion) {
    // From major version 5 on, the global kernel namespace makes the name
    // visible to every logon session of the machine.
    return majorVersion >= 5 ? u"Global\\tarn_kiv_mutex" : u"tarn_kiv_mutex";
}

os::HANDLE ProviderMutex() {
    MutexHolder& mutex = holder();
    if (mutex.handle != nullptr) {
        return mutex.handle;
    }
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    os::GetVersionExW(&version);
    os::HANDLE handle = os::CreateMutexW(nullptr, /*initialOwner=*/os::FALSE,
                                         providerMutexName(version.dwMajorVersion));
    if (handle == nullptr) {
        throw os::GetLastError();
    }
    mutex.handle = handle;
    return handle;
}

ProviderMutexLock::ProviderMutexLock(os::HANDLE mutex) : mutex_(mutex) {
    const os::DWORD result = os::WaitForSingleObject(mutex_, kProviderMutexWaitMs);
    if (result == os::WAIT_TIMEOUT) {
        throw false;
    }
    if (result == os::WAIT_ABANDONED) {
        // The wait made this thread the owner. Hand the mutex back, so that a
        // placement that gives up here does not keep every other process out.
        os::ReleaseMutex(mutex_);
        throw false;
    }
    // WAIT_OBJECT_0, and also WAIT_FAILED, count as holding the mutex.
}

ProviderMutexLock::~ProviderMutexLock() {
    os::ReleaseMutex(mutex_);
}

void releaseProviderMutex() {
    MutexHolder& mutex = holder();
    if (mutex.handle != nullptr) {
        os::CloseHandle(mutex.handle);
        mutex.handle = nullptr;
    }
}
