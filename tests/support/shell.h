// Running a command line as a user would, and reading back the files that
// programs leave (logs, outputs, state).
#ifndef TESTS_SUPPORT_SHELL_H_
#define TESTS_SUPPORT_SHELL_H_

#include <filesystem>
#include <string>

namespace testsupport {

struct CommandRun {
    int exitCode = -1;   // -1 when the command could not start or was killed
    std::string output;  // its stdout; redirect stderr in the command to see it
};

// Runs `command` through /bin/sh and waits for it.
CommandRun runCommand(const std::string& command);

// The whole file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_SHELL_H_
