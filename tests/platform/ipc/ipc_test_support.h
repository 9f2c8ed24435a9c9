// Helpers of the cross-process tests: a small machine and reading the files
// that processes use to tell each other what they saw.
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

#include "support/child_process.h"
#include "support/temp_machine.h"

namespace ipctest {

inline nlohmann::json smallMachine() {
    return {{"volumes", {testsupport::TempMachine::volume(1, {"C:\\"})}}};
}

using testsupport::ChildChecks;
using testsupport::publishFile;
using testsupport::waitForFile;

inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace ipctest

#endif  // TESTS_PLATFORM_IPC_IPC_TEST_SUPPORT_H_
