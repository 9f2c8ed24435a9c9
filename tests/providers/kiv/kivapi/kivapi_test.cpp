// Binding of the driver library and the name of the machine-wide provider
// mutex. Both are made once per process, so each scenario runs in a child.
#include "kiv/cachefile/kivapi.h"

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kiv/cachefile/providermutex.h"
#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
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

// The code kivApi() throws, or 0 when its table has every entry point.
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

// Without the library (no argument) or one export, every use throws the
// loader's code; once the fault is gone the table is built.
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

// The provider mutex exists under the first name and not the second.
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

int runChild(const std::string& role, const std::vector<std::string>& arguments = {}) {
    return testsupport::waitChild(testsupport::startChild(role, arguments));
}

TEST(KivApiTest, MissingLibraryOrExportThrowsItsCodeAndIsRetried) {
    TempMachine machine(machineOfVersion(10));
    const std::vector<std::string> rows[] = {{}, {"KIV_Open"}, {"KIV_FreeResource"}};
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
    const struct { int major; const char* name; const char* other; } rows[] = {
        {4,  "tarn_kiv_mutex",         "Global\\tarn_kiv_mutex"},
        {5,  "Global\\tarn_kiv_mutex", "tarn_kiv_mutex"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE("major version " + std::to_string(row.major));
        TempMachine machine(machineOfVersion(row.major));
        EXPECT_EQ(runChild("mutexName", {row.name, row.other}), 0);
    }
}

}  // namespace
