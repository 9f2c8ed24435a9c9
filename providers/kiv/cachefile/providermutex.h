// The machine-wide mutex that serialises cache placement across every
// process that loads the provider.
#ifndef PROVIDERS_KIV_CACHEFILE_PROVIDERMUTEX_H_
#define PROVIDERS_KIV_CACHEFILE_PROVIDERMUTEX_H_

#include "os/types.h"

inline constexpr os::DWORD kProviderMutexWaitMs = 10000;

// "Global\tarn_kiv_mutex" from major version 5 on, "tarn_kiv_mutex" before.
const char16_t* providerMutexName(os::DWORD majorVersion);

// The process's handle to the mutex, created on first call; closed when the
// plug-in is unloaded. Throws the os::DWORD last error when creation fails
// (the next call tries again).
os::HANDLE ProviderMutex();
// Closes the handle when the plug-in is unloaded; a later ProviderMutex()
// opens the mutex again.
void releaseProviderMutex();

// Holds the mutex for one cache placement. The constructor waits up to
// kProviderMutexWaitMs and throws the boolean false on time-out or
// abandonment; the destructor releases the mutex.
class ProviderMutexLock {
  public:
    explicit ProviderMutexLock(os::HANDLE mutex);
    ~ProviderMutexLock();
    ProviderMutexLock(const ProviderMutexLock&) = delete;
    ProviderMutexLock& operator=(const ProviderMutexLock&) = delete;

  private:
    os::HANDLE mutex_;
};

#endif  // PROVIDERS_KIV_CACHEFILE_PROVIDERMUTEX_H_
