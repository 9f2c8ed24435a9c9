// fihost as a user meets it: exit codes 0, 1 and 2, one clear line on stderr
// for what went wrong, results on stdout, --json carrying the facts of the
// text, unwritable output as a failure, and settings files for snapshot.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <utility>
#include <string>
#include <vector>

#include "support/shell.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

struct FihostResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs fihost with `arguments` (shell text) on the test's TempMachine.
FihostResult runFihost(const std::string& arguments) {
    FihostResult result;
    const std::filesystem::path errors =
        std::filesystem::temp_directory_path() / ("fihost-stderr-" + std::to_string(::getpid()));
    const testsupport::CommandRun run =
        testsupport::runCommand(FIHOST_PATH " " + arguments + " 2>'" + errors.string() + "'");
    result.exitCode = run.exitCode;
    result.out = run.output;
    result.err = testsupport::readFile(errors);
    std::filesystem::remove(errors);
    return result;
}

// stdout parsed as JSON; a discarded value when it does not parse.
nlohmann::json jsonOf(const FihostResult& result) {
    return nlohmann::json::parse(result.out, nullptr, /*allow_exceptions=*/false);
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// C: to snapshot (40 GiB free), D: disabled by the driver, E: with the most
// free space (300 GiB), and F:, a CD-ROM without a disc.
nlohmann::json fihostMachine() {
    constexpr std::uint64_t kGiB = 1ull << 30;
    nlohmann::json cdrom = TempMachine::volume(4, {"F:\\"}, "cdrom", "CDFS", 0, 0, 0);
    cdrom["mediaPresent"] = false;
    return {{"volumes",
             {TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100 * kGiB, 40 * kGiB),
              TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", 900 * kGiB, 800 * kGiB, 0x4),
              TempMachine::volume(3, {"E:\\"}, "fixed", "NTFS", 400 * kGiB, 300 * kGiB), cdrom}}};
}

// A command that succeeds shows `shown` on stdout. One that fails shows it on
// stderr and nothing on stdout, adds the help hint exactly when the command
// line was wrong (exit 2), and with --json says the same exit code in the
// document.
struct Row {
    const char* name;
    std::string arguments;
    int exitCode;
    std::string shown;
};

TEST(FihostCliTest, ExitCodesAndWhatEachCommandSays) {
    TempMachine machine(fihostMachine());
    const std::filesystem::path broken = machine.directory() / "broken.json";
    std::ofstream(broken) << "{\n  \"volumes\": [\n    {\"guid\": \"{x}\", \"type\": \"fixd\"}\n";
    nlohmann::json withoutDriver = fihostMachine();
    withoutDriver["faults"] = {{{"missingLibrary", "kivapi.dll"}}};
    const std::filesystem::path noDriver = machine.directory() / "nodriver.json";
    std::ofstream(noDriver) << withoutDriver.dump();
    const std::string onBroken = "--machine '" + broken.string() + "' ";
    const std::string onNoDriver = "--machine '" + noDriver.string() + "' ";
    const std::string plugin = std::string("--plugin ") + FIKIV_PLUGIN_PATH;
    // clang-format off
    const Row rows[] = {
        {"PluginAfterCommand",   "providers " + plugin,           0, "provider fikiv\n"},
        {"InitWithLocale",       "init --locale de",              0, "init: status 0, version 7.0.0.0\n"},
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
        {"BlankInCacheDir",      "snapshot C: --no-agent --cache-dir 'a b'", 2, "--cache-dir 'a b' contains a blank"},
        {"CommaInCacheList",     "snapshot C: --no-agent --cache-volume E:,F:", 2, "one volume name without blanks or commas"},
        {"CacheDirUpwards",      "snapshot C: --no-agent --cache-dir '..\\x'", 2, "has a '..' part"},
        {"SameVolumeTwice",      "snapshot C: 'c:\\' --no-agent", 2, "is named twice"},
        {"DeleteWithoutNames",   "delete",                        2, "name the snapshot volumes to delete, or give --all"},
        {"DeleteNamesAndAll",    "delete x --all",                2, "excludes"},
        {"AgentUnknownAction",   "agent restart",                 2, "action: restart not in"},
        {"EventsUnknownLevel",   "events --level loud",           2, "--level: loud not in {error,warning,info}"},
        {"ListWithArgument",     "list C:",                       2, "unexpected argument C: for list"},
        {"MachineIsADirectory",  "--machine '" + machine.directory().string() + "' providers", 1, "not a regular file"},
        {"MachineMissing",       "--machine /nonexistent/m.json providers", 1, "cannot be read"},
        {"MachineBroken",        onBroken + "providers",          1, "broken.json:"},
        {"ListOfBrokenMachine",  onBroken + "list",               1, "broken.json:"},
        {"SettingsDoNotParse",   "config-set --document garbage", 1, "refused the quiesce settings (status 3: The request is invalid.): the document does not parse"},
        {"SplitWithoutMode",     "config-set --group split --document '<SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>'", 1, "TARN_CFS_AUTO_PREP or TARN_CFS_SELECT_PREP"},
        {"SettingsFileMissing",  "config-set --file /nonexistent/settings.txt", 1, "cannot read the settings document /nonexistent/settings.txt"},
        {"PluginMissing",        "--plugin /nonexistent/libfikiv.so providers", 1, "no plug-in library at /nonexistent/libfikiv.so"},
        {"DeleteUnknownName",    "delete '\\\\?\\GLOBALROOT\\Device\\KivSnapshot9'", 1, "no snapshot volume named \\\\?\\GLOBALROOT\\Device\\KivSnapshot9 exists on this machine"},
        {"DisabledVolume",       plugin + " snapshot D: --no-agent", 1, "KIV_ATTRIBUTE_DISABLED"},
        // Without the driver library nothing can be placed or taken, and each
        // command says so instead of guessing.
        {"NoDriverPlan",         onNoDriver + "plan C:",          1, "the snapshot driver library kivapi.dll cannot be loaded (error 126"},
        {"NoDriverVolumes",      onNoDriver + "volumes",          0, "C:  fixed, NTFS, 40.0 GiB free\n  not taken\n    the snapshot driver does not answer for it"},
        {"NoDriverMachine",      onNoDriver + "machine",          0, "driver       does not answer"},
        {"NoDriverSnapshot",     onNoDriver + "snapshot C: --no-agent", 1, "the provider does not take C: for snapshots ('fihost volumes' says why)"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FihostResult result = runFihost(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_TRUE(has(row.exitCode == 0 ? result.out : result.err, row.shown))
            << result.out << result.err;
        EXPECT_EQ(has(result.err, "--help' for the usage"), row.exitCode == 2) << result.err;
        if (row.exitCode != 0) {
            EXPECT_EQ(result.out, "");
            FihostResult json = runFihost("--json " + row.arguments);
            EXPECT_EQ(json.exitCode, row.exitCode);
            EXPECT_EQ(jsonOf(json)["exitCode"], row.exitCode) << json.out;
        }
    }
    // A refusal's document keeps the reason.
    nlohmann::json refused = jsonOf(runFihost("--json config-set --document garbage"))["result"];
    EXPECT_EQ(refused["accepted"], false);
    EXPECT_EQ(refused["status"], 3);
}

// A command's text and its --json document carry the same facts: each text
// part is in the text, each fact (a JSON pointer and its value) in the
// document's result.
TEST(FihostCliTest, JsonCarriesTheFactsOfTheText) {
    TempMachine machine(fihostMachine());
    // Two event-log records for `fihost events`, a warning and a later error.
    std::filesystem::path state = machine.directory() / "machine.state";
    std::filesystem::create_directories(state);
    std::ofstream(state / "eventlog.jsonl")
        << R"({"time":"2026-11-23T10:00:00.000Z","source":"fikiv","type":2,"category":0,"eventId":7,"strings":["first"],"pid":11})"
        << "\n"
        << R"({"time":"2026-11-23T12:00:00.000Z","source":"fikiv","type":1,"category":0,"eventId":8,"strings":["second"],"pid":12})"
        << "\n";
    const std::string warning =
        "2026-11-23T10:00:00.000Z  warning  fikiv  event 7  process 11\n  first\n";
    const std::string error =
        "2026-11-23T12:00:00.000Z  error  fikiv  event 8  process 12\n  second\n";
    const std::string disabled =
        "The snapshot driver does not offer this volume for snapshots: "
        "\\\\?\\Volume{00000000-0000-0000-0000-000000000002} - "
        "KIV_ATTRIBUTE_DISABLED.";
    const nlohmann::json kAbsent = "(absent)";
    struct Row {
        const char* arguments;
        bool whole;  // the one text part is the whole text
        std::vector<std::string> textParts;
        std::vector<std::pair<const char*, nlohmann::json>> facts;
    };
    // clang-format off
    const Row rows[] = {
        {"providers", true, {"provider fikiv\n  interface version 7.0.0.0\n  method KIV_fim: Kiv Snapshot Provider, version 1.05\n"},
         {{"/provider", "fikiv"}, {"/interfaceVersion", "7.0.0.0"}, {"/methods/0/name", "KIV_fim"}, {"/methods/1", kAbsent}}},
        {"machine", false, {"\\\\?\\Volume{00000000-0000-0000-0000-000000000002}\\\n  paths        D:\\\n", "driver       0x4 (disabled)", "file system  no media"},
         {{"/volumes/1/guidName", "\\\\?\\Volume{00000000-0000-0000-0000-000000000002}\\"}, {"/volumes/1/paths/0", "D:\\"},
          {"/volumes/1/driverAttributes", 4}, {"/volumes/3/fileSystemProblem", "no media"}, {"/volumes/4", kAbsent}}},
        {"volumes", false, {"C:  fixed, NTFS, 40.0 GiB free\n  taken for snapshots\n", "D:  fixed, NTFS, 800.0 GiB free\n  not taken\n    " + disabled + "\n"},
         {{"/volumes/0/taken", true}, {"/volumes/1/taken", false}, {"/volumes/1/reasons/0", disabled}, {"/volumes/2/taken", true}, {"/volumes/3/taken", false}}},
        {"plan C:", false, {"C:      E:\\_tarnKivCacheFile_0.KIV  initial 0 MB, maximum ", "cache volume E:", "  D:      the snapshot driver marks it unusable: 0x4 (disabled)\n"},
         {{"/cacheFiles/0/cacheFile", "E:\\_tarnKivCacheFile_0.KIV"}, {"/cacheVolume", "E:"}, {"/otherVolumes/1/reason", "the snapshot driver marks it unusable: 0x4 (disabled)"}}},
        // E: excluded and D: disabled: the last resort keeps the cache on C: itself, in a
        // directory the plan names without making it.
        {"plan C: --cache-dir 'snap\\cache' --exclude E:", false, {"C:      C:\\snap\\cache\\_tarnKivCacheFile_0.KIV  initial ", "the cache directory C:\\snap\\cache\\ does not exist yet", "  E:      excluded (--exclude)\n"},
         {{"/cacheFiles/0/cacheFile", "C:\\snap\\cache\\_tarnKivCacheFile_0.KIV"}, {"/directoryNotes/0", "the cache directory C:\\snap\\cache\\ does not exist yet: the snapshot would create it"}}},
        {"list", true, {"no snapshots on this machine\n"}, {{"/snapshots", nlohmann::json::array()}}},
        // Not the CD-ROM without a disc.
        {"caches", true, {"C:  40.0 GiB free, 0 cache files\nD:  800.0 GiB free, 0 cache files\nE:  300.0 GiB free, 0 cache files\n"},
         {{"/volumes/2/volume", "E:"}, {"/volumes/2/cacheFiles", nlohmann::json::array()}, {"/volumes/3", kAbsent}}},
        // Oldest first, filtered by level or time.
        {"events", true, {warning + error}, {{"/events/0/text", "first"}, {"/events/1/text", "second"}, {"/events/2", kAbsent}}},
        {"events --level error", true, {error}, {{"/events/0/eventId", 8}, {"/events/1", kAbsent}}},
        {"events --since 2026-11-23T11", true, {error}, {{"/events/0/text", "second"}, {"/events/1", kAbsent}}},
        {"events --since 2026-11-24", true, {"no event-log records match\n"}, {{"/events", nlohmann::json::array()}}},
        {"agent status", true, {"no backup agent runs on this machine\n"}, {{"/running", false}}},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments);
        FihostResult text = runFihost(row.arguments);
        FihostResult json = runFihost(std::string("--json ") + row.arguments);
        ASSERT_EQ(text.exitCode, 0) << text.err;
        ASSERT_EQ(json.exitCode, 0) << json.err;
        for (const std::string& part : row.textParts) {
            EXPECT_TRUE(row.whole ? text.out == part : has(text.out, part)) << text.out;
        }
        nlohmann::json document = jsonOf(json);
        ASSERT_TRUE(document.is_object()) << json.out;
        EXPECT_EQ(document["exitCode"], 0);
        const std::string arguments = row.arguments;
        EXPECT_EQ(document["command"], arguments.substr(0, arguments.find(' ')));
        const nlohmann::json& result = document["result"];
        for (const auto& [pointer, value] : row.facts) {
            const nlohmann::json::json_pointer at(pointer);
            EXPECT_EQ(result.contains(at) ? result.at(at) : kAbsent, value) << pointer;
        }
    }
    // None of them made a directory or a cache file.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(machine.directory())) {
        EXPECT_NE(entry.path().filename(), "snap") << entry.path();
        EXPECT_FALSE(entry.path().filename().string().starts_with("_tarnKivCacheFile_"));
    }
}

TEST(FihostCliTest, SettingsFileIsReadRefusedOrInConflict) {
    TempMachine machine(fihostMachine());
    const std::filesystem::path settings = machine.directory() / "settings.txt";
    struct Row {
        const char* name;
        std::string document;
        std::string options;
        int exitCode;
        std::string shown;  // on stderr
    };
    // A settings document holding one setting.
    auto one = [](const std::string& key, const std::string& value) {
        return "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=" + key + " value=" + value +
               " /> </SET_CONFIG_INFO_LIST>";
    };
    const std::string inFile = " in the settings file " + settings.string();
    // clang-format off
    const Row rows[] = {
        {"Read", "# cache settings\n<SET_CONFIG_INFO_LIST>\n  <SET_CONFIG_INFO key=quiesceWait value=5 />\n"
                 "  <SET_CONFIG_INFO key=cachefileDir value=kiv />\n</SET_CONFIG_INFO_LIST>\n",
         "", 0, "config: quiesceWait=5, quiesceTimeout=30, cachefileDir=kiv"},
        {"DoesNotParse", "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=5 />\n", "", 2, "does not parse"},
        {"UnknownKey", one("quiesceWaitTime", "5"), "", 2, "unknown key quiesceWaitTime in the settings file"},
        {"SplitKey", one("cacheFileName", "x"), "", 2, "cacheFileName" + inFile + " is a per-volume split setting"},
        {"PercentTooLarge", one("cachefileMaxSizePercentage", "200"), "", 2, "the value must be a whole number from 0 to 100"},
        {"Missing", "", "", 2, "cannot read the settings file /nonexistent/s.txt"},
        {"Conflict", one("cachefileDir", "a"), "--cache-dir b", 2, "cachefileDir" + inFile + " conflicts with --cache-dir"},
        {"UnknownVolumeInFile", one("cachefileAllowedVolumes", "E:,Q:"), "", 2, "--cache-volume 'Q:' is not a volume"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::ofstream(settings) << row.document;
        const std::string file = row.document.empty() ? "/nonexistent/s.txt" : settings.string();
        FihostResult result =
            runFihost("snapshot C: --no-agent --settings '" + file + "' " + row.options);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_TRUE(has(result.err, row.shown)) << result.err;
    }
    // Nothing was left by the refused ones, nor by the one that ran.
    EXPECT_EQ(jsonOf(runFihost("--json list"))["result"]["snapshots"].size(), 0u);
}

// An output that cannot be written is a failure; --trace adds the callback's
// lines, with their levels, on stderr and changes nothing on stdout.
TEST(FihostCliTest, UnwritableOutputFailsAndTraceOnlyAddsToStderr) {
    TempMachine machine(fihostMachine());
    for (const char* arguments : {"providers", "config-info", "--json providers", "--help",
                                  "machine", "plan C:", "list", "caches", "agent status"}) {
        SCOPED_TRACE(arguments);
        FihostResult result = runFihost(std::string(arguments) + " >/dev/full");
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(has(result.err, "cannot write the output")) << result.err;
    }
    FihostResult quiet = runFihost("config-info");
    FihostResult traced = runFihost("--trace config-info");
    ASSERT_EQ(traced.exitCode, 0) << traced.err;
    EXPECT_FALSE(has(quiet.err, "[trace]")) << quiet.err;
    EXPECT_TRUE(has(traced.err, "[trace] Entering Function KivFiCoordinator::initNode"))
        << traced.err;
    EXPECT_EQ(quiet.out, traced.out);
}

}  // namespace
