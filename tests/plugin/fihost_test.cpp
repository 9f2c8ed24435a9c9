// The fihost program as a user runs it: the plug-in found next to it by
// default, its answers printed, and failures named with a failing exit code.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "support/temp_machine.h"

namespace {

struct RunResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

RunResult runFihost(const std::string& arguments) {
    RunResult result;
    std::string command = std::string(FIHOST_PATH) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[512];
    std::size_t read = 0;
    while ((read = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        result.output.append(buffer, read);
    }
    int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(FihostTest, CommandsAnswerAsAUserExpects) {
    nlohmann::json description = {
        {"volumes", nlohmann::json::array({testsupport::TempMachine::volume(1, {"C:\\"})})}};
    testsupport::TempMachine machine(description);
    struct Row {
        const char* name;
        std::string arguments;
        bool succeeds;
        std::string shown;
    };
    const Row rows[] = {
        {"ProvidersWithDefaultPlugin", "providers", true,
         "provider fikiv\n"
         "  interface version 7.0.0.0\n"
         "  method KIV_fim: Kiv Snapshot Provider, version 1.05\n"},
        {"PluginOptionAfterSubcommand", std::string("providers --plugin ") + FIKIV_PLUGIN_PATH,
         true, "provider fikiv\n"},
        {"InitWithLocale", "init --locale de", true, "init: status 0, version 7.0.0.0\n"},
        {"MissingPlugin", "--plugin /nonexistent/libfikiv.so providers", false,
         "no plug-in library at /nonexistent/libfikiv.so"},
        {"NoSubcommand", "", false, "a command is required"},
        {"UnknownSubcommand", "nosuchcommand", false, "unknown command 'nosuchcommand'"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        RunResult result = runFihost(row.arguments);
        EXPECT_EQ(result.exitCode == 0, row.succeeds) << result.output;
        EXPECT_NE(result.output.find(row.shown), std::string::npos) << result.output;
    }
}

// fihost snapshot refuses what it cannot do before any snapshot exists: usage
// errors exit 2, a volume the provider does not take exits 1 and says which.
TEST(FihostTest, SnapshotSaysWhyItRefuses) {
    using testsupport::TempMachine;
    TempMachine machine(nlohmann::json{
        {"volumes",
         nlohmann::json::array({
             TempMachine::volume(1, {"C:\\"}),
             TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x4),
         })}});
    struct Row {
        const char* name;
        const char* arguments;
        int exitCode;
        const char* shown;
    };
    // clang-format off
    const Row rows[] = {
        {"NoVolume",         "snapshot --no-agent",                        2, "name the volumes, such as C: E:"},
        {"UnknownOption",    "snapshot C: --no-agent --frobnicate",        2, "frobnicate"},
        {"BlankInCacheDir",  "snapshot C: --no-agent --cache-dir 'a b'",   2, "--cache-dir 'a b' contains a blank"},
        {"CommaInCacheList", "snapshot C: --no-agent --cache-volume E:,F:", 2, "one volume name without blanks or commas"},
        {"NoSuchVolume",     "snapshot C: Z: --no-agent",                  2, "'Z:' is not a volume of this machine"},
        {"CacheDirUpwards",  "snapshot C: --no-agent --cache-dir '..\\x'", 2, "has a '..' part"},
        {"PercentTooLarge",  "snapshot C: --no-agent --max-percent 200",   2, "--max-percent: Value 200 not in range 0 to 100"},
        {"SameVolumeTwice",  "snapshot C: 'c:\\' --no-agent",            2, "is named twice"},
        {"DisabledVolume",   "snapshot D: --no-agent",                     1, "KIV_ATTRIBUTE_DISABLED"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        RunResult result =
            runFihost(std::string("--plugin ") + FIKIV_PLUGIN_PATH + " " + row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.output;
        EXPECT_NE(result.output.find(row.shown), std::string::npos) << result.output;
    }
}

}  // namespace
