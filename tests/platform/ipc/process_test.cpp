// Processes and handles: a descriptor of another process taken with
// OpenProcess and DuplicateHandle, processes that are gone, privilege names,
// and the debug privilege opening a process that refuses us.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "os/error.h"
#include "os/handle.h"
#include "os/process.h"
#include "platform/platform_test_util.h"
#include "sim/handles.h"
#include "support/child_process.h"
#include "support/temp_machine.h"

namespace {

using platformtest::answer;
using testsupport::ChildChecks;
using testsupport::publishFile;
using testsupport::TempMachine;
using testsupport::waitForFile;

const std::string kPayload = "snapshot volume stand-in";

std::uintptr_t valueOf(os::HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}
os::HANDLE handleOf(std::uintptr_t value) {
    return reinterpret_cast<os::HANDLE>(value);
}

// Whether `handle` (in this process) reads the payload file.
bool readsPayload(os::HANDLE handle) {
    std::string text(kPayload.size(), '\0');
    return pread(sim::fdFromHandle(handle), text.data(), text.size(), 0) ==
               static_cast<ssize_t>(text.size()) &&
           text == kPayload;
}

// Opens the file `arguments[0]`, publishes the handle value in `arguments[1]`
// and keeps it open until `arguments[2]` appears. With "protected" as fourth
// argument the process first makes itself non-dumpable, so only a caller with
// CAP_SYS_PTRACE may take its descriptors.
FIKIV_CHILD_ROLE(holdFile) {
    if (arguments.size() > 3 && arguments[3] == "protected") {
        prctl(PR_SET_DUMPABLE, 0);
    }
    int fd = open(arguments.at(0).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 1;
    }
    publishFile(arguments.at(1), std::to_string(valueOf(sim::handleFromFd(fd))));
    return waitForFile(arguments.at(2)) ? 0 : 1;
}

// Sets the debug privilege of `token` to `attributes`; the last error that
// AdjustTokenPrivileges left, or 1 when it failed.
os::DWORD adjustDebugPrivilege(os::HANDLE token, os::DWORD attributes) {
    os::TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    os::LookupPrivilegeValueW(nullptr, u"SeDebugPrivilege", &privileges.Privileges[0].Luid);
    privileges.Privileges[0].Attributes = attributes;
    os::SetLastError(0xdeadbeef);
    if (!os::AdjustTokenPrivileges(token, os::FALSE, &privileges, 0, nullptr, nullptr)) {
        return 1;
    }
    return os::GetLastError();
}

// Takes the handle `arguments[1]` of protected process `arguments[0]`, the
// way the plug-in does: refused without the debug privilege, granted with it,
// refused again once the privilege is removed for good.
FIKIV_CHILD_ROLE(takeWithDebugPrivilege) {
    ChildChecks checks;
    auto pid = static_cast<os::DWORD>(std::stoul(arguments.at(0)));
    os::HANDLE remote = handleOf(std::stoull(arguments.at(1)));
    os::HANDLE token = nullptr;
    FIKIV_CHILD_FAIL_IF(
        checks, !os::OpenProcessToken(os::GetCurrentProcess(),
                                      os::TOKEN_ADJUST_PRIVILEGES | os::TOKEN_QUERY, &token));
    FIKIV_CHILD_FAIL_IF(checks, adjustDebugPrivilege(token, 0) != os::ERROR_SUCCESS);
    os::SetLastError(0xdeadbeef);
    FIKIV_CHILD_FAIL_IF(checks, os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, pid) != nullptr);
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_ACCESS_DENIED);

    FIKIV_CHILD_FAIL_IF(checks, adjustDebugPrivilege(token, os::SE_PRIVILEGE_ENABLED) != 0);
    os::UniqueHandle process(os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, pid));
    checks.check(process.valid(), "opened with the privilege", os::GetLastError());
    os::HANDLE copy = nullptr;
    checks.check(os::DuplicateHandle(process.get(), remote, os::GetCurrentProcess(), &copy, 0,
                                     os::FALSE, os::DUPLICATE_SAME_ACCESS) == os::TRUE,
                 "duplicated", os::GetLastError());
    FIKIV_CHILD_FAIL_IF(checks, !readsPayload(copy));
    os::CloseHandle(copy);

    FIKIV_CHILD_FAIL_IF(checks, adjustDebugPrivilege(token, os::SE_PRIVILEGE_REMOVED) != 0);
    FIKIV_CHILD_FAIL_IF(checks, adjustDebugPrivilege(token, os::SE_PRIVILEGE_ENABLED) !=
                                    os::ERROR_NOT_ALL_ASSIGNED);
    FIKIV_CHILD_FAIL_IF(checks, os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, pid) != nullptr);
    os::CloseHandle(token);
    return checks.failures();
}

class ProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        payload_ = machine_.directory() / "payload";
        std::ofstream(payload_) << kPayload;
    }

    // Starts a child that holds the payload file open; returns its pid and
    // sets `handle` to the child's handle value.
    pid_t startHolder(os::HANDLE* handle, bool protect = false) {
        std::filesystem::path ready = machine_.directory() / ("ready." + std::to_string(holders_));
        done_ = machine_.directory() / ("done." + std::to_string(holders_++));
        std::vector<std::string> arguments = {payload_.string(), ready.string(), done_.string()};
        if (protect) {
            arguments.push_back("protected");
        }
        pid_t child = testsupport::startChild("holdFile", arguments);
        if (!waitForFile(ready)) {
            return child;
        }
        std::uintptr_t value = 0;
        std::ifstream(ready) >> value;
        *handle = handleOf(value);
        return child;
    }
    int finishHolder(pid_t child) {
        publishFile(done_, "");
        return testsupport::waitChild(child);
    }

    TempMachine machine_{platformtest::smallMachine()};
    std::filesystem::path payload_;
    std::filesystem::path done_;
    int holders_ = 0;
};

TEST_F(ProcessTest, DuplicateHandleTakesADescriptorOfAnotherProcess) {
    os::HANDLE remote = nullptr;
    pid_t holder = startHolder(&remote);
    ASSERT_NE(remote, nullptr);
    os::UniqueHandle process(
        os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, static_cast<os::DWORD>(holder)));
    ASSERT_TRUE(process.valid()) << os::GetLastError();

    os::HANDLE copy = nullptr;
    ASSERT_EQ(os::DuplicateHandle(process.get(), remote, os::GetCurrentProcess(), &copy, 0,
                                  os::FALSE, os::DUPLICATE_SAME_ACCESS),
              os::TRUE)
        << os::GetLastError();
    os::UniqueHandle owned(copy);
    EXPECT_TRUE(readsPayload(copy));

    os::HANDLE token = nullptr;
    ASSERT_EQ(os::OpenProcessToken(os::GetCurrentProcess(), os::TOKEN_QUERY, &token), os::TRUE);
    os::UniqueHandle tokenOwner(token);
    struct Row {
        const char* label;
        os::HANDLE sourceProcess;
        os::HANDLE source;
        os::HANDLE targetProcess;
        os::DWORD options;
        os::DWORD expectedError;
    };
    const os::HANDLE self = os::GetCurrentProcess();
    // clang-format off
    const Row rows[] = {
        {"not open in the source", process.get(), sim::handleFromFd(900), self, os::DUPLICATE_SAME_ACCESS, os::ERROR_INVALID_HANDLE},
        {"a token is no process", token, remote, self, os::DUPLICATE_SAME_ACCESS, os::ERROR_INVALID_HANDLE},
        {"into another process", self, copy, process.get(), os::DUPLICATE_SAME_ACCESS, os::ERROR_NOT_SUPPORTED},
        {"closing another process's handle", process.get(), remote, self, os::DUPLICATE_SAME_ACCESS | os::DUPLICATE_CLOSE_SOURCE, os::ERROR_NOT_SUPPORTED},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        os::HANDLE target = handleOf(0x11);
        EXPECT_EQ(answer([&] {
                      return os::DuplicateHandle(row.sourceProcess, row.source, row.targetProcess,
                                                 &target, 0, os::FALSE, row.options);
                  }),
                  std::pair(os::FALSE, row.expectedError));
        EXPECT_EQ(target, handleOf(0x11)) << "the target handle was written";
    }

    EXPECT_EQ(finishHolder(holder), 0);
    // The process is gone and its handles with it; our handle to it stays valid.
    os::HANDLE late = nullptr;
    EXPECT_EQ(answer([&] {
                  return os::DuplicateHandle(process.get(), remote, self, &late, 0, os::FALSE,
                                             os::DUPLICATE_SAME_ACCESS);
              }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE}));
    EXPECT_TRUE(readsPayload(copy)) << "the copy outlives the process it came from";
}

TEST_F(ProcessTest, OpenProcessOfProcessesThatDoNotExist) {
    pid_t gone = testsupport::startChild("holdFile", {"/nonexistent/file", "-", "-"});
    ASSERT_EQ(testsupport::waitChild(gone), 1);
    // clang-format off
    struct Row { const char* label; os::DWORD pid; };
    const Row rows[] = {
        {"ended and reaped", static_cast<os::DWORD>(gone)},
        {"id 0", 0},
        {"negative as pid_t", 0xFFFFFFFE},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        EXPECT_EQ(answer([&] { return os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, row.pid); }),
                  std::pair(os::HANDLE{nullptr}, os::DWORD{os::ERROR_INVALID_PARAMETER}));
    }
    os::UniqueHandle self(
        os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, os::GetCurrentProcessId()));
    EXPECT_TRUE(self.valid());
}

TEST(PrivilegeTest, LookupKnowsOnlyTheDebugPrivilege) {
    struct Row {
        const char* label;
        const char16_t* system;
        const char16_t* name;
        os::DWORD expectedError;  // 0: found
    };
    // clang-format off
    const Row rows[] = {
        {"debug", nullptr, u"SeDebugPrivilege", 0},
        {"debug in another case", u"", u"SEDEBUGPRIVILEGE", 0},
        {"prefix of debug", nullptr, u"SeDebug", os::ERROR_NO_SUCH_PRIVILEGE},
        {"null name", nullptr, nullptr, os::ERROR_INVALID_PARAMETER},
        {"another machine", u"\\\\server", u"SeDebugPrivilege", os::ERROR_NOT_SUPPORTED},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        os::LUID luid{0x1111, 0x2222};
        const bool found = row.expectedError == 0;
        EXPECT_EQ(answer([&] { return os::LookupPrivilegeValueW(row.system, row.name, &luid); }),
                  std::pair(os::BOOL{found}, found ? platformtest::kUntouched : row.expectedError));
        EXPECT_EQ(luid.LowPart, found ? 20u : 0x1111u);
        EXPECT_EQ(luid.HighPart, found ? 0 : 0x2222);
    }
}

bool ptracePermitted() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapPrm:", 0) == 0) {
            std::uint64_t mask = std::stoull(line.substr(7), nullptr, 16);
            return (mask & (1ull << 19)) != 0;  // CAP_SYS_PTRACE
        }
    }
    return false;
}

TEST_F(ProcessTest, DebugPrivilegeOpensAProcessThatRefusesUs) {
    if (!ptracePermitted()) {
        GTEST_SKIP() << "this process may not hold CAP_SYS_PTRACE, which the debug privilege is";
    }
    os::HANDLE remote = nullptr;
    pid_t holder = startHolder(&remote, /*protect=*/true);
    ASSERT_NE(remote, nullptr);
    // In a child of its own: the capabilities it drops stay dropped there.
    pid_t taker = testsupport::startChild(
        "takeWithDebugPrivilege", {std::to_string(holder), std::to_string(valueOf(remote))});
    EXPECT_EQ(testsupport::waitChild(taker), 0);
    EXPECT_EQ(finishHolder(holder), 0);
}

}  // namespace
