// The machine description: messages for broken files, what a broken machine
// answers, and how Windows paths find the files of a volume.
#include "sim/machine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "os/error.h"
#include "os/file.h"
#include "os/version.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "support/temp_machine.h"

namespace {

using platformtest::CanaryBuffer;
using platformtest::kUntouched;
using testsupport::TempMachine;

// `text` written as the file broken.json in `directory`; its path.
std::filesystem::path writeMachineFile(const std::filesystem::path& directory,
                                       const std::string& text) {
    const std::filesystem::path file = directory / "broken.json";
    std::ofstream(file) << text;
    return file;
}

std::string loadError(const std::filesystem::path& file) {
    try {
        sim::Machine::load(file);
    } catch (const sim::MachineError& error) {
        return error.what();
    }
    return "(loaded without error)";
}

TEST(MachineFileTest, BrokenDescriptionsNameFileLineAndField) {
    struct Row {
        const char* name;
        std::string text;
        std::string expected;  // follows "<file>:"
    };
    // clang-format off
    const Row rows[] = {
        {"SyntaxError", "{\n  \"volumes\": [\n    {\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "     \"type\": \"fixed\",,\n  ]\n}\n", "4: after field \"type\": malformed JSON: syntax error"},
        {"UnknownDriveType", "{\n  \"volumes\": [\n    {\n      \"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "      \"type\": \"fixd\"\n    }\n  ]\n}\n", "5: volumes[0].type: unknown drive type \"fixd\""},
        {"FreeAboveTotal", "{\"volumes\": [\n {\"guid\": \"{00000000-0000-0000-0000-000000000001}\"},\n" " {\"guid\": \"{00000000-0000-0000-0000-000000000002}\", \"totalBytes\": 10,\n" "  \"freeBytes\": 11}\n]}\n", "4: volumes[1].freeBytes: 11 free bytes exceed the 10 total bytes"},
        {"MalformedGuid", "{\"volumes\": [{\"guid\": \"{1234}\"}]}", "1: volumes[0].guid: \"{1234}\" is not a GUID"},
        {"MissingGuid", "{\"volumes\": [\n  {\"paths\": [\"C:\\\\\"]}\n]}", "2: volumes[0].guid: missing"},
        {"MisspelledField", "{\"volumes\": [\n  {\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "   \"freebytes\": 5}\n]}", "3: volumes[0].freebytes: unknown field"},
        {"NegativeSize", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\", \"totalBytes\": " "-1}]}", "1: volumes[0].totalBytes: expected a whole number of at least 0"},
        {"PathUsedTwice", "{\"volumes\": [\n {\"guid\": \"{00000000-0000-0000-0000-000000000001}\", \"paths\": " "[\"C:\\\\\"]},\n" " {\"guid\": \"{00000000-0000-0000-0000-000000000002}\", \"paths\": [\"c:\\\\\"]}\n]}", "3: volumes[1].paths[0]: \"C:\\\" is already used by volumes[0].paths[0]"},
        {"SameGuidTwice", "{\"volumes\": [\n {\"guid\": \"{00000000-0000-0000-0000-00000000000A}\"},\n" " {\"guid\": \"{00000000-0000-0000-0000-00000000000a}\"}\n]}", "3: volumes[1].guid: the same GUID is already used by volumes[0].guid"},
        {"MountFolderOnAbsentDrive", "{\"volumes\": [\n {\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"paths\": [\"Q:\\\\mnt\\\\\"]}\n]}", "3: volumes[0].paths[0]: no volume holds the folder"},
        {"MountedInsideItself", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"paths\": [\"C:\\\\\", \"C:\\\\self\\\\\"]}]}", "2: volumes[0].paths[1]: \"C:\\self\\\" lies on the volume itself"},
        {"PathThatIsNoWindowsPath", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\", \"paths\": " "[\"/mnt\"]}]}", "1: volumes[0].paths[0]: \"\\mnt\" is neither a drive root"},
        {"FaultWithoutError", "{\n\"faults\": [\n  {\"function\": \"Sleep\"}\n]}", "3: faults[0]: expected {\"function\", \"error\""},
        {"OsNotAnObject", "{\"os\": 10}", "1: os: expected {\"major\": 10"},
        {"UnknownFaultFunction", "{\"faults\": [\n  {\"function\": \"GetDiskFreeSpaceEx\", \"error\": 21}\n]}", "2: faults[0].function: unknown function \"GetDiskFreeSpaceEx\""},
        {"EscapeSequenceInLabel", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"label\": \"\\u001b[2J\\u001b]0;owned\\u0007\"}]}", "2: volumes[0].label: control character U+001B in a volume label"},
        {"C1ControlInFileSystem", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"fileSystem\": \"NT\\u009bFS\"}]}", "2: volumes[0].fileSystem: control character U+009B in a file-system name"},
        {"EscapeSequenceInGuidIsNotEchoed", "{\"volumes\": [{\"guid\": \"\\u001b[31m\"}]}", "1: volumes[0].guid: \"\\x1b[31m\" is not a GUID"},
        {"BackingDirectoryLeavesTheMachine", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"backingDirectory\": \"disks/../../x\"}]}", "2: volumes[0].backingDirectory: \"disks/../../x\" leads out of the machine's directory"},
        {"BackingDirectoryIsTheMachinesOwn", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"backingDirectory\": \"disks/..\"}]}", "2: volumes[0].backingDirectory: \"disks/..\" leads out of the machine's directory"},
        {"AbsentAbsoluteBackingDirectory", "{\"volumes\": [{\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"backingDirectory\": \"/nonexistent/fikiv/disk\"}]}", "2: volumes[0].backingDirectory: \"/nonexistent/fikiv/disk\" is not an existing " "directory"},
        {"SharedBackingDirectory", "{\"volumes\": [\n {\"guid\": \"{00000000-0000-0000-0000-000000000001}\",\n" "  \"backingDirectory\": \"disks/c\"},\n" " {\"guid\": \"{00000000-0000-0000-0000-000000000002}\",\n" "  \"backingDirectory\": \"disks/./c/\"}\n]}", "5: volumes[1].backingDirectory: volumes[0] already keeps its files in"},
        {"DeeplyNested", "{\"comment\":\n" + std::string(50000, '[') + std::string(50000, ']') + "}", "2: nesting deeper than 32 levels"},
        {"TopLevelList", "[]", "1: (top level): a machine description is a JSON object"},
        {"NumberBeyondDouble", "{\"os\":\n {\"major\": 9e999}}", "2: after field \"major\": malformed JSON: number overflow parsing '9e999'"},
    };
    // clang-format on
    const TempMachine scratch(nlohmann::json::object());
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = writeMachineFile(scratch.directory(), row.text);
        const std::string message = loadError(file);
        EXPECT_EQ(message.rfind(file + ":", 0), 0u) << message;
        EXPECT_NE(message.find(file + ":" + row.expected), std::string::npos) << message;
    }
}

TEST(MachineFileTest, OnlyAnExistingRegularFileOfBoundedSizeIsRead) {
    const TempMachine scratch(nlohmann::json::object());
    const std::filesystem::path directory = scratch.directory();
    const std::filesystem::path fifo = directory / "fifo.json";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::filesystem::path large = directory / "large.json";
    std::ofstream(large) << "{}";
    std::filesystem::resize_file(large, 17u << 20);
    struct Row {
        const char* name;
        std::filesystem::path file;
        const char* expected;  // follows "<file>"
    };
    // clang-format off
    const Row rows[] = {
        {"Fifo",          fifo,        ":1: not a regular file"},
        {"EndlessDevice", "/dev/zero", ":1: not a regular file"},
        {"Directory",     directory,   ":1: not a regular file"},
        {"TooLarge",      large,       ":1: 17825792 bytes are more than the 16777216"},
        {"Missing",       "/nonexistent/fikiv/machine.json", ": cannot be read: No such file"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string message = loadError(row.file);
        EXPECT_NE(message.find(row.file.string() + row.expected), std::string::npos) << message;
    }
}

TEST(MachineFileTest, AbsoluteBackingDirectoryIsUsedAsItIs) {
    const TempMachine disk(nlohmann::json::object());
    writeMachineFile(disk.directory(), "x");  // the file C:\broken.json
    nlohmann::json description = platformtest::nestedMachine();
    description["volumes"][0]["backingDirectory"] = disk.directory().string();
    TempMachine machine(description);
    EXPECT_NE(os::GetFileAttributesW(u"C:\\BROKEN.json"), os::INVALID_FILE_ATTRIBUTES);
}

// With a broken machine every function fails with a Win32 code, and
// Machine::current() says why.
TEST(MachineFileTest, BrokenMachineAnswersNotReady) {
    TempMachine holder(nlohmann::json::object());  // restores FIKIV_MACHINE afterwards
    setenv("FIKIV_MACHINE", writeMachineFile(holder.directory(), R"({"volumes": 3})").c_str(), 1);
    sim::Machine::reset();

    EXPECT_THAT([] { sim::Machine::current(); },
                ::testing::ThrowsMessage<sim::MachineError>(
                    ::testing::HasSubstr("volumes: expected a list of volumes")));

    CanaryBuffer buffer(50);
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    const auto notReady = [](auto call, auto failed) {
        return platformtest::answer(call) == std::pair(failed, os::DWORD{os::ERROR_NOT_READY});
    };
    EXPECT_TRUE(notReady([&] { return os::FindFirstVolumeW(buffer.data(), 50); },
                         os::INVALID_HANDLE_VALUE));
    EXPECT_TRUE(notReady([] { return os::GetDriveTypeW(u"C:\\"); }, os::UINT{os::DRIVE_UNKNOWN}));
    EXPECT_TRUE(notReady([&] { return os::GetLogicalDriveStringsW(50, buffer.data()); }, 0u));
    EXPECT_TRUE(notReady([] { return os::GetDiskFreeSpaceExW(u"C:\\", nullptr, nullptr, nullptr); },
                         os::FALSE));
    EXPECT_TRUE(notReady([] { return os::GetFileAttributesW(u"C:\\"); },
                         os::DWORD{os::INVALID_FILE_ATTRIBUTES}));
    EXPECT_TRUE(notReady([&] { return os::GetVersionExW(&version); }, os::FALSE));
    EXPECT_TRUE(buffer.untouched());
}

// The default machine, written on first use when FIKIV_MACHINE is not set.
TEST(DefaultMachineTest, IsWrittenUnderTheRuntimeDirectoryOnFirstUse) {
    platformtest::SavedVariable runtime("XDG_RUNTIME_DIR");
    TempMachine holder(nlohmann::json::object());  // restores FIKIV_MACHINE afterwards
    unsetenv("FIKIV_MACHINE");
    setenv("XDG_RUNTIME_DIR", holder.directory().c_str(), 1);
    sim::Machine::reset();

    // Six drives of four characters and the final NUL: the call answers the
    // length it needs, without the final NUL once it fits.
    EXPECT_EQ(os::GetLogicalDriveStringsW(0, nullptr), 25u);
    CanaryBuffer oneShort(24);
    EXPECT_EQ(os::GetLogicalDriveStringsW(oneShort.length(), oneShort.data()), 25u);
    EXPECT_TRUE(oneShort.untouched());
    CanaryBuffer drives(25);
    EXPECT_EQ(os::GetLogicalDriveStringsW(drives.length(), drives.data()), 24u);
    EXPECT_TRUE(drives.canaryIntact());
    EXPECT_EQ(std::u16string(drives.data(), 25),
              std::u16string(u"C:\\\0D:\\\0E:\\\0F:\\\0G:\\\0H:\\\0\0", 25));
    EXPECT_EQ(sim::Machine::current().file(),
              holder.directory() / ("fikiv-" + std::to_string(getuid())) / "default" / "machine.json");
}

TEST(MachineVersionTest, GetVersionExRowsOnAMachineWithoutVolumes) {
    TempMachine machine(nlohmann::json{{"os", {{"major", 4}, {"minor", 1}, {"build", 1381}}},
                                       {"volumes", nlohmann::json::array()}});
    // No volume to find, and nothing written.
    CanaryBuffer name(50);
    os::SetLastError(kUntouched);
    const bool found = os::FindFirstVolumeW(name.data(), 50) != os::INVALID_HANDLE_VALUE;
    EXPECT_TRUE(platformtest::filled(found, name, os::ERROR_NO_MORE_FILES));

    // clang-format off
    struct Row { const char* name; os::DWORD size; bool succeeds; os::DWORD error; };
    const Row rows[] = {
        {"OneShort",       275, false, os::ERROR_INSUFFICIENT_BUFFER},
        {"Exact",          276, true,  kUntouched},
        {"ExtendedRecord", 284, true,  kUntouched},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::OSVERSIONINFOW version{};
        version.dwOSVersionInfoSize = row.size;
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetVersionExW(&version) != 0, row.succeeds);
        EXPECT_EQ(os::GetLastError(), row.error);
        EXPECT_EQ(version.dwMajorVersion, row.succeeds ? 4u : 0u);
        EXPECT_EQ(version.dwMinorVersion, row.succeeds ? 1u : 0u);
        EXPECT_EQ(version.dwBuildNumber, row.succeeds ? 1381u : 0u);
    }
    EXPECT_EQ(platformtest::answer([] { return os::GetVersionExW(nullptr); }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_PARAMETER}));

    // The short form of the version.
    TempMachine shortForm(nlohmann::json{{"majorVersion", 5}});
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    ASSERT_TRUE(os::GetVersionExW(&version));
    EXPECT_EQ(version.dwMajorVersion, 5u);
}



}  // namespace
