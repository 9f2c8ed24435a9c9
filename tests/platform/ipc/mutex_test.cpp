// Named mutexes: names and namespaces, lifetime, ownership by thread,
// time-outs, abandonment, and several processes creating and sharing one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
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

// Takes the mutex, says so through the ready file and waits to be killed.
FIKIV_CHILD_ROLE(mutexHoldUntilKilled) {
    std::u16string name = testsupport::utf16(arguments.at(0));
    // Never closed: the process is killed while it owns the mutex.
    os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, name.c_str());
    if (mutex == nullptr || os::WaitForSingleObject(mutex, os::INFINITE) != os::WAIT_OBJECT_0) {
        return 1;
    }
    publishFile(arguments.at(1), "held");
    for (;;) {
        pause();
    }
}

// Waits for the start file, creates the mutex and reports whether it existed,
// adds 1 to the counter file `iterations` times under the mutex, then keeps
// its handle until the close file appears.
FIKIV_CHILD_ROLE(mutexCount) {
    ChildChecks checks;
    std::u16string name = testsupport::utf16(arguments.at(0));
    std::filesystem::path directory = arguments.at(1);
    int iterations = std::stoi(arguments.at(2));
    FIKIV_CHILD_FAIL_IF(checks, !waitForFile(directory / "start"));
    os::SetLastError(0xdeadbeef);
    os::UniqueHandle mutex(os::CreateMutexW(nullptr, os::FALSE, name.c_str()));
    os::DWORD created = os::GetLastError();
    FIKIV_CHILD_FAIL_IF(checks, !mutex.valid());
    publishFile(directory / ("created." + std::to_string(getpid())), std::to_string(created));

    int counter = open((directory / "counter").c_str(), O_RDWR);
    FIKIV_CHILD_FAIL_IF(checks, counter < 0);
    for (int i = 0; i < iterations; ++i) {
        if (!FIKIV_CHILD_FAIL_IF(
                checks, os::WaitForSingleObject(mutex.get(), os::INFINITE) != os::WAIT_OBJECT_0)) {
            break;
        }
        int value = 0;
        checks.check(pread(counter, &value, sizeof(value), 0) == sizeof(value), "read counter");
        std::this_thread::yield();  // widens the window a broken mutex would leave open
        ++value;
        checks.check(pwrite(counter, &value, sizeof(value), 0) == sizeof(value), "write counter");
        checks.check(os::ReleaseMutex(mutex.get()) == os::TRUE, "release");
    }
    close(counter);
    checks.check(waitForFile(directory / "close"), "close file");
    return checks.failures();
}

class MutexTest : public ::testing::Test {
  protected:
    TempMachine machine_{platformtest::smallMachine()};
    // Each test's names carry the test's pid, so runs in parallel never meet.
    std::u16string name(const std::string& base) const {
        return testsupport::utf16(base + "." + std::to_string(getpid()));
    }
};

// Tries the mutex from a thread of its own, which never owns it.
os::DWORD waitFromOtherThread(os::HANDLE mutex, os::DWORD milliseconds, bool release = true) {
    return std::async(std::launch::async,
                      [=] {
                          os::DWORD result = os::WaitForSingleObject(mutex, milliseconds);
                          if (release && result == os::WAIT_OBJECT_0) {
                              os::ReleaseMutex(mutex);
                          }
                          return result;
                      })
        .get();
}

TEST_F(MutexTest, CreateAndOpenByNameWhileAHandleIsOpen) {
    struct Row {
        const char* label;
        std::u16string name;
        bool expectHandle;
        os::DWORD expectedError;
    };
    const std::u16string base = name("fikiv_ipc_names");
    // clang-format off
    const Row rows[] = {
        {"new name", base, true, os::ERROR_SUCCESS},
        {"same name", base, true, os::ERROR_ALREADY_EXISTS},
        {"names are case-sensitive", u"FIKIV" + base.substr(5), true, os::ERROR_SUCCESS},
        {"Local namespace is the default", u"Local\\" + base, true, os::ERROR_ALREADY_EXISTS},
        {"Global namespace is separate", u"Global\\" + base, true, os::ERROR_SUCCESS},
        {"slash and percent are plain characters", base + u"/a%2F", true, os::ERROR_SUCCESS},
        {"escaped look-alike is another name", base + u"%002Fa%2F", true, os::ERROR_SUCCESS},
        {"unknown namespace", u"Session\\" + base, false, os::ERROR_PATH_NOT_FOUND},
        {"long name", std::u16string(200, u'x') + u"1", true, os::ERROR_SUCCESS},
        {"long name differing at the end", std::u16string(200, u'x') + u"2", true, os::ERROR_SUCCESS},
        {"name past MAX_PATH", std::u16string(300, u'y'), false, os::ERROR_FILENAME_EXCED_RANGE},
    };
    // clang-format on
    std::vector<os::UniqueHandle> open;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        const auto [handle, error] =
            answer([&] { return os::CreateMutexW(nullptr, os::FALSE, row.name.c_str()); });
        EXPECT_EQ(handle != nullptr, row.expectHandle);
        EXPECT_EQ(error, row.expectedError);
        open.emplace_back(handle);
    }
    // The mutex lives while any handle to it is open.
    os::UniqueHandle last(os::CreateMutexW(nullptr, os::FALSE, base.c_str()));
    open.clear();
    os::UniqueHandle again(os::CreateMutexW(nullptr, os::FALSE, base.c_str()));
    EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_EXISTS) << "one handle was still open";
    last.reset();
    again.reset();
    // A new mutex created owned is its creator's.
    os::UniqueHandle fresh(os::CreateMutexW(nullptr, os::TRUE, base.c_str()));
    EXPECT_EQ(os::GetLastError(), os::ERROR_SUCCESS);
    EXPECT_EQ(waitFromOtherThread(fresh.get(), 0), os::WAIT_TIMEOUT);
    EXPECT_EQ(os::ReleaseMutex(fresh.get()), os::TRUE);
}

TEST_F(MutexTest, OwnershipIsPerThreadAndRecursive) {
    std::u16string mutexName = name("fikiv_ipc_owner");
    os::UniqueHandle mutex(os::CreateMutexW(nullptr, os::FALSE, mutexName.c_str()));
    ASSERT_TRUE(mutex.valid());
    // A second handle in the same process names the same mutex.
    os::UniqueHandle alias(os::CreateMutexW(nullptr, os::FALSE, mutexName.c_str()));

    const auto release = [&] { return answer([&] { return os::ReleaseMutex(mutex.get()); }); };
    const auto notOwner = std::pair(os::FALSE, os::DWORD{os::ERROR_NOT_OWNER});
    EXPECT_EQ(release(), notOwner);

    EXPECT_EQ(os::WaitForSingleObject(mutex.get(), 0), os::WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(alias.get(), 1000), os::WAIT_OBJECT_0);
    EXPECT_EQ(waitFromOtherThread(mutex.get(), 0), os::WAIT_TIMEOUT);

    EXPECT_EQ(std::async(std::launch::async, release).get(), notOwner);

    EXPECT_EQ(os::ReleaseMutex(alias.get()), os::TRUE);
    EXPECT_EQ(waitFromOtherThread(mutex.get(), 0), os::WAIT_TIMEOUT) << "still owned once";
    EXPECT_EQ(os::ReleaseMutex(mutex.get()), os::TRUE);
    EXPECT_EQ(waitFromOtherThread(mutex.get(), 0), os::WAIT_OBJECT_0);
    EXPECT_EQ(release(), notOwner);

    // A thread that ends owning the mutex leaves it abandoned.
    std::thread([&] { EXPECT_EQ(os::WaitForSingleObject(alias.get(), 0), os::WAIT_OBJECT_0); })
        .join();
    EXPECT_EQ(os::WaitForSingleObject(mutex.get(), 1000), os::WAIT_ABANDONED);
    EXPECT_EQ(release().first, os::TRUE);
}

TEST_F(MutexTest, BadHandlesFail) {
    os::HANDLE closed = os::CreateMutexW(nullptr, os::FALSE, nullptr);
    ASSERT_NE(closed, nullptr);
    ASSERT_EQ(os::CloseHandle(closed), os::TRUE);
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    os::UniqueHandle descriptor(sim::handleFromFd(fd));
    // clang-format off
    struct Row { const char* label; os::HANDLE handle; };
    const Row rows[] = {
        {"null", nullptr},
        {"closed mutex", closed},
        {"file descriptor", descriptor.get()},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        EXPECT_EQ(answer([&] { return os::WaitForSingleObject(row.handle, 0); }),
                  std::pair(os::DWORD{os::WAIT_FAILED}, os::DWORD{os::ERROR_INVALID_HANDLE}));
        EXPECT_EQ(answer([&] { return os::ReleaseMutex(row.handle); }),
                  std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE}));
    }
}

TEST_F(MutexTest, OwnerProcessKilledLeavesItAbandoned) {
    std::u16string mutexName = name("fikiv_ipc_killed");
    std::filesystem::path ready = machine_.directory() / "held";
    // Our own handle keeps the mutex alive after its owner is gone.
    os::UniqueHandle mutex(os::CreateMutexW(nullptr, os::FALSE, mutexName.c_str()));
    ASSERT_TRUE(mutex.valid());
    pid_t holder = testsupport::startChild("mutexHoldUntilKilled",
                                           {testsupport::utf8(mutexName), ready.string()});
    ASSERT_TRUE(waitForFile(ready));
    EXPECT_EQ(os::WaitForSingleObject(mutex.get(), 100), os::WAIT_TIMEOUT) << "owned elsewhere";
    kill(holder, SIGKILL);
    testsupport::waitChild(holder);

    EXPECT_EQ(os::WaitForSingleObject(mutex.get(), os::INFINITE), os::WAIT_ABANDONED);
    EXPECT_EQ(waitFromOtherThread(mutex.get(), 0), os::WAIT_TIMEOUT) << "the waiter owns it now";
    EXPECT_EQ(os::ReleaseMutex(mutex.get()), os::TRUE);
    EXPECT_EQ(os::WaitForSingleObject(mutex.get(), 0), os::WAIT_OBJECT_0) << "usable again";
    EXPECT_EQ(os::ReleaseMutex(mutex.get()), os::TRUE);
}

TEST_F(MutexTest, ProcessesCreatingAtOnceShareOneMutex) {
    constexpr int kProcesses = 4;
    constexpr int kIterations = 200;
    std::u16string mutexName = name("fikiv_ipc_shared");
    std::filesystem::path directory = machine_.directory();
    {
        int counter = open((directory / "counter").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        int zero = 0;
        ASSERT_EQ(pwrite(counter, &zero, sizeof(zero), 0), static_cast<ssize_t>(sizeof(zero)));
        close(counter);
    }
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(testsupport::startChild(
            "mutexCount",
            {testsupport::utf8(mutexName), directory.string(), std::to_string(kIterations)}));
    }
    publishFile(directory / "start", "");

    int created = 0;
    int opened = 0;
    for (pid_t child : children) {
        std::filesystem::path report = directory / ("created." + std::to_string(child));
        ASSERT_TRUE(waitForFile(report));
        std::string code;
        std::ifstream(report) >> code;
        created += code == std::to_string(os::ERROR_SUCCESS);
        opened += code == std::to_string(os::ERROR_ALREADY_EXISTS);
    }
    publishFile(directory / "close", "");
    for (pid_t child : children) {
        EXPECT_EQ(testsupport::waitChild(child), 0);
    }
    EXPECT_EQ(created, 1);
    EXPECT_EQ(opened, kProcesses - 1);

    int counter = open((directory / "counter").c_str(), O_RDONLY | O_CLOEXEC);
    int value = 0;
    ASSERT_EQ(pread(counter, &value, sizeof(value), 0), static_cast<ssize_t>(sizeof(value)));
    close(counter);
    EXPECT_EQ(value, kProcesses * kIterations) << "an update was lost: the mutex let two in";
}

}  // namespace
