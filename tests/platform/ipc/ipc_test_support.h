// Helpers of the cross-process tests: a small machine, files that processes
// use to tell each other they are ready, and failure counting in children.
#ifndef TESTS_PLATFORM_IPC_IPC_TEST_SUPPORT_H_
#define TESTS_PLATFORM_IPC_IPC_TEST_SUPPORT_H_

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "support/temp_machine.h"

namespace ipctest {

inline nlohmann::json smallMachine() {
    return {{"volumes", {testsupport::TempMachine::volume(1, {"C:\\"})}}};
}

// Writes `text` so that a reader sees the whole file or none of it.
inline void publish(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::path temporary = path;
    temporary += ".new";
    std::ofstream(temporary) << text;
    std::filesystem::rename(temporary, path);
}

// Waits until `path` exists (a generous limit only guards against a hung
// peer; no test depends on how long this takes). False when it never came.
inline bool awaitFile(const std::filesystem::path& path) {
    for (int i = 0; i < 60000; ++i) {
        if (std::filesystem::exists(path)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Counts failed checks of a child role; the count becomes its exit code.
class ChildChecks {
  public:
    bool check(bool condition, const char* what, unsigned long long value = 0) {
        if (!condition) {
            ++failures_;
            std::fprintf(stderr, "child %d: check failed: %s (value %llu)\n",
                         static_cast<int>(getpid()), what, value);
        }
        return condition;
    }
    int failures() const { return failures_; }

  private:
    int failures_ = 0;
};

}  // namespace ipctest

#endif  // TESTS_PLATFORM_IPC_IPC_TEST_SUPPORT_H_
