// The fihost frame as a user meets it: exit codes 0, 1 and 2, one clear line
// on stderr for what went wrong, results on stdout, --json as one document,
// and an output that cannot be written counted as a failure.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fihost_run.h"
#include "support/temp_machine.h"

namespace {

using testsupport::FihostResult;
using testsupport::jsonOf;
using testsupport::runFihost;
using testsupport::TempMachine;

nlohmann::json smallMachine() {
    return {{"volumes",
             {TempMachine::volume(1, {"C:\\"}),
              TempMachine::volume(2, {"E:\\"}, "fixed", "NTFS", 200ull << 30, 150ull << 30)}}};
}

struct Row {
    const char* name;
    std::string arguments;
    int exitCode;
    std::string stderrHas;  // on stderr, which is one line plus the help hint
};

TEST(FihostCliTest, UsageErrorsExitTwoAndSayWhatIsWrong) {
    TempMachine machine(smallMachine());
    // clang-format off
    const Row rows[] = {
        {"NoCommand",            "",                              2, "a command is required"},
        {"UnknownCommand",       "bogus",                         2, "unknown command 'bogus'"},
        {"MisspeltCommand",      "provders",                      2, "did you mean 'providers'?"},
        {"UnknownGlobalOption",  "--bogus providers",             2, "unknown option --bogus"},
        {"UnknownCommandOption", "providers --bogus",             2, "unknown option --bogus"},
        {"StrayArgument",        "providers extra",               2, "unexpected argument extra"},
        {"MissingValue",         "providers --machine",           2, "option --machine needs a value"},
        {"NoSettingsDocument",   "config-set",                    2, "--document,--file"},
        {"TwoSettingsDocuments", "config-set --document a --file b", 2, "--document,--file"},
        {"BadGroup",             "config-set --group x --document a", 2, "--group"},
        {"PlanOfNoVolume",       "plan",                          2, "name the volumes, such as C: E:"},
        {"PlanOfUnknownVolume",  "plan 'not a volume'",           2, "'not a volume' is not a volume of this machine"},
        {"PlanPercentOver100",   "plan C: --initial-percent 101", 2, "--initial-percent: Value 101 not in range"},
        {"PlanCacheDirAtRoot",   "plan C: --cache-dir '\\x'",     2, "starts at a root"},
        {"PlanUnknownCacheVol",  "plan C: --cache-volume Q:",     2, "--cache-volume 'Q:' is not a volume"},
        {"DeleteWithoutNames",   "delete",                        2, "name the snapshot volumes to delete, or give --all"},
        {"DeleteNamesAndAll",    "delete x --all",                2, "excludes"},
        {"AgentUnknownAction",   "agent restart",                 2, "action: restart not in"},
        {"ListWithArgument",     "list C:",                       2, "unexpected argument C: for list"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FihostResult result = runFihost(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_NE(result.err.find(row.stderrHas), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("--help' for the usage"), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(FihostCliTest, FailedOperationsExitOneWithTheReasonOnStderr) {
    TempMachine machine(smallMachine());
    std::filesystem::path broken = machine.directory() / "broken.json";
    std::ofstream(broken) << "{\n  \"volumes\": [\n    {\"guid\": \"{x}\", \"type\": \"fixd\"}\n";
    const std::string directory = machine.directory().string();
    // clang-format off
    const Row rows[] = {
        {"MachineIsADirectory",  "--machine '" + directory + "' providers", 1, "not a regular file"},
        {"MachineMissing",       "--machine /nonexistent/m.json providers", 1, "cannot be read"},
        {"MachineBroken",        "--machine '" + broken.string() + "' providers", 1, "broken.json:"},
        {"SettingsDoNotParse",   "config-set --document garbage", 1,
         "refused the quiesce settings (status 3: The request is invalid.): the document does not parse"},
        {"SplitWithoutMode",     "config-set --group split --document '<SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>'",
         1, "TARN_CFS_AUTO_PREP or TARN_CFS_SELECT_PREP"},
        {"SettingsFileMissing",  "config-set --file /nonexistent/settings.txt", 1,
         "cannot read the settings document /nonexistent/settings.txt"},
        {"PluginMissing",        "--plugin /nonexistent/libfikiv.so providers", 1,
         "no plug-in library at /nonexistent/libfikiv.so"},
        {"DeleteUnknownName",    "delete '\\\\?\\GLOBALROOT\\Device\\KivSnapshot9'", 1,
         "no snapshot volume named \\\\?\\GLOBALROOT\\Device\\KivSnapshot9 exists on this machine"},
        {"ListOfBrokenMachine",  "--machine '" + broken.string() + "' list", 1, "broken.json:"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FihostResult result = runFihost(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_NE(result.err.find(row.stderrHas), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(FihostCliTest, OutputThatCannotBeWrittenIsAFailure) {
    TempMachine machine(smallMachine());
    for (const char* arguments : {"providers", "config-info", "--json providers", "--help",
                                  "machine", "plan C:", "list", "caches", "agent status"}) {
        SCOPED_TRACE(arguments);
        FihostResult result = runFihost(std::string(arguments) + " >/dev/full");
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.err.find("cannot write the output"), std::string::npos) << result.err;
    }
}

TEST(FihostCliTest, JsonIsOneDocumentWithTheFactsOfTheText) {
    TempMachine machine(smallMachine());
    FihostResult text = runFihost("providers");
    FihostResult json = runFihost("providers --json");
    ASSERT_EQ(text.exitCode, 0) << text.err;
    ASSERT_EQ(json.exitCode, 0) << json.err;
    nlohmann::json document = jsonOf(json);
    ASSERT_TRUE(document.is_object()) << json.out;
    EXPECT_EQ(document["command"], "providers");
    EXPECT_EQ(document["exitCode"], 0);
    const nlohmann::json& facts = document["result"];
    EXPECT_NE(text.out.find("provider " + facts["provider"].get<std::string>() + "\n"),
              std::string::npos);
    EXPECT_NE(text.out.find("interface version " + facts["interfaceVersion"].get<std::string>()),
              std::string::npos);
    ASSERT_EQ(facts["methods"].size(), 1u);
    EXPECT_NE(text.out.find("method " + facts["methods"][0]["name"].get<std::string>()),
              std::string::npos);

    // A failure is a document too, with the reason kept.
    FihostResult refused = runFihost("--json config-set --document garbage");
    EXPECT_EQ(refused.exitCode, 1);
    nlohmann::json failure = jsonOf(refused);
    ASSERT_TRUE(failure.is_object()) << refused.out;
    EXPECT_EQ(failure["exitCode"], 1);
    EXPECT_EQ(failure["result"]["accepted"], false);
    EXPECT_EQ(failure["result"]["status"], 3);

    // So is a usage error.
    FihostResult usage = runFihost("--json bogus");
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_EQ(jsonOf(usage)["exitCode"], 2) << usage.out;
}

TEST(FihostCliTest, VerboseAndTraceShowTheCallbackWithLevels) {
    TempMachine machine(smallMachine());
    FihostResult quiet = runFihost("config-info");
    FihostResult traced = runFihost("--trace config-info");
    ASSERT_EQ(traced.exitCode, 0) << traced.err;
    EXPECT_EQ(quiet.err.find("[trace]"), std::string::npos) << quiet.err;
    EXPECT_NE(traced.err.find("[trace] Entering Function KivFiCoordinator::initNode"),
              std::string::npos)
        << traced.err;
    EXPECT_EQ(quiet.out, traced.out);
}

}  // namespace

namespace {

TEST(FihostCliTest, EventsListTheLogOldestFirstAndFilter) {
    TempMachine machine(smallMachine());
    std::filesystem::path state = machine.directory() / "machine.state";
    std::filesystem::create_directories(state);
    std::ofstream(state / "eventlog.jsonl")
        << R"({"time":"2026-11-23T10:00:00.000Z","source":"fikiv","type":2,"category":0,"eventId":7,"strings":["first"],"pid":11})"
        << "\n"
        << R"({"time":"2026-11-23T12:00:00.000Z","source":"fikiv","type":1,"category":0,"eventId":8,"strings":["second"],"pid":12})"
        << "\n";
    // clang-format off
    const struct {
        const char* arguments;
        std::vector<std::string> texts;  // in the order shown
    } rows[] = {
        {"events",                              {"first", "second"}},
        {"events --level error",                {"second"}},
        {"events --since 2026-11-23T11",        {"second"}},
        {"events --since 2026-11-24",           {}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments);
        FihostResult text = runFihost(row.arguments);
        FihostResult json = runFihost(std::string(row.arguments) + " --json");
        EXPECT_EQ(text.exitCode, 0) << text.err;
        nlohmann::json events = jsonOf(json)["result"]["events"];
        ASSERT_EQ(events.size(), row.texts.size()) << json.out;
        std::size_t at = 0;
        for (std::size_t i = 0; i < row.texts.size(); ++i) {
            EXPECT_EQ(events[i]["text"], row.texts[i]);
            at = text.out.find("  " + row.texts[i] + "\n", at);
            EXPECT_NE(at, std::string::npos) << text.out;
        }
    }
    EXPECT_EQ(runFihost("events --level loud").exitCode, 2);
}

}  // namespace
