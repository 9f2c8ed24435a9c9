// Test hooks of the simulated machine: fault injection per function, a
// virtual clock, and the debug-output channel. Everything is off until a test
// turns it on. Faults can also be listed in the machine file ("faults"), so
// that processes started by a test inherit them.
//
// All functions are thread-safe. With no fault set, the check at the start of
// a function costs an increment of its call counter and one relaxed load.
#ifndef PLATFORM_SIM_INCLUDE_SIM_HOOKS_H_
#define PLATFORM_SIM_INCLUDE_SIM_HOOKS_H_

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Makes `function` (an os:: name such as "GetDiskFreeSpaceExW", or a driver
// entry point such as "KIV_Destroy") fail with `error` on its calls number
// skip+1 .. skip+count, counted from now. count kAlways fails every call.
inline constexpr std::uint32_t kAlways = 0xFFFFFFFF;
void injectFault(std::string_view function, std::uint32_t error, std::uint32_t skip = 0,
                 std::uint32_t count = 1);
// Makes GetProcAddress answer NULL (ERROR_PROC_NOT_FOUND) for `exportName` in
// the module whose file name is `module` ("kernel32.dll", "kivapi.dll").
void makeUnbindable(std::string_view module, std::string_view exportName);
// Makes LoadLibraryW/GetModuleHandleW answer NULL (ERROR_MOD_NOT_FOUND) for `module`.
void makeLibraryMissing(std::string_view module);
// Removes every fault of this process (also those read from the machine file).
void clearFaults();

// The hooks' record of one function: its call counter and whether a fault is
// set for it. One per name in the process, never freed, so a function may keep
// a reference to its own (see os_call.h) and skip the lookup by name.
struct CallSite {
    std::atomic<std::uint64_t> calls{0};
    std::atomic<bool> faulted{false};

  protected:
    CallSite() = default;  // made only by callSite()
};
CallSite& callSite(std::string_view function);

// Called by implementations at the start of each function: counts the call
// and returns true with the error to fail with when a fault applies.
bool takeFault(CallSite& site, std::uint32_t* error);
bool takeFault(std::string_view function, std::uint32_t* error);

// A function name as a template argument.
template <std::size_t N>
struct FunctionName {
    constexpr FunctionName(const char (&text)[N]) { std::copy_n(text, N, value); }
    char value[N];
};

// The call site of `name`, found by name once per function.
template <FunctionName name>
CallSite& siteOf() {
    static CallSite& site = callSite(name.value);
    return site;
}

// takeFault for `name` without a lookup by name.
template <FunctionName name>
bool takeFault(std::uint32_t* error) {
    return takeFault(siteOf<name>(), error);
}
// Whether `function` names a function that takeFault hears of: an os::
// function by its Win32 name or an entry point of the driver library.
bool isKnownFunction(std::string_view function);
bool isUnbindable(std::string_view module, std::string_view exportName);
bool isLibraryMissing(std::string_view module);
// Calls of `function` seen by takeFault since the process started or the
// last clearFaults.
std::uint64_t callCount(std::string_view function);

// Virtual clock: Sleep and wait time-outs advance virtual time at once and are
// recorded instead of blocking.
void useVirtualClock(bool on);
bool virtualClockOn();
std::vector<std::uint32_t> recordedSleeps();
void clearRecordedSleeps();
std::uint64_t virtualNowMs();
// Used by the clock implementation.
void recordSleep(std::uint32_t milliseconds);

// Lines passed to os::OutputDebugStringW in this process, UTF-8.
std::vector<std::string> debugOutput();
void clearDebugOutput();
void recordDebugOutput(std::string line);

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_HOOKS_H_
