// The ways a host leaves the plug-in: each run of exit_host is checked by
// valgrind's memcheck (no invalid access, no definite leak), and its output
// shows that the plug-in tore itself down in order, tracing to the last line.
//
// valgrind cannot run a program built with AddressSanitizer. In the sanitizer
// build exit_host runs on its own and AddressSanitizer (with its leak check)
// checks the same paths from inside.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/row_name.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

struct HostRun {
    int exitCode = -1;
    std::string output;  // the lines the plug-in sent, one per line
    std::string errors;  // exit_host's and valgrind's own report
};

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs exit_host in `mode` against the plug-in, under valgrind unless this is
// the sanitizer build.
HostRun runExitHost(const std::string& mode, const std::filesystem::path& scratch) {
    std::string command;
#ifndef FIKIV_EXIT_TEST_SANITIZED
    command = FIKIV_VALGRIND
        " --quiet --leak-check=full --errors-for-leak-kinds=definite "
        "--error-exitcode=9 ";
#endif
    const std::filesystem::path out = scratch / (mode + ".out");
    const std::filesystem::path err = scratch / (mode + ".err");
    command += std::string(FIKIV_EXIT_HOST " '" FIKIV_PLUGIN_PATH "' ") + mode + " >'" +
               out.string() + "' 2>'" + err.string() + "'";
    const int status = std::system(command.c_str());
    HostRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.output = readFile(out);
    run.errors = readFile(err);
    return run;
}

// Positions of the lines containing `part`, in output order.
std::vector<std::size_t> linesWith(const std::string& output, const std::string& part) {
    std::vector<std::size_t> found;
    std::istringstream lines(output);
    std::string line;
    for (std::size_t index = 0; std::getline(lines, line); ++index) {
        if (line.find(part) != std::string::npos) {
            found.push_back(index);
        }
    }
    return found;
}

struct ExitCase {
    const char* mode;
    const char* name;
    std::size_t nodes;  // nodes the coordinator deletes on the way out
};
FIKIV_PRINT_ROW_NAME(ExitCase)

class PluginExitTest : public ::testing::TestWithParam<ExitCase> {};

// Whichever way the host leaves, the coordinator is deleted while tracing
// still works, and its node goes inside that frame.
TEST_P(PluginExitTest, TearsDownInOrderAndCleanly) {
#ifdef FIKIV_EXIT_TEST_SANITIZED
    std::printf(
        "valgrind cannot run an AddressSanitizer build: exit_host runs under "
        "AddressSanitizer instead\n");
#endif
    const ExitCase& row = GetParam();
    TempMachine machine(nlohmann::json{
        {"volumes", {TempMachine::volume(1, {"C:\\"}), TempMachine::volume(2, {"E:\\"})}}});
    const HostRun run = runExitHost(row.mode, machine.directory());
    ASSERT_EQ(run.exitCode, 0) << run.errors << run.output;
    EXPECT_EQ(run.errors, "");

    const auto entering =
        linesWith(run.output, "Entering Function KivFiCoordinator::~KivFiCoordinator");
    const auto exiting =
        linesWith(run.output, "Exiting Function KivFiCoordinator::~KivFiCoordinator");
    const auto node = linesWith(run.output, "Exiting Function KivNode::~KivNode");
    ASSERT_EQ(entering.size(), 1u) << run.output;
    ASSERT_EQ(exiting.size(), 1u) << run.output;
    ASSERT_EQ(node.size(), row.nodes) << run.output;
    EXPECT_LT(entering[0], node.front());
    EXPECT_LT(node.back(), exiting[0]);
    // The coordinator's frame closes the output: nothing of the plug-in runs
    // after it.
    EXPECT_EQ(exiting[0], linesWith(run.output, "").size() - 1) << run.output;
}

const ExitCase kExits[] = {
    {"unload", "Unload", 1},
    {"exit", "ExitWithPluginLoaded", 1},
    // The nodes close their driver handles on the way out: valgrind would
    // see a call into an unloaded driver library.
    {"prepare", "ExitAfterATwoVolumePrepare", 3},
};

INSTANTIATE_TEST_SUITE_P(Exits, PluginExitTest, ::testing::ValuesIn(kExits),
                         [](const ::testing::TestParamInfo<ExitCase>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
