// Binding of the driver library and the machine-wide provider mutex.
//
// The binding table and the mutex handle are made once per process, so every
// scenario that needs a fresh one runs in a child process of its own.
#include "kiv/cachefile/kivapi.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kiv/cachefile/providermutex.h"
#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/clock.h"
#include "sim/hooks.h"
#include "support/child_process.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

nlohmann::json machineOfVersion(int major) {
    return {{"majorVersion", major}, {"volumes", {TempMachine::volume(1, {"C:\\"})}}};
}

// The code kivApi() throws, or 0 when it builds the table.
os::DWORD bindingError() {
    try {
        KivApi* api = kivApi();
        return api != nullptr && api->module != nullptr ? 0 : 0xFFFFFFFF;
    } catch (os::DWORD code) {
        return code;
    }
}

bool tableComplete(const KivApi& api) {
    const void* entries[] = {
        reinterpret_cast<const void*>(api.open),
        reinterpret_cast<const void*>(api.close),
        reinterpret_cast<const void*>(api.deviceIoControl),
        reinterpret_cast<const void*>(api.read),
        reinterpret_cast<const void*>(api.prepare),
        reinterpret_cast<const void*>(api.create),
        reinterpret_cast<const void*>(api.destroy),
        reinterpret_cast<const void*>(api.getAsyncResult),
        reinterpret_cast<const void*>(api.cancelAsyncOperation),
        reinterpret_cast<const void*>(api.getVolumeInformation),
        reinterpret_cast<const void*>(api.generateVolumeName),
        reinterpret_cast<const void*>(api.getCacheMap),
        reinterpret_cast<const void*>(api.freeResource),
    };
    for (const void* entry : entries) {
        if (entry == nullptr) {
            return false;
        }
    }
    return api.module != nullptr;
}

using testsupport::publishFile;
using testsupport::waitForFile;

// --- child roles ------------------------------------------------------------

// The library is missing, then comes back: the first use throws the code
// LoadLibraryW left, the next one loads it.
FIKIV_CHILD_ROLE(missingLibrary) {
    testsupport::ChildChecks checks;
    sim::makeLibraryMissing("kivapi.dll");
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != os::ERROR_MOD_NOT_FOUND);
    FIKIV_CHILD_FAIL_IF(checks,
                        bindingError() != os::ERROR_MOD_NOT_FOUND);  // tried again, still missing
    sim::clearFaults();
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != 0);
    FIKIV_CHILD_FAIL_IF(checks, !tableComplete(*kivApi()));
    return checks.failures();
}

// One export missing, even one that is never called: no table.
FIKIV_CHILD_ROLE(unbindableExport) {
    testsupport::ChildChecks checks;
    sim::makeUnbindable("kivapi.dll", arguments.at(0));
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != os::ERROR_PROC_NOT_FOUND);
    sim::clearFaults();
    FIKIV_CHILD_FAIL_IF(checks, bindingError() != 0);
    return checks.failures();
}

// Many threads ask for the table at once: it is built once, from one load.
FIKIV_CHILD_ROLE(concurrentFirstUse) {
    std::vector<KivApi*> seen(32, nullptr);
    std::vector<std::thread> threads;
    std::latch start(static_cast<std::ptrdiff_t>(seen.size()));
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, &start, i] {
            start.arrive_and_wait();
            seen[i] = kivApi();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    testsupport::ChildChecks checks;
    for (KivApi* api : seen) {
        FIKIV_CHILD_FAIL_IF(checks, api == nullptr || api != seen.front());
    }
    FIKIV_CHILD_FAIL_IF(checks, sim::callCount("LoadLibraryW") != 1);
    return checks.failures();
}

// Opens the provider mutex, then checks under which name it exists.
FIKIV_CHILD_ROLE(mutexName) {
    testsupport::ChildChecks checks;
    const std::u16string expected(arguments.at(0).begin(), arguments.at(0).end());
    const std::u16string other(arguments.at(1).begin(), arguments.at(1).end());
    FIKIV_CHILD_FAIL_IF(checks, ProviderMutex() == nullptr);
    FIKIV_CHILD_FAIL_IF(checks, ProviderMutex() != ProviderMutex());  // one handle per process
    os::UniqueHandle same(os::CreateMutexW(nullptr, os::FALSE, expected.c_str()));
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_ALREADY_EXISTS);
    os::UniqueHandle unrelated(os::CreateMutexW(nullptr, os::FALSE, other.c_str()));
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_SUCCESS);
    return checks.failures();
}

// Holds the provider mutex until told to let go.
FIKIV_CHILD_ROLE(holdMutex) {
    ProviderMutexLock lock(ProviderMutex());
    publishFile(arguments.at(0));
    return waitForFile(arguments.at(1)) ? 0 : 1;
}

// Takes the provider mutex and ends without releasing it.
FIKIV_CHILD_ROLE(dieHoldingMutex) {
    if (os::WaitForSingleObject(ProviderMutex(), 0) != os::WAIT_OBJECT_0) {
        return 1;
    }
    _exit(0);
}

// Tries the lock on the virtual clock; argument "timeout", "abandoned" or
// "free" says what must happen.
FIKIV_CHILD_ROLE(tryMutex) {
    sim::useVirtualClock(true);
    const std::string expected = arguments.at(0);
    bool obtained = false;
    try {
        ProviderMutexLock lock(ProviderMutex());
        obtained = true;
    } catch (bool value) {
        if (value) {
            return 1;  // the failure signal is false, always
        }
    }
    if (expected == "free") {
        return obtained ? 0 : 1;
    }
    if (obtained) {
        return 1;
    }
    const std::vector<std::uint32_t> waits = sim::recordedWaits();
    if (expected == "timeout") {
        // The whole 10 s were waited, on the virtual clock.
        return waits == std::vector<std::uint32_t>{kProviderMutexWaitMs} ? 0 : 1;
    }
    return waits.empty() ? 0 : 1;  // abandonment is reported without waiting
}

int runChild(const std::string& role, const std::vector<std::string>& arguments = {}) {
    return testsupport::waitChild(testsupport::startChild(role, arguments));
}

// --- tests ------------------------------------------------------------------

TEST(KivApiTest, MissingLibraryThrowsItsCodeAndIsRetried) {
    TempMachine machine(machineOfVersion(10));
    EXPECT_EQ(runChild("missingLibrary"), 0);
}

TEST(KivApiTest, LibraryLackingOneExportIsNotBound) {
    TempMachine machine(machineOfVersion(10));
    for (const char* name : {"KIV_Open", "KIV_GetCacheMap", "KIV_FreeResource"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(runChild("unbindableExport", {name}), 0);
    }
}

TEST(KivApiTest, ConcurrentFirstUsesBuildTheTableOnce) {
    TempMachine machine(machineOfVersion(10));
    EXPECT_EQ(runChild("concurrentFirstUse"), 0);
}

TEST(KivApiTest, ForwardingCallsReachTheDriver) {
    TempMachine machine(machineOfVersion(10));
    KivApi* api = kivApi();
    ASSERT_TRUE(tableComplete(*api));
    EXPECT_EQ(kivApi(), api);

    char* name = nullptr;
    ASSERT_EQ(KIV_GenerateVolumeName(api, 2, &name), 0u);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "GLOBALROOT\\Device\\KivSnapshot1");
    EXPECT_EQ(KIV_FreeResource(api, &name), 0u);
    EXPECT_EQ(name, nullptr);

    KivHandle volume = kInvalidKivHandle;
    ASSERT_EQ(KIV_Open(api, "C:", 3, 128, 3, 1000, &volume), 0u);
    KivVolumeInformation information{};
    EXPECT_EQ(KIV_GetVolumeInformation(api, volume, sizeof(information), &information), 0u);
    EXPECT_EQ(information.attributes, 0x1u);
    KIV_Close(api, &volume);

    // Scripted driver answers come through unchanged.
    sim::injectFault("KIV_Destroy", 5);
    KivHandle none = kInvalidKivHandle;
    EXPECT_EQ(KIV_Destroy(api, &none, 1), 5u);
}

TEST(ProviderMutexTest, NameFollowsTheSystemVersion) {
    const struct {
        int major;
        const char* name;
        const char* other;
    } rows[] = {
        {4, "tarn_kiv_mutex", "Global\\tarn_kiv_mutex"},
        {5, "Global\\tarn_kiv_mutex", "tarn_kiv_mutex"},
        {10, "Global\\tarn_kiv_mutex", "tarn_kiv_mutex"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("major version " + std::to_string(row.major));
        TempMachine machine(machineOfVersion(row.major));
        EXPECT_EQ(runChild("mutexName", {row.name, row.other}), 0);
    }
}

TEST(ProviderMutexTest, HolderInAnotherProcessMakesTheLockFail) {
    TempMachine machine(machineOfVersion(10));
    const std::filesystem::path ready = machine.directory() / "holding";
    const std::filesystem::path release = machine.directory() / "release";
    const pid_t holder = testsupport::startChild("holdMutex", {ready.string(), release.string()});
    ASSERT_TRUE(waitForFile(ready));
    EXPECT_EQ(runChild("tryMutex", {"timeout"}), 0);
    publishFile(release);
    EXPECT_EQ(testsupport::waitChild(holder), 0);
    EXPECT_EQ(runChild("tryMutex", {"free"}), 0);
}

TEST(ProviderMutexTest, AbandonedMutexMakesTheLockFailOnce) {
    TempMachine machine(machineOfVersion(10));
    // Keeps the mutex alive across the processes, as a second provider
    // process would.
    os::UniqueHandle keeper(os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex"));
    ASSERT_TRUE(keeper.valid());
    ASSERT_EQ(runChild("dieHoldingMutex"), 0);
    EXPECT_EQ(runChild("tryMutex", {"abandoned"}), 0);
    // The failed placement handed the mutex back, so the next one gets it.
    EXPECT_EQ(runChild("tryMutex", {"free"}), 0);
}

}  // namespace
