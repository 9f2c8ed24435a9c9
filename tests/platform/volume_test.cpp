// Volume functions against a machine with nested mount points.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "support/temp_machine.h"

namespace {

using platformtest::answer;
using platformtest::CanaryBuffer;
using platformtest::filled;
using platformtest::kNone;
using platformtest::kUntouched;
using testsupport::TempMachine;

class NestedMachineTest : public ::testing::Test {
  protected:
    TempMachine machine_{platformtest::nestedMachine()};

    static std::u16string guid(int number) { return TempMachine::guidName(number); }
};

// A row of a function that writes a name for `input` into a buffer of
// `length` characters.
struct TextRow {
    const char* name;
    const char16_t* input;
    os::DWORD length;
    os::DWORD error;  // kNone: succeeds and writes `expected`
    const char16_t* expected;
};

// Runs `call(input, buffer, length)` for each row; the call answers whether
// it succeeded.
template <typename Call>
void expectTextRows(Call call, std::initializer_list<TextRow> rows) {
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        const bool succeeded = call(row.input, buffer.data(), row.length);
        EXPECT_TRUE(filled(succeeded, buffer, row.error, row.expected));
    }
}

// The first answer of a search, which is closed at once.
template <typename First, typename Close>
auto firstOfSearch(First first, Close close, bool nullBuffer = false) {
    return [=](const char16_t* input, char16_t* buffer, os::DWORD length) {
        os::HANDLE find = first(input, nullBuffer ? nullptr : buffer, length);
        return find != os::INVALID_HANDLE_VALUE && close(find);
    };
}

TEST_F(NestedMachineTest, FindFirstVolumeBufferRows) {
    const auto volume = [](const char16_t*, char16_t* buffer, os::DWORD length) {
        return os::FindFirstVolumeW(buffer, length);
    };
    const auto first = firstOfSearch(volume, &os::FindVolumeClose);
    const auto noBuffer = firstOfSearch(volume, &os::FindVolumeClose, /*nullBuffer=*/true);
    // clang-format off
    expectTextRows(noBuffer, {
        {"NullBufferZeroLength",   nullptr, 0,  os::ERROR_FILENAME_EXCED_RANGE, u""},
        {"NullBufferEnoughLength", nullptr, 50, os::ERROR_INVALID_PARAMETER,    u""},
    });
    expectTextRows(first, {
        {"NoRoomForNul",           nullptr, 49, os::ERROR_FILENAME_EXCED_RANGE, u""},
        {"ExactFit",               nullptr, 50, kNone,                          VOLUME_GUID("1")},
    });
    // clang-format on
}

TEST_F(NestedMachineTest, FindNextVolumeRows) {
    CanaryBuffer first(50);
    os::HANDLE find = os::FindFirstVolumeW(first.data(), first.length());
    ASSERT_NE(find, os::INVALID_HANDLE_VALUE);
    // The failing rows do not move the search.
    // clang-format off
    struct Row { const char* name; os::HANDLE handle; os::DWORD length; os::DWORD error; };
    const Row rows[] = {
        {"NullHandle",                nullptr,                  50, os::ERROR_INVALID_HANDLE},
        {"InvalidHandleBeforeLength", nullptr,                  0,  os::ERROR_INVALID_HANDLE},
        {"OneShort",                  find,                     49, os::ERROR_FILENAME_EXCED_RANGE},
        {"ExactFitGivesSecondVolume", find,                     50, kNone},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        const bool found = os::FindNextVolumeW(row.handle, buffer.data(), row.length);
        EXPECT_TRUE(filled(found, buffer, row.error, guid(2)));
    }
    // The rest of the search, in the order of the description, to its end.
    std::vector<std::u16string> rest;
    for (char16_t name[50]; os::FindNextVolumeW(find, name, 50);) {
        rest.emplace_back(name);
    }
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
    EXPECT_EQ(rest, (std::vector<std::u16string>{guid(3), guid(4), guid(5), guid(6), guid(7),
                                                 guid(8)}));
    // A search handle is closed with FindVolumeClose only, and once.
    const auto invalid = std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE});
    EXPECT_EQ(answer([&] { return os::CloseHandle(find); }), invalid);
    EXPECT_TRUE(os::FindVolumeClose(find));
    EXPECT_EQ(answer([&] { return os::FindVolumeClose(find); }), invalid);
}

TEST_F(NestedMachineTest, MountPointBufferRows) {
    const auto first =
        firstOfSearch(&os::FindFirstVolumeMountPointW, &os::FindVolumeMountPointClose);
    const auto noBuffer = firstOfSearch(&os::FindFirstVolumeMountPointW,
                                        &os::FindVolumeMountPointClose, /*nullBuffer=*/true);
    // clang-format off
    expectTextRows(noBuffer, {{"NullBuffer", VOLUME_GUID("1"), 10, os::ERROR_INVALID_PARAMETER, u""}});
    expectTextRows(first, {
        {"NullRoot",     nullptr,          10, os::ERROR_INVALID_PARAMETER, u""},
        {"NoRoomForNul", VOLUME_GUID("1"), 9,  os::ERROR_MORE_DATA,         u""},
        {"ExactFit",     VOLUME_GUID("1"), 10, kNone,                       u"mnt\\data\\"},
        // A mount point lives on the volume that holds its folder.
        {"MountedVolumeHoldsNestedOne", VOLUME_GUID("2"), 10, kNone,        u"inner\\"},
        {"NestedVolumeHasNone", VOLUME_GUID("3"),  10, os::ERROR_NO_MORE_FILES, u""},
        {"WrongCaseGuid", u"\\\\?\\VOLUME{00000000-0000-0000-0000-000000000002}\\", 10, kNone, u"inner\\"},
        {"MountPointAsRoot", u"c:\\MNT\\DATA\\", 10, kNone,               u"inner\\"},
        {"AbsentVolume",  VOLUME_GUID("0"), 10, os::ERROR_FILE_NOT_FOUND,   u""},
        {"NoTrailingBackslash", u"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}", 10, os::ERROR_INVALID_NAME, u""},
        {"FolderThatIsNoRoot", u"C:\\mnt\\",  10, os::ERROR_FILE_NOT_FOUND,   u""},
    });
    // clang-format on

    // "mnt\d2\" needs 8; seven is one short and does not advance the search.
    char16_t name[10];
    os::HANDLE find = os::FindFirstVolumeMountPointW(VOLUME_GUID("1"), name, 10);
    ASSERT_NE(find, os::INVALID_HANDLE_VALUE);
    const auto next = [find](const char16_t*, char16_t* buffer, os::DWORD length) {
        return os::FindNextVolumeMountPointW(find, buffer, length);
    };
    // clang-format off
    expectTextRows(next, {
        {"NextOneShort", nullptr, 7, os::ERROR_MORE_DATA,     u""},
        {"NextExactFit", nullptr, 8, kNone,                   u"mnt\\d2\\"},
        {"NoMoreFiles",  nullptr, 8, os::ERROR_NO_MORE_FILES, u""},
    });
    expectTextRows([](const char16_t*, char16_t* buffer, os::DWORD length) {
        return os::FindNextVolumeMountPointW(nullptr, buffer, length);
    }, {{"NullHandle", nullptr, 10, os::ERROR_INVALID_HANDLE, u""}});
    // clang-format on
    EXPECT_TRUE(os::FindVolumeMountPointClose(find));
}

TEST_F(NestedMachineTest, GetVolumeNameForVolumeMountPointRows) {
    // clang-format off
    expectTextRows(&os::GetVolumeNameForVolumeMountPointW, {
        {"NullPath", nullptr, 50, os::ERROR_INVALID_PARAMETER, u""},
        {"NoTrailingBackslash", u"C:", 50, os::ERROR_INVALID_NAME, u""},
        {"BackslashCheckedBeforeLength", u"C:", 10, os::ERROR_INVALID_NAME, u""},
        {"OneShort", u"C:\\", 49, os::ERROR_FILENAME_EXCED_RANGE, u""},
        {"LengthCheckedBeforeExistence", u"Q:\\", 49, os::ERROR_FILENAME_EXCED_RANGE, u""},
        {"ExactFit", u"C:\\", 50, kNone, VOLUME_GUID("1")},
        {"FolderMountPoint", u"C:\\mnt\\data\\", 50, kNone, VOLUME_GUID("2")},
        {"NestedMountPoint", u"C:\\mnt\\data\\inner\\", 50, kNone, VOLUME_GUID("3")},
        {"ForwardSlashes", u"C:/mnt/d2\\", 50, kNone, VOLUME_GUID("4")},
        {"FolderThatIsNoMountPoint", u"C:\\mnt\\", 50, os::ERROR_NOT_A_REPARSE_POINT, u""},
        {"MissingFolder", u"C:\\absent\\", 50, os::ERROR_FILE_NOT_FOUND, u""},
        {"GuidOfVolumeWithoutPath", VOLUME_GUID("5"), 50, kNone, VOLUME_GUID("5")},
        {"AbsentGuid", VOLUME_GUID("0"), 50, os::ERROR_FILE_NOT_FOUND, u""},
        {"MountPointBelowGuidRoot", VOLUME_GUID("1") u"mnt\\data\\", 50, kNone, VOLUME_GUID("2")},
        {"FolderBelowGuidRoot", VOLUME_GUID("1") u"mnt\\", 50, os::ERROR_NOT_A_REPARSE_POINT, u""},
        {"RawVolumeStillHasAName", u"E:\\", 50, kNone, VOLUME_GUID("6")},
    });
    // clang-format on
}

TEST_F(NestedMachineTest, GetVolumePathNameRows) {
    // clang-format off
    expectTextRows(&os::GetVolumePathNameW, {
        {"NullName",                    nullptr,                               10, os::ERROR_INVALID_PARAMETER,    u""},
        {"KeepsCallersCase",            u"c:\\Windows",                        10, kNone,                          u"c:\\"},
        {"BareDrive",                   u"C:",                                 10, kNone,                          u"C:\\"},
        {"FileBelowNestedMount",        u"C:\\mnt\\data\\inner\\a\\b.txt",     30, kNone,                          u"C:\\mnt\\data\\inner\\"},
        {"MountFolderWithoutBackslash", u"C:\\mnt\\data",                      30, kNone,                          u"C:\\mnt\\data\\"},
        {"DotDotLeavesMountPoint",      u"C:\\mnt\\data\\..\\x",               30, kNone,                          u"C:\\"},
        {"ExactFit",                    u"C:\\mnt\\data\\f",                   13, kNone,                          u"C:\\mnt\\data\\"},
        {"OneShort",                    u"C:\\mnt\\data\\f",                   12, os::ERROR_FILENAME_EXCED_RANGE, u""},
        {"AbsentDrive",                 u"Q:\\x",                              10, os::ERROR_PATH_NOT_FOUND,       u""},
        {"RelativeName",                u"x\\y",                               10, os::ERROR_PATH_NOT_FOUND,       u""},
        {"GuidPathThroughMountPoint",   VOLUME_GUID("1") u"mnt\\data\\f",      70, kNone,                          VOLUME_GUID("1") u"mnt\\data\\"},
    });
    // clang-format on
}

TEST_F(NestedMachineTest, GetDriveTypeRows) {
    // clang-format off
    struct Row { const char* name; const char16_t* root; os::UINT type; };
    const Row rows[] = {
        {"SystemDrive",          u"C:\\",               os::DRIVE_FIXED},
        {"NoTrailingBackslash",  u"C:",                 os::DRIVE_NO_ROOT_DIR},
        {"CdRomWithoutDisc",     u"F:\\",               os::DRIVE_CDROM},
        {"Removable",            u"G:\\",               os::DRIVE_REMOVABLE},
        {"FolderMountPoint",     u"C:\\mnt\\data\\",    os::DRIVE_FIXED},
        {"FolderThatIsNoRoot",   u"C:\\mnt\\",          os::DRIVE_NO_ROOT_DIR},
        {"GuidWithoutBackslash", u"\\\\?\\Volume{00000000-0000-0000-0000-000000000008}", os::DRIVE_REMOVABLE},
        {"Null",                 nullptr,               os::DRIVE_NO_ROOT_DIR},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetDriveTypeW(row.root), row.type);
        EXPECT_EQ(os::GetLastError(), kUntouched);
    }
}

TEST_F(NestedMachineTest, GetVolumeInformationRows) {
    struct Row {
        const char* name;
        const char16_t* root;
        os::DWORD labelLength;       // 0: no label buffer
        os::DWORD fileSystemLength;  // 0: no file-system buffer
        os::DWORD error;
        const char16_t* label;
        const char16_t* fileSystem;
    };
    // clang-format off
    const Row rows[] = {
        {"RawVolume",          u"E:\\",         0, 0, os::ERROR_UNRECOGNIZED_VOLUME, u"",      u""},
        {"AbsentDrive",        u"Q:\\",         0, 0, os::ERROR_PATH_NOT_FOUND,      u"",      u""},
        {"DriveWithoutDisc",   u"F:\\",         0, 0, os::ERROR_NOT_READY,           u"",      u""},
        {"NoTrailingBackslash", u"C:",          0, 0, os::ERROR_INVALID_NAME,        u"",      u""},
        {"FolderThatIsNoRoot", u"C:\\mnt\\",    0, 0, os::ERROR_DIR_NOT_ROOT,        u"",      u""},
        {"NoOutputBuffers",    u"C:\\",         0, 0, kNone,                         u"",      u""},
        {"ExactFit",           u"G:\\",         6, 6, kNone,                         u"STICK", u"FAT32"},
        {"LabelOneShort",      u"G:\\",         5, 6, os::ERROR_BAD_LENGTH,          u"",      u""},
        {"FileSystemOneShort", u"G:\\",         6, 5, os::ERROR_BAD_LENGTH,          u"",      u""},
        {"MountPoint",         u"C:\\mnt\\d2\\", 1, 5, kNone,                        u"",      u"ReFS"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer label(row.labelLength);
        CanaryBuffer fileSystem(row.fileSystemLength);
        os::DWORD maxComponent = 0;
        os::DWORD flags = 0;
        os::SetLastError(kUntouched);
        const bool answered = os::GetVolumeInformationW(
            row.root, row.labelLength ? label.data() : nullptr, row.labelLength, nullptr,
            &maxComponent, &flags, row.fileSystemLength ? fileSystem.data() : nullptr,
            row.fileSystemLength);
        const os::DWORD error = os::GetLastError();
        EXPECT_TRUE(filled(answered, label, row.error, row.label));
        os::SetLastError(error);
        EXPECT_TRUE(filled(answered, fileSystem, row.error, row.fileSystem));
        if (answered) {
            EXPECT_EQ(maxComponent, 255u);
        }
    }
    os::DWORD serial = 0;
    ASSERT_TRUE(
        os::GetVolumeInformationW(u"G:\\", nullptr, 0, &serial, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(serial, 0x1A2B3C4Du);
}

TEST_F(NestedMachineTest, GetDiskFreeSpaceRows) {
    ASSERT_TRUE(os::CreateDirectoryW(u"D:\\Sub", nullptr));
    constexpr std::uint64_t kGiB = 1ull << 30;
    struct Row {
        const char* name;
        const char16_t* path;
        os::DWORD error;
        std::uint64_t total;
        std::uint64_t free;
    };
    // clang-format off
    const Row rows[] = {
        {"DriveRoot",               u"C:\\",                   kNone,                         100 * kGiB, 40 * kGiB},
        {"NestedMountPoint",        u"C:\\MNT\\data\\inner\\", kNone,                         300 * kGiB, 10 * kGiB},
        {"ExistingFolderWrongCase", u"D:\\sub\\",              kNone,                         400 * kGiB, 400 * kGiB},
        {"GuidOfVolumeWithoutPath", VOLUME_GUID("5"),          kNone,                         500 * kGiB, 5 * kGiB},
        {"MissingFolder",           u"D:\\absent\\",           os::ERROR_PATH_NOT_FOUND,      7, 7},
        {"AbsentDrive",             u"Q:\\",                   os::ERROR_PATH_NOT_FOUND,      7, 7},
        {"RawVolume",               u"E:\\",                   os::ERROR_UNRECOGNIZED_VOLUME, 7, 7},
        {"DriveWithoutDisc",        u"F:\\",                   os::ERROR_NOT_READY,           7, 7},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        // 7 in every output: a failed call leaves them as they were.
        os::ULARGE_INTEGER available{}, total{}, free{};
        available.QuadPart = total.QuadPart = free.QuadPart = 7;
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetDiskFreeSpaceExW(row.path, &available, &total, &free) != 0,
                  row.error == kNone);
        EXPECT_EQ(os::GetLastError(), row.error == kNone ? kUntouched : row.error);
        EXPECT_EQ(total.QuadPart, row.total);
        EXPECT_EQ(free.QuadPart, row.free);
        EXPECT_EQ(available.QuadPart, row.free);
    }
    // Every output may be left out.
    EXPECT_TRUE(os::GetDiskFreeSpaceExW(u"C:\\", nullptr, nullptr, nullptr));
}

}  // namespace
