// Test hooks: injected faults, call counts, the virtual clock's state and
// the debug-output channel. One mutex guards all of it; every hook is cheap
// enough that contention does not matter in tests.
#include "sim/hooks.h"

#include <algorithm>
#include <chrono>
#include <map>
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

struct HookState {
    std::mutex mutex;
    std::map<std::string, std::vector<Fault>, std::less<>> faults;
    std::map<std::string, std::uint64_t, std::less<>> calls;
    std::set<std::pair<std::string, std::string>> unbindable;
    std::set<std::string, std::less<>> missingLibraries;

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

}  // namespace

void injectFault(std::string_view function, std::uint32_t error, std::uint32_t skip,
                 std::uint32_t count) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    const std::uint64_t seen = hooks.calls[std::string(function)];
    Fault fault;
    fault.error = error;
    fault.first = seen + skip + 1;
    fault.count = count == kAlways ? kAlways : count;
    hooks.faults[std::string(function)].push_back(fault);
}

void makeUnbindable(std::string_view module, std::string_view exportName) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.unbindable.emplace(lowerAscii(module), std::string(exportName));
}

void makeLibraryMissing(std::string_view module) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.missingLibraries.insert(lowerAscii(module));
}

void clearFaults() {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    hooks.faults.clear();
    hooks.calls.clear();
    hooks.unbindable.clear();
    hooks.missingLibraries.clear();
}

bool takeFault(std::string_view function, std::uint32_t* error) {
    // Faults listed in the machine file are registered when the machine is
    // loaded; load it before the first call counts, so that a file fault on
    // the first call of a fresh process is not missed.
    Machine::ensureLoadAttempted();
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    auto counted = hooks.calls.find(function);
    if (counted == hooks.calls.end()) {
        counted = hooks.calls.emplace(std::string(function), 0).first;
    }
    const std::uint64_t call = ++counted->second;
    auto listed = hooks.faults.find(function);
    if (listed == hooks.faults.end()) {
        return false;
    }
    for (const Fault& fault : listed->second) {
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

bool isUnbindable(std::string_view module, std::string_view exportName) {
    Machine::ensureLoadAttempted();
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.unbindable.count({lowerAscii(module), std::string(exportName)}) != 0;
}

bool isLibraryMissing(std::string_view module) {
    Machine::ensureLoadAttempted();
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    return hooks.missingLibraries.count(lowerAscii(module)) != 0;
}

std::uint64_t callCount(std::string_view function) {
    HookState& hooks = state();
    std::lock_guard lock(hooks.mutex);
    auto counted = hooks.calls.find(function);
    return counted == hooks.calls.end() ? 0 : counted->second;
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
