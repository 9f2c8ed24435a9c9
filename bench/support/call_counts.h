// Counting the machine-layer calls a piece of work makes, by function, through
// the hooks' per-function call counters (every os:: function and every entry
// point of the driver library passes through them).
#ifndef BENCH_SUPPORT_CALL_COUNTS_H_
#define BENCH_SUPPORT_CALL_COUNTS_H_

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>

#include "sim/hooks.h"

namespace benchsupport {

inline const char* const kCountedFunctions[] = {
    "CallNamedPipeW", "CloseHandle", "CreateDirectoryW", "CreateMutexW", "DuplicateHandle",
    "EnterCriticalSection", "FindClose", "FindFirstFileW", "FindFirstVolumeMountPointW",
    "FindFirstVolumeW", "FindNextFileW", "FindNextVolumeMountPointW", "FindNextVolumeW",
    "FindVolumeClose", "FindVolumeMountPointClose", "FreeLibrary", "GetCurrentProcessId",
    "GetDiskFreeSpaceExW", "GetDriveTypeW", "GetFileAttributesW", "GetLocalTime",
    "GetLogicalDriveStringsW", "GetModuleHandleW", "GetProcAddress", "GetSystemTime",
    "GetTickCount64", "GetVersionExW", "GetVolumeInformationW",
    "GetVolumeNameForVolumeMountPointW", "GetVolumePathNameW", "LeaveCriticalSection",
    "LoadLibraryW", "OpenProcess", "ReleaseMutex", "Sleep", "WaitForSingleObject", "KIV_Close",
    "KIV_Create", "KIV_Destroy", "KIV_GetVolumeInformation", "KIV_Open", "KIV_Prepare",
};

using CallCounts = std::map<std::string, std::uint64_t>;

// Calls of each function made by `work`, functions without calls left out.
template <class Work>
CallCounts countCalls(Work work) {
    CallCounts before;
    for (const char* name : kCountedFunctions) {
        before[name] = sim::callCount(name);
    }
    work();
    CallCounts made;
    for (const char* name : kCountedFunctions) {
        if (const std::uint64_t calls = sim::callCount(name) - before[name]; calls != 0) {
            made[name] = calls;
        }
    }
    return made;
}

// Reports the counts of one iteration: "calls" (all), "per_call" (the time of
// one iteration divided among its calls) and one counter per function.
inline void reportCalls(benchmark::State& state, const CallCounts& counts) {
    std::uint64_t total = 0;
    for (const auto& [name, calls] : counts) {
        total += calls;
        state.counters[name] = static_cast<double>(calls);
    }
    state.counters["calls"] = static_cast<double>(total);
    state.counters["per_call"] = benchmark::Counter(
        static_cast<double>(total),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace benchsupport

#endif  // BENCH_SUPPORT_CALL_COUNTS_H_
