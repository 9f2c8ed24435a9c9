// Injected faults, call counts, faults listed in the machine file, and the
// virtual clock.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/module.h"
#include "os/time.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "sim/clock.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace {

using platformtest::kUntouched;
using testsupport::TempMachine;

// 'F' for a call that failed with `error`, '.' for one that succeeded.
std::string freeSpaceCalls(int calls, os::DWORD error) {
    std::string pattern;
    for (int i = 0; i < calls; ++i) {
        os::SetLastError(kUntouched);
        if (os::GetDiskFreeSpaceExW(u"C:\\", nullptr, nullptr, nullptr)) {
            pattern += os::GetLastError() == kUntouched ? '.' : '?';
        } else {
            pattern += os::GetLastError() == error ? 'F' : '!';
        }
    }
    return pattern;
}

TEST(FaultInjectionTest, FaultsListedInTheMachineFileApplyFromTheStart) {
    nlohmann::json description = platformtest::nestedMachine();
    description["faults"] = {
        {{"function", "GetDiskFreeSpaceExW"}, {"error", 21}, {"skip", 1}, {"count", 2}},
        {{"unbindable", {{"module", "kernel32.dll"}, {"export", "FindNextVolumeW"}}}},
        {{"missingLibrary", "kivapi.dll"}},
    };
    TempMachine machine(description);
    EXPECT_EQ(freeSpaceCalls(4, os::ERROR_NOT_READY), ".FF.");

    os::HMODULE kernel32 = os::GetModuleHandleW(u"kernel32.dll");
    ASSERT_NE(kernel32, nullptr);
    EXPECT_NE(os::GetProcAddress(kernel32, "FindFirstVolumeW"), nullptr);
    EXPECT_EQ(platformtest::answer([&] { return os::GetProcAddress(kernel32, "FindNextVolumeW"); }),
              std::pair(os::FARPROC{nullptr}, os::DWORD{os::ERROR_PROC_NOT_FOUND}));
    EXPECT_EQ(platformtest::answer([] { return os::LoadLibraryW(u"KIVAPI.DLL"); }),
              std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_MOD_NOT_FOUND}));

    // A fault of one function leaves the others alone.
    sim::clearFaults();
    sim::injectFault("GetDriveTypeW", os::ERROR_ACCESS_DENIED, 0, sim::kAlways);
    EXPECT_EQ(freeSpaceCalls(2, 0), "..");
    EXPECT_NE(os::GetProcAddress(kernel32, "FindNextVolumeW"), nullptr);
    EXPECT_EQ(platformtest::answer([] { return os::GetDriveTypeW(u"C:\\"); }),
              std::pair(os::UINT{os::DRIVE_UNKNOWN}, os::DWORD{os::ERROR_ACCESS_DENIED}));
}

std::int64_t epochMs(const os::SYSTEMTIME& time) {
    std::tm parts{};
    parts.tm_year = time.wYear - 1900;
    parts.tm_mon = time.wMonth - 1;
    parts.tm_mday = time.wDay;
    parts.tm_hour = time.wHour;
    parts.tm_min = time.wMinute;
    parts.tm_sec = time.wSecond;
    return static_cast<std::int64_t>(timegm(&parts)) * 1000 + time.wMilliseconds;
}

TEST(VirtualClockTest, SleepIsRecordedAndMovesTimeAtOnce) {
    sim::useVirtualClock(true);
    sim::clearRecordedSleeps();
    sim::clearRecordedWaits();
    const std::uint64_t calls = sim::callCount("Sleep");
    const os::ULONGLONG ticks = os::GetTickCount64();
    os::SYSTEMTIME before{};
    os::GetSystemTime(&before);
    os::Sleep(1000);
    os::Sleep(0);
    os::Sleep(86400000);  // a whole day
    EXPECT_EQ(sim::recordedSleeps(), (std::vector<std::uint32_t>{1000, 0, 86400000}));
    EXPECT_EQ(sim::callCount("Sleep"), calls + 3);
    EXPECT_EQ(os::GetTickCount64() - ticks, 86401000u);
    os::SYSTEMTIME after{};
    os::GetSystemTime(&after);
    EXPECT_EQ(epochMs(after) - epochMs(before), 86401000);
    const std::time_t seconds = static_cast<std::time_t>(epochMs(after) / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    EXPECT_EQ(after.wDayOfWeek, parts.tm_wday);
    sim::useVirtualClock(true);  // already on: the time reached is kept
    EXPECT_EQ(os::GetTickCount64() - ticks, 86401000u);
    sim::useVirtualClock(false);
}

}  // namespace
