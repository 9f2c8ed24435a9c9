// Test hooks: injected faults, call counts, the virtual clock's state and
// the debug-output channel.
//
// Every os:: function passes through takeFault, so its common case is kept
// cheap: each function name has a CallSite, interned once in a table that is
// read without a lock, and with no fault set for the function a call costs an
// increment of its counter and one relaxed load. Everything else (setting and
// applying faults, the clock, the debug lines) takes the one mutex.
#include "sim/hooks.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "sim/clock.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace sim {
namespace {

struct Fault {
    std::uint32_t error = 0;
    std::uint64_t first = 0;  // first failing call number (1-based, absolute)
    std::uint64_t count = 0;  // kAlways: no end
};

struct Site : CallSite {
    explicit Site(std::string_view siteName) : name(siteName) {}
    const std::string name;
    std::vector<Fault> faults;  // guarded by HookState::mutex
};

// Interned call sites: open addressing over a fixed array, written under the
// mutex and read without it. Names beyond three quarters of the array (only
// tests that invent names get there) go to a map under the mutex.
class SiteTable {
  public:
    Site& intern(std::string_view name) {
        const std::size_t start = hash(name);
        for (std::size_t probe = 0; probe < kSlots; ++probe) {
            Site* site = slots_[(start + probe) % kSlots].load(std::memory_order_acquire);
            if (site == nullptr) {
                break;
            }
            if (site->name == name) {
                return *site;
            }
        }
        return insert(name, start);
    }

    // Every site, for clearFaults.
    template <class Visit>
    void forEach(Visit visit) {
        std::lock_guard lock(mutex_);
        for (Site* site : all_) {
            visit(*site);
        }
    }

  private:
    static constexpr std::size_t kSlots = 1024;

    static std::size_t hash(std::string_view name) {
        std::size_t value = 14695981039346656037ull;
        for (char c : name) {
            value = (value ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        }
        return value;
    }

    Site& insert(std::string_view name, std::size_t start) {
        std::lock_guard lock(mutex_);
        std::size_t free = kSlots;
        for (std::size_t probe = 0; probe < kSlots; ++probe) {
            const std::size_t slot = (start + probe) % kSlots;
            Site* site = slots_[slot].load(std::memory_order_relaxed);
            if (site == nullptr) {
                free = slot;
                break;
            }
            if (site->name == name) {
                return *site;
            }
        }
        if (auto found = overflow_.find(name); found != overflow_.end()) {
            return *found->second;
        }
        auto* site = new Site(name);
        all_.push_back(site);
        if (free != kSlots && all_.size() <= kSlots * 3 / 4) {
            slots_[free].store(site, std::memory_order_release);
        } else {
            overflow_.emplace(std::string(name), site);
        }
        return *site;
    }

    std::array<std::atomic<Site*>, kSlots> slots_{};
    std::mutex mutex_;
    std::vector<Site*> all_;
    std::map<std::string, Site*, std::less<>> overflow_;
};

// Never destroyed: call sites are referenced from static storage all over.
SiteTable& sites() {
    static SiteTable* instance = new SiteTable;
    return *instance;
}

struct HookState {
    std::mutex mutex;
    std::set<std::pair<std::string, std::string>> unbindable;
    std::set<std::string, std::less<>> missingLibraries;
    // Whether either set has entries, read without the mutex.
    std::atomic<bool> anyUnbindable{false};
    std::atomic<bool> anyMissingLibrary{false};

    bool virtualClock = false;
    std::uint64_t virtualMs = 0;
    std::int64_t wallAtStartMs = 0;  // real wall clock when the virtual clock started
    std::uint64_t virtualAtStartMs = 0;
    std::vector<std::uint32_t> sleeps;
    std::vector<std::uint32_t> waits;

    std::vector<std::string> debugLines;
};

// Never destroyed: hooks are consulted by static destructors of other libraries.
HookState& state() {
    static HookState* instance = new HookState;
    return *instance;
}

std::uint64_t realMonotonicMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

std::int64_t realWallMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The functions that pass through takeFault: the os:: functions of the
// simulated machine and the driver library's entry points. Sorted.
constexpr std::string_view kKnownFunctions[] = {
    "AdjustTokenPrivileges",
    "CallNamedPipeW",
    "CloseHandle",
    "ConnectNamedPipe",
    "CreateDirectoryW",
    "CreateMutexW",
    "CreateNamedPipeW",
    "DeleteCriticalSection",
    "DisableThreadLibraryCalls",
    "DisconnectNamedPipe",
    "DuplicateHandle",
    "EnterCriticalSection",
    "FindClose",
    "FindFirstFileW",
    "FindFirstVolumeMountPointW",
    "FindFirstVolumeW",
    "FindNextFileW",
    "FindNextVolumeMountPointW",
    "FindNextVolumeW",
    "FindVolumeClose",
    "FindVolumeMountPointClose",
    "FreeLibrary",
    "GetCurrentProcess",
    "GetCurrentProcessId",
    "GetDiskFreeSpaceExW",
    "GetDriveTypeW",
    "GetFileAttributesW",
    "GetLocalTime",
    "GetLogicalDriveStringsW",
    "GetModuleHandleW",
    "GetNamedPipeClientProcessId",
    "GetProcAddress",
    "GetSystemTime",
    "GetTickCount64",
    "GetVersionExW",
    "GetVolumeInformationW",
    "GetVolumeNameForVolumeMountPointW",
    "GetVolumePathNameW",
    "InitializeCriticalSectionAndSpinCount",
    "KIV_CancelAsyncOperation",
    "KIV_Close",
    "KIV_Create",
    "KIV_Destroy",
    "KIV_DeviceIoControl",
    "KIV_FreeResource",
    "KIV_GenerateVolumeName",
    "KIV_GetAsyncResult",
    "KIV_GetCacheMap",
    "KIV_GetVolumeInformation",
    "KIV_Open",
    "KIV_Prepare",
    "KIV_Read",
    "LeaveCriticalSection",
    "LoadLibraryW",
    "LookupPrivilegeValueW",
    "OpenProcess",
    "OpenProcessToken",
    "ReadFile",
    "RegisterEventSourceW",
    "ReleaseMutex",
    "ReportEventW",
    "Sleep",
    "WaitForSingleObject",
    "WriteFile",
};

static_assert(std::is_sorted(std::begin(kKnownFunctions), std::end(kKnownFunctions)));

}  // namespace

CallSite& callSite(std::string_view function) {
    return sites().intern(function);
}

bool isKnownFunction(std::string_view function) {
    return std::binary_search(std::begin(kKnownFunctions), std::end(kKnownFunctions), function);
}

void injectFault(std::string_view function, std::uint32_t error, std::uint32_t skip,
                 std::uint32_t count) {
    Site& site = sites().intern(function);
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    Fault fault;
    fault.error = error;
    fault.first = site.calls.load(std::memory_order_relaxed) + skip + 1;
    fault.count = count == kAlways ? kAlways : count;
    site.faults.push_back(fault);
    site.faulted.store(true, std::memory_order_release);
}

void makeUnbindable(std::string_view module, std::string_view exportName) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.unbindable.emplace(lowerAscii(module), std::string(exportName));
    hooks.anyUnbindable.store(true, std::memory_order_release);
}

void makeLibraryMissing(std::string_view module) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.missingLibraries.insert(lowerAscii(module));
    hooks.anyMissingLibrary.store(true, std::memory_order_release);
}

void clearFaults() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    sites().forEach([](Site& site) {
        site.faulted.store(false, std::memory_order_relaxed);
        site.faults.clear();
        site.calls.store(0, std::memory_order_relaxed);
    });
    hooks.unbindable.clear();
    hooks.missingLibraries.clear();
    hooks.anyUnbindable.store(false, std::memory_order_relaxed);
    hooks.anyMissingLibrary.store(false, std::memory_order_relaxed);
}

bool takeFault(CallSite& callSite, std::uint32_t* error) {
    // Faults listed in the machine file are registered when the machine is
    // loaded; load it before the first call counts, so that a file fault on
    // the first call of a fresh process is not missed.
    Machine::ensureLoadAttempted();
    const std::uint64_t call = callSite.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!callSite.faulted.load(std::memory_order_relaxed)) {
        return false;
    }
    auto& site = static_cast<Site&>(callSite);
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    for (const Fault& fault : site.faults) {
        const bool started = call >= fault.first;
        const bool ended = fault.count != kAlways && call >= fault.first + fault.count;
        if (started && !ended) {
            if (error != nullptr) {
                *error = fault.error;
            }
            return true;
        }
    }
    return false;
}

bool takeFault(std::string_view function, std::uint32_t* error) {
    return takeFault(sites().intern(function), error);
}

bool isUnbindable(std::string_view module, std::string_view exportName) {
    Machine::ensureLoadAttempted();
    HookState& hooks = state();
    if (!hooks.anyUnbindable.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard lock(hooks.mutex);
    return hooks.unbindable.count({lowerAscii(module), std::string(exportName)}) != 0;
}

bool isLibraryMissing(std::string_view module) {
    Machine::ensureLoadAttempted();
    HookState& hooks = state();
    if (!hooks.anyMissingLibrary.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard lock(hooks.mutex);
    return hooks.missingLibraries.count(lowerAscii(module)) != 0;
}

std::uint64_t callCount(std::string_view function) {
    return sites().intern(function).calls.load(std::memory_order_relaxed);
}

void useVirtualClock(bool on) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    if (on == hooks.virtualClock) {
        return;
    }
    hooks.virtualClock = on;
    if (on) {
        hooks.virtualMs = realMonotonicMs();
        hooks.virtualAtStartMs = hooks.virtualMs;
        hooks.wallAtStartMs = realWallMs();
    }
}

bool virtualClockOn() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.virtualClock;
}

std::vector<std::uint32_t> recordedSleeps() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.sleeps;
}

void clearRecordedSleeps() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.sleeps.clear();
}

std::uint64_t virtualNowMs() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.virtualMs;
}

void recordSleep(std::uint32_t milliseconds) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.sleeps.push_back(milliseconds);
    hooks.virtualMs += milliseconds;
}

void recordWait(std::uint32_t milliseconds) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.waits.push_back(milliseconds);
    hooks.virtualMs += milliseconds;
}

std::vector<std::uint32_t> recordedWaits() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.waits;
}

void clearRecordedWaits() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.waits.clear();
}

std::uint64_t nowMs() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.virtualClock ? hooks.virtualMs : realMonotonicMs();
}

std::int64_t wallClockMs() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    if (!hooks.virtualClock) {
        return realWallMs();
    }
    return hooks.wallAtStartMs +
           static_cast<std::int64_t>(hooks.virtualMs - hooks.virtualAtStartMs);
}

void advanceVirtualClock(std::uint64_t milliseconds) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    if (hooks.virtualClock) {
        hooks.virtualMs += milliseconds;
    }
}

std::vector<std::string> debugOutput() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.debugLines;
}

void clearDebugOutput() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.debugLines.clear();
}

void recordDebugOutput(std::string line) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.debugLines.push_back(std::move(line));
}

}  // namespace sim
