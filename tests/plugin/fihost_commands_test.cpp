// fihost's commands on a small machine as a user runs them: the text answer,
// the --json document carrying the same facts, and a settings file for
// snapshot read, refused or in conflict with an option.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "fihost_run.h"
#include "support/temp_machine.h"

namespace {

using testsupport::fihostMachine;
using testsupport::FihostResult;
using testsupport::has;
using testsupport::jsonOf;
using testsupport::runFihost;
using testsupport::TempMachine;

TEST(FihostCommandsTest, JsonCarriesTheFactsOfTheText) {
    TempMachine machine(fihostMachine());
    struct Row {
        const char* arguments;
        // Checks the text against the document's "result".
        std::function<void(const std::string& text, const nlohmann::json& result)> agree;
    };
    const Row rows[] = {
        {"providers",
         [](const std::string& text, const nlohmann::json& result) {
             EXPECT_EQ(text,
                       "provider fikiv\n  interface version 7.0.0.0\n"
                       "  method KIV_fim: Kiv Snapshot Provider, version 1.05\n");
             EXPECT_EQ(result["provider"], "fikiv");
             EXPECT_EQ(result["interfaceVersion"], "7.0.0.0");
             ASSERT_EQ(result["methods"].size(), 1u);
             EXPECT_EQ(result["methods"][0]["name"], "KIV_fim");
         }},
        {"machine",
         [](const std::string& text, const nlohmann::json& result) {
             ASSERT_EQ(result["volumes"].size(), 4u);
             for (const nlohmann::json& volume : result["volumes"]) {
                 EXPECT_TRUE(has(text, volume["guidName"].get<std::string>() + "\n"));
                 EXPECT_TRUE(has(text, "paths        " + volume["paths"][0].get<std::string>()));
             }
             EXPECT_TRUE(has(text, "driver       0x4 (disabled)"));
             EXPECT_TRUE(has(text, "file system  no media"));
         }},
        {"volumes",
         [](const std::string& text, const nlohmann::json& result) {
             ASSERT_EQ(result["volumes"].size(), 4u);
             std::size_t taken = 0;
             for (const nlohmann::json& volume : result["volumes"]) {
                 taken += volume["taken"].get<bool>() ? 1 : 0;
                 EXPECT_TRUE(has(text, volume["name"].get<std::string>() + "  "));
                 for (const nlohmann::json& reason : volume["reasons"]) {
                     EXPECT_TRUE(has(text, "    " + reason.get<std::string>() + "\n"));
                 }
             }
             EXPECT_EQ(taken, 2u);  // C: and E:
             std::size_t shown = 0;
             for (std::size_t at = text.find("taken for snapshots"); at != std::string::npos;
                  at = text.find("taken for snapshots", at + 1)) {
                 ++shown;
             }
             EXPECT_EQ(shown, taken);
         }},
        {"plan C:",
         [](const std::string& text, const nlohmann::json& result) {
             ASSERT_EQ(result["cacheFiles"].size(), 1u);
             EXPECT_EQ(result["cacheFiles"][0]["cacheFile"], "E:\\_tarnKivCacheFile_0.KIV");
             EXPECT_TRUE(has(text, "E:\\_tarnKivCacheFile_0.KIV  initial 0 MB, maximum "));
             EXPECT_EQ(result["cacheVolume"], "E:");
             for (const nlohmann::json& other : result["otherVolumes"]) {
                 EXPECT_TRUE(has(text, other["reason"].get<std::string>()));
             }
         }},
        {"list",
         [](const std::string& text, const nlohmann::json& result) {
             EXPECT_TRUE(result["snapshots"].empty());
             EXPECT_EQ(text, "no snapshots on this machine\n");
         }},
        {"caches",
         [](const std::string& text, const nlohmann::json& result) {
             ASSERT_EQ(result["volumes"].size(), 3u);  // not the CD-ROM without a disc
             for (const nlohmann::json& volume : result["volumes"]) {
                 EXPECT_TRUE(has(text, volume["volume"].get<std::string>() + "  "));
                 EXPECT_TRUE(volume["cacheFiles"].empty());
             }
         }},
        {"agent status",
         [](const std::string& text, const nlohmann::json& result) {
             EXPECT_EQ(result["running"], false);
             EXPECT_EQ(text, "no backup agent runs on this machine\n");
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments);
        FihostResult text = runFihost(row.arguments);
        FihostResult json = runFihost(std::string("--json ") + row.arguments);
        ASSERT_EQ(text.exitCode, 0) << text.err;
        ASSERT_EQ(json.exitCode, 0) << json.err;
        nlohmann::json document = jsonOf(json);
        ASSERT_TRUE(document.is_object()) << json.out;
        EXPECT_EQ(document["exitCode"], 0);
        const std::string arguments = row.arguments;
        EXPECT_EQ(document["command"], arguments.substr(0, arguments.find(' ')));
        row.agree(text.out, document["result"]);
    }
}

// The plan names files inside a missing cache directory without making it.
TEST(FihostCommandsTest, PlanCreatesNothingAndSaysWhenADirectoryWouldBeMade) {
    TempMachine machine(fihostMachine());
    FihostResult plan = runFihost("plan C: --cache-dir 'snap\\cache' --exclude E:");
    ASSERT_EQ(plan.exitCode, 0) << plan.err;
    // E: excluded and D: disabled: the last resort keeps the cache on C: itself.
    EXPECT_TRUE(has(plan.out, "C:\\snap\\cache\\_tarnKivCacheFile_0.KIV  initial ")) << plan.out;
    EXPECT_TRUE(has(plan.out, "the cache directory C:\\snap\\cache\\ does not exist yet"))
        << plan.out;
    EXPECT_TRUE(has(plan.out, "E:      excluded (--exclude)")) << plan.out;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(machine.directory())) {
        EXPECT_NE(entry.path().filename(), "snap") << entry.path();
        EXPECT_FALSE(entry.path().filename().string().starts_with("_tarnKivCacheFile_"));
    }
}

TEST(FihostCommandsTest, SettingsFileIsReadRefusedOrInConflict) {
    TempMachine machine(fihostMachine());
    const std::filesystem::path settings = machine.directory() / "settings.txt";
    struct Row {
        const char* name;
        std::string document;
        std::string options;
        int exitCode;
        std::string shown;  // on stderr
    };
    // clang-format off
    const Row rows[] = {
        {"Read", "# cache settings\n<SET_CONFIG_INFO_LIST>\n"
                 "  <SET_CONFIG_INFO key=quiesceWait value=5 />\n"
                 "  <SET_CONFIG_INFO key=cachefileDir value=kiv />\n</SET_CONFIG_INFO_LIST>\n",
         "", 0, "config: quiesceWait=5, quiesceTimeout=30, cachefileDir=kiv"},
        {"DoesNotParse", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=5 />\n",
         "", 2, "does not parse"},
        {"UnknownKey", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWaitTime value=5 /> "
                       "</SET_CONFIG_INFO_LIST>",
         "", 2, "unknown key quiesceWaitTime in the settings file"},
        {"SplitKey", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cacheFileName value=x /> "
                     "</SET_CONFIG_INFO_LIST>",
         "", 2, "cacheFileName in the settings file " + settings.string() + " is a per-volume split setting"},
        {"PercentTooLarge", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileMaxSizePercentage "
                            "value=200 /> </SET_CONFIG_INFO_LIST>",
         "", 2, "the value must be a whole number from 0 to 100"},
        {"Conflict", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileDir value=a /> "
                     "</SET_CONFIG_INFO_LIST>",
         "--cache-dir b", 2, "cachefileDir in the settings file " + settings.string() +
         " conflicts with --cache-dir"},
        {"UnknownVolumeInFile", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileAllowedVolumes "
                                "value=E:,Q: /> </SET_CONFIG_INFO_LIST>",
         "", 2, "--cache-volume 'Q:' is not a volume"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::ofstream(settings) << row.document;
        FihostResult result = runFihost("snapshot C: --no-agent --settings '" + settings.string() +
                                        "' " + row.options);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_TRUE(has(result.err, row.shown)) << result.err;
    }
    FihostResult missing = runFihost("snapshot C: --no-agent --settings /nonexistent/s.txt");
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(has(missing.err, "cannot read the settings file /nonexistent/s.txt"))
        << missing.err;
    // Nothing was left by the refused ones, nor by the one that ran.
    EXPECT_EQ(jsonOf(runFihost("--json list"))["result"]["snapshots"].size(), 0u);
}

}  // namespace
