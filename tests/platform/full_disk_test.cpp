// The default machine's fallback directory under /tmp, where anyone may plant
// names, and the machine's files on a full file system, in a child process
// with a mount namespace and a small tmpfs of its own at /tmp.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/handle.h"
#include "os/sync.h"
#include "platform_test_util.h"
#include "sim/machine.h"
#include "support/child_process.h"
#include "support/temp_machine.h"

namespace {

namespace fs = std::filesystem;

constexpr int kCannotMount = 77;

bool writeFile(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

// Enters a mount namespace of its own (through a user namespace that maps
// the same user when not root) and mounts a 256 KiB tmpfs at `directory`.
bool mountSmallTmpfs(const fs::path& directory) {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (geteuid() == 0) {
        if (unshare(CLONE_NEWNS) != 0) {
            return false;
        }
    } else {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
            !writeFile("/proc/self/setgroups", "deny") ||
            !writeFile("/proc/self/uid_map",
                       std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
            !writeFile("/proc/self/gid_map",
                       std::to_string(gid) + " " + std::to_string(gid) + " 1")) {
            return false;
        }
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=256k,mode=0755") == 0;
}

// Takes every free byte of the file system that holds `directory`.
void fill(const fs::path& directory) {
    const int fd = open((directory / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    char block[512] = {};
    while (fd >= 0 && write(fd, block, sizeof(block)) > 0) {
    }
    close(fd);
}

bool anyEntryStartsWith(const fs::path& directory, const std::string& prefix) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

// In a tmpfs mounted at /tmp. With no runtime directory the default machine
// goes to /tmp/fikiv-<uid>: a symbolic link planted there is refused, a
// directory made there is private, and the fallback is said once on stderr.
// Then, with /tmp full: a named mutex answers ERROR_DISK_FULL (no SIGBUS) and
// leaves no scratch file in the mutex directory; the default machine cannot be
// written, says so, and leaves no temporary file beside its file.
FIKIV_CHILD_ROLE(smallTmp) {
    if (!mountSmallTmpfs("/tmp")) {
        return kCannotMount;
    }
    const fs::path log = "/tmp/stderr.log";
    const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(logFd, STDERR_FILENO);
    unsetenv("XDG_RUNTIME_DIR");
    unsetenv("FIKIV_MACHINE");
    const fs::path fallback = "/tmp/fikiv-" + std::to_string(getuid());
    testsupport::ChildChecks checks;

    fs::create_directories("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", fallback);
    sim::Machine::reset();
    std::string error;
    FIKIV_CHILD_FAIL_IF(checks, sim::Machine::currentOrNull(&error) != nullptr);
    FIKIV_CHILD_FAIL_IF(checks, error.find("refusing " + fallback.string()) == std::string::npos);
    FIKIV_CHILD_FAIL_IF(checks, fs::exists("/tmp/elsewhere/default"));

    fs::remove(fallback);
    sim::Machine::reset();
    FIKIV_CHILD_FAIL_IF(checks, sim::Machine::currentOrNull() == nullptr);
    sim::Machine::reset();
    FIKIV_CHILD_FAIL_IF(checks, sim::Machine::currentOrNull() == nullptr);
    struct stat status {};
    FIKIV_CHILD_FAIL_IF(checks, lstat(fallback.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
                                    (status.st_mode & 0777) != 0700);
    std::fflush(stderr);
    std::ifstream lines(log);
    int told = 0;
    for (std::string line; std::getline(lines, line);) {
        told += line.find("the default machine is kept under " + fallback.string()) !=
                std::string::npos;
    }
    FIKIV_CHILD_FAIL_IF(checks, told != 1);

    setenv("TMPDIR", "/tmp", 1);
    testsupport::TempMachine machine(platformtest::smallMachine());
    // A first mutex while there is room makes the mutex directory.
    os::HANDLE first = os::CreateMutexW(nullptr, os::FALSE, u"Local\\fikiv-full-disk-first");
    FIKIV_CHILD_FAIL_IF(checks, first == nullptr);
    os::CloseHandle(first);
    const fs::path runtime = "/tmp/run";
    const fs::path defaultDirectory = runtime / ("fikiv-" + std::to_string(getuid())) / "default";
    fs::create_directories(defaultDirectory);
    fill("/tmp");
    os::SetLastError(0xdeadbeef);
    FIKIV_CHILD_FAIL_IF(checks,
                        os::CreateMutexW(nullptr, os::FALSE, u"Local\\fikiv-full-disk") != nullptr);
    FIKIV_CHILD_FAIL_IF(checks, os::GetLastError() != os::ERROR_DISK_FULL);
    const fs::path mutexes = machine.directory() / "machine.state" / "mutex";
    FIKIV_CHILD_FAIL_IF(checks, anyEntryStartsWith(mutexes, ".new-"));
    FIKIV_CHILD_FAIL_IF(checks, anyEntryStartsWith(mutexes, "local."));

    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    unsetenv("FIKIV_MACHINE");
    sim::Machine::reset();
    FIKIV_CHILD_FAIL_IF(checks, sim::Machine::currentOrNull(&error) != nullptr);
    FIKIV_CHILD_FAIL_IF(checks, error.find("cannot write") == std::string::npos);
    FIKIV_CHILD_FAIL_IF(checks, anyEntryStartsWith(defaultDirectory, "machine.json.tmp."));
    return checks.failures();
}

TEST(FullDiskTest, DefaultMachineUnderTmpAndFullDisk) {
    const int result = testsupport::waitChild(testsupport::startChild("smallTmp"));
    if (result == kCannotMount) {
        GTEST_SKIP() << "mounting a tmpfs needs root or user namespaces";
    }
    EXPECT_EQ(result, 0) << "failed checks in the child, or 128 + its signal";
}

}  // namespace
