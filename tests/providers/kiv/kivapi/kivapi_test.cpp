// Binding of the driver library and the machine-wide provider mutex.
//
// The binding table and the mutex handle are made once per process, so every
// scenario that needs a fresh one runs in a child process of its own.
#include "kiv/cachefile/kivapi.h"

#include <unistd.h>

#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kiv/cachefile/cachefileplacement.h"
#include "kiv/cachefile/providermutex.h"
#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/clock.h"
#include "sim/hooks.h"
#include "support/child_process.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace {

using testsupport::ChildChecks;
using testsupport::TempMachine;

nlohmann::json machineOfVersion(int major) {
    return {{"majorVersion", major}, {"volumes", {TempMachine::volume(1, {"C:\\"})}}};
}

// The code kivApi() throws, or 0 when it builds a table with every entry
// point (also the ones the plug-in never calls) and the library handle.
os::DWORD bindingError() {
    try {
        const KivApi& api = *kivApi();
        const bool complete = api.open && api.close && api.deviceIoControl && api.read &&
                              api.prepare && api.create && api.destroy && api.getAsyncResult &&
                              api.cancelAsyncOperation && api.getVolumeInformation &&
                              api.generateVolumeName && api.getCacheMap && api.freeResource &&
                              api.module != nullptr;
        return complete ? 0 : 0xFFFFFFFF;
    } catch (os::DWORD code) {
        return code;
    }
}

// Makes the library (no argument) or one of its exports (the argument)
// unavailable: the first use throws the code LoadLibraryW or GetProcAddress
// left, a second use tries again and fails the same way, and once the fault
// is gone the table is built.
FIKIV_CHILD_ROLE(bindWithout) {
    ChildChecks checks;
    os::DWORD expected = os::ERROR_MOD_NOT_FOUND;
    if (arguments.empty()) {
        sim::makeLibraryMissing("kivapi.dll");
    } else {
        sim::makeUnbindable("kivapi.dll", arguments[0]);
        expected = os::ERROR_PROC_NOT_FOUND;
    }
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != expected);
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != expected);
    sim::clearFaults();
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != 0);
    return checks.failures();
}

// Many threads ask for the table at once: it is built once, from one load.
FIKIV_CHILD_ROLE(concurrentFirstUse) {
    std::vector<KivApi*> seen(32, nullptr);
    {
        std::latch start(static_cast<std::ptrdiff_t>(seen.size()));
        std::vector<std::jthread> threads;
        for (KivApi*& api : seen) {
            threads.emplace_back([&api, &start] {
                start.arrive_and_wait();
                api = kivApi();
            });
        }
    }
    ChildChecks checks;
    for (KivApi* api : seen) {
        FIKIV_CHILD_FAIL_IF(checks, api == nullptr || api != seen.front());
    }
    FIKIV_CHILD_FAIL_IF(checks, sim::callCount("LoadLibraryW") != 1);
    return checks.failures();
}

// Opens the provider mutex, then checks that it exists under the first name
// and not under the second.
FIKIV_CHILD_ROLE(mutexName) {
    ChildChecks checks;
    FIKIV_CHILD_FAIL_IF(checks, ProviderMutex() == nullptr);
    FIKIV_CHILD_FAIL_IF(checks, ProviderMutex() != ProviderMutex());  // one handle per process
    os::UniqueHandle same(
        os::CreateMutexW(nullptr, os::FALSE, testsupport::utf16(arguments.at(0)).c_str()));
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_ALREADY_EXISTS);
    os::UniqueHandle other(
        os::CreateMutexW(nullptr, os::FALSE, testsupport::utf16(arguments.at(1)).c_str()));
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_SUCCESS);
    return checks.failures();
}

// Holds the provider mutex until told to let go.
FIKIV_CHILD_ROLE(holdMutex) {
    ProviderMutexLock lock(ProviderMutex());
    testsupport::publishFile(arguments.at(0));
    return testsupport::waitForFile(arguments.at(1)) ? 0 : 1;
}

// Takes the provider mutex and ends without releasing it.
FIKIV_CHILD_ROLE(dieHoldingMutex) {
    if (os::WaitForSingleObject(ProviderMutex(), 0) != os::WAIT_OBJECT_0) {
        return 1;
    }
    _exit(0);
}

// Places the cache file of volume 1 on the virtual clock; the argument says
// what must happen: "placed" (the first name of a process, on the target's
// own volume, the only one), "timeout" (nothing placed after the whole 10 s
// wait) or "abandoned" (nothing placed, no wait).
FIKIV_CHILD_ROLE(placeUnderMutex) {
    sim::useVirtualClock(true);
    const std::string expected = arguments.at(0);
    const std::u16string target = TempMachine::guidName(1);
    std::vector<std::u16string> paths;
    std::vector<CacheFileSizes> sizes;
    PlacementReport report;
    const bool placed =
        placeCacheFiles(ProviderMutex(), {target}, CacheFileHints{}, paths, sizes, &report);
    const std::vector<std::uint32_t> waits = sim::recordedWaits();
    ChildChecks checks;
    if (expected == "placed") {
        FIKIV_CHILD_FAIL_IF(checks, !placed || sizes.size() != 1);
        FIKIV_CHILD_FAIL_IF(checks, paths != std::vector{target + u"_tarnKivCacheFile_0.KIV"});
        return checks.failures();
    }
    FIKIV_CHILD_FAIL_IF(checks, placed || !paths.empty() || !sizes.empty());
    FIKIV_CHILD_FAIL_IF(checks, report.outcome != PlacementOutcome::kMutexNotObtained);
    const std::vector<std::uint32_t> expectedWaits =
        expected == "timeout" ? std::vector{kProviderMutexWaitMs} : std::vector<std::uint32_t>{};
    FIKIV_CHILD_FAIL_IF(checks, waits != expectedWaits);
    return checks.failures();
}

int runChild(const std::string& role, const std::vector<std::string>& arguments = {}) {
    return testsupport::waitChild(testsupport::startChild(role, arguments));
}

TEST(KivApiTest, MissingLibraryOrExportThrowsItsCodeAndIsRetried) {
    TempMachine machine(machineOfVersion(10));
    const std::vector<std::string> rows[] = {
        {}, {"KIV_Open"}, {"KIV_GetCacheMap"}, {"KIV_FreeResource"}};
    for (const std::vector<std::string>& missing : rows) {
        SCOPED_TRACE(missing.empty() ? "kivapi.dll" : missing[0]);
        EXPECT_EQ(runChild("bindWithout", missing), 0);
    }
}

TEST(KivApiTest, ConcurrentFirstUsesBuildTheTableOnce) {
    TempMachine machine(machineOfVersion(10));
    EXPECT_EQ(runChild("concurrentFirstUse"), 0);
}

TEST(ProviderMutexTest, NameFollowsTheSystemVersion) {
    // clang-format off
    const struct {
        int major;
        const char* name;
        const char* other;
    } rows[] = {
        {4,  "tarn_kiv_mutex",         "Global\\tarn_kiv_mutex"},
        {5,  "Global\\tarn_kiv_mutex", "tarn_kiv_mutex"},
        {10, "Global\\tarn_kiv_mutex", "tarn_kiv_mutex"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE("major version " + std::to_string(row.major));
        TempMachine machine(machineOfVersion(row.major));
        EXPECT_EQ(runChild("mutexName", {row.name, row.other}), 0);
    }
}

TEST(ProviderMutexTest, PlacementFailsWhileAnotherProcessHoldsTheMutex) {
    TempMachine machine(machineOfVersion(10));
    const std::filesystem::path ready = machine.directory() / "holding";
    const std::filesystem::path release = machine.directory() / "release";
    const pid_t holder = testsupport::startChild("holdMutex", {ready.string(), release.string()});
    ASSERT_TRUE(testsupport::waitForFile(ready));
    EXPECT_EQ(runChild("placeUnderMutex", {"timeout"}), 0);
    testsupport::publishFile(release);
    EXPECT_EQ(testsupport::waitChild(holder), 0);
    EXPECT_EQ(runChild("placeUnderMutex", {"placed"}), 0);
}

TEST(ProviderMutexTest, PlacementFailsOnceOnAnAbandonedMutex) {
    TempMachine machine(machineOfVersion(10));
    // Keeps the mutex alive across the processes, as a second provider
    // process would.
    os::UniqueHandle keeper(os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex"));
    ASSERT_TRUE(keeper.valid());
    ASSERT_EQ(runChild("dieHoldingMutex"), 0);
    EXPECT_EQ(runChild("placeUnderMutex", {"abandoned"}), 0);
    // The failed placement handed the mutex back, so the next one gets it.
    EXPECT_EQ(runChild("placeUnderMutex", {"placed"}), 0);
}

}  // namespace
