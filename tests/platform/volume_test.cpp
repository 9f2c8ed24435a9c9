// Volume functions against a machine with nested mount points, and the
// built-in default machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "sim/machine.h"
#include "support/temp_machine.h"

namespace {

using platformtest::CanaryBuffer;
using platformtest::kUntouched;
using platformtest::wide;
using testsupport::TempMachine;

constexpr os::DWORD kNone = 0;  // "no error expected" in a row

class NestedMachineTest : public ::testing::Test {
  protected:
    TempMachine machine_{platformtest::nestedMachine()};

    static std::u16string guid(int number) { return TempMachine::guidName(number); }
};

std::vector<std::u16string> allVolumes() {
    std::vector<std::u16string> names;
    CanaryBuffer buffer(50);
    os::HANDLE find = os::FindFirstVolumeW(buffer.data(), buffer.length());
    if (find == os::INVALID_HANDLE_VALUE) {
        ADD_FAILURE() << "FindFirstVolumeW failed with " << os::GetLastError();
        return names;
    }
    do {
        names.push_back(buffer.text());
        os::SetLastError(kUntouched);
    } while (os::FindNextVolumeW(find, buffer.data(), buffer.length()));
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
    EXPECT_TRUE(os::FindVolumeClose(find));
    return names;
}

// A mount point search of `root` to its end; nullopt (and *error) when the
// first call fails.
std::optional<std::vector<std::u16string>> allMountPoints(const std::u16string& root,
                                                          os::DWORD* error) {
    std::vector<std::u16string> found;
    CanaryBuffer buffer(os::MAX_PATH);
    os::SetLastError(kUntouched);
    os::HANDLE find = os::FindFirstVolumeMountPointW(root.c_str(), buffer.data(), buffer.length());
    if (find == os::INVALID_HANDLE_VALUE) {
        *error = os::GetLastError();
        return std::nullopt;
    }
    do {
        found.push_back(buffer.text());
    } while (os::FindNextVolumeMountPointW(find, buffer.data(), buffer.length()));
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
    EXPECT_TRUE(os::FindVolumeMountPointClose(find));
    return found;
}

TEST_F(NestedMachineTest, EnumeratesEveryVolumeInDescriptionOrder) {
    const std::vector<std::u16string> names = allVolumes();
    ASSERT_EQ(names.size(), 8u);
    for (int number = 1; number <= 8; ++number) {
        SCOPED_TRACE(number);
        EXPECT_EQ(names[static_cast<std::size_t>(number - 1)], guid(number));
        EXPECT_EQ(names[static_cast<std::size_t>(number - 1)].size(), 49u);
    }
}

TEST_F(NestedMachineTest, FindFirstVolumeBufferRows) {
    struct Row {
        const char* name;
        bool nullBuffer;
        os::DWORD length;
        bool succeeds;
        os::DWORD error;
    };
    const Row rows[] = {
        {"NullBufferZeroLength", true, 0, false, os::ERROR_FILENAME_EXCED_RANGE},
        {"ZeroLength", false, 0, false, os::ERROR_FILENAME_EXCED_RANGE},
        {"NoRoomForNul", false, 49, false, os::ERROR_FILENAME_EXCED_RANGE},
        {"NullBufferEnoughLength", true, 50, false, os::ERROR_INVALID_PARAMETER},
        {"ExactFit", false, 50, true, kUntouched},
        {"Larger", false, 51, true, kUntouched},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        os::HANDLE find =
            os::FindFirstVolumeW(row.nullBuffer ? nullptr : buffer.data(), row.length);
        EXPECT_EQ(find != os::INVALID_HANDLE_VALUE, row.succeeds);
        EXPECT_EQ(os::GetLastError(), row.error);
        EXPECT_TRUE(buffer.canaryIntact());
        if (row.succeeds) {
            EXPECT_EQ(buffer.text(), guid(1));
            EXPECT_TRUE(os::FindVolumeClose(find));
        } else {
            EXPECT_TRUE(buffer.untouched());
        }
    }
}

TEST_F(NestedMachineTest, FindNextVolumeRows) {
    CanaryBuffer first(50);
    os::HANDLE find = os::FindFirstVolumeW(first.data(), first.length());
    ASSERT_NE(find, os::INVALID_HANDLE_VALUE);

    // Checks that do not move the search.
    struct Row {
        const char* name;
        os::HANDLE handle;
        os::DWORD length;
        os::DWORD error;
    };
    const Row rows[] = {
        {"NullHandle", nullptr, 50, os::ERROR_INVALID_HANDLE},
        {"InvalidHandleValue", os::INVALID_HANDLE_VALUE, 50, os::ERROR_INVALID_HANDLE},
        {"InvalidHandleBeforeLength", nullptr, 0, os::ERROR_INVALID_HANDLE},
        {"OneShort", find, 49, os::ERROR_FILENAME_EXCED_RANGE},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        EXPECT_FALSE(os::FindNextVolumeW(row.handle, buffer.data(), row.length));
        EXPECT_EQ(os::GetLastError(), row.error);
        EXPECT_TRUE(buffer.untouched());
    }
    // The short buffer did not skip volume 2.
    CanaryBuffer next(50);
    os::SetLastError(kUntouched);
    ASSERT_TRUE(os::FindNextVolumeW(find, next.data(), next.length()));
    EXPECT_EQ(os::GetLastError(), kUntouched);
    EXPECT_EQ(next.text(), guid(2));
    EXPECT_TRUE(next.canaryIntact());

    // A search handle is closed with FindVolumeClose only.
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::CloseHandle(find));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
    EXPECT_TRUE(os::FindVolumeClose(find));
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::FindVolumeClose(find));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
}

// Searches answer from the machine they started on, to their end, even when
// the process moves to another machine meanwhile.
TEST(SearchLifetimeTest, OpenSearchesOutliveTheirMachine) {
    auto first = std::make_unique<TempMachine>(platformtest::nestedMachine());
    char16_t name[50];
    os::HANDLE volumes = os::FindFirstVolumeW(name, 50);
    ASSERT_NE(volumes, os::INVALID_HANDLE_VALUE);
    char16_t mountPoint[os::MAX_PATH];
    os::HANDLE mountPoints =
        os::FindFirstVolumeMountPointW(TempMachine::guidName(1).c_str(), mountPoint, os::MAX_PATH);
    ASSERT_NE(mountPoints, os::INVALID_HANDLE_VALUE);
    first.reset();
    TempMachine second(nlohmann::json{{"volumes", {TempMachine::volume(9, {"C:\\"})}}});

    std::vector<std::u16string> names{name};
    while (os::FindNextVolumeW(volumes, name, 50)) {
        names.emplace_back(name);
    }
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
    EXPECT_EQ(names.size(), 8u);
    EXPECT_EQ(names.back(), TempMachine::guidName(8));
    std::vector<std::u16string> folders{mountPoint};
    while (os::FindNextVolumeMountPointW(mountPoints, mountPoint, os::MAX_PATH)) {
        folders.emplace_back(mountPoint);
    }
    EXPECT_EQ(folders, (std::vector<std::u16string>{u"mnt\\data\\", u"mnt\\d2\\"}));
    EXPECT_TRUE(os::FindVolumeClose(volumes));
    EXPECT_TRUE(os::FindVolumeMountPointClose(mountPoints));
}

TEST(EmptyMachineTest, FindFirstVolumeHasNoMoreFiles) {
    TempMachine machine(nlohmann::json{{"volumes", nlohmann::json::array()}});
    CanaryBuffer buffer(50);
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::FindFirstVolumeW(buffer.data(), buffer.length()), os::INVALID_HANDLE_VALUE);
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
}

TEST_F(NestedMachineTest, MountPointsLiveOnTheVolumeThatHoldsTheirFolder) {
    struct Row {
        const char* name;
        std::u16string root;
        std::vector<std::u16string> expected;
        os::DWORD error;
    };
    const Row rows[] = {
        {"SystemVolume", guid(1), {u"mnt\\data\\", u"mnt\\d2\\"}, kNone},
        {"MountedVolumeHoldsNestedOne", guid(2), {u"inner\\"}, kNone},
        {"NestedVolumeHasNone", guid(3), {}, os::ERROR_NO_MORE_FILES},
        {"VolumeWithoutPath", guid(5), {}, os::ERROR_NO_MORE_FILES},
        {"DriveRoot", u"C:\\", {u"mnt\\data\\", u"mnt\\d2\\"}, kNone},
        {"WrongCaseGuid",
         wide("\\\\?\\VOLUME{00000000-0000-0000-0000-000000000002}\\"),
         {u"inner\\"},
         kNone},
        {"MountPointAsRoot", u"c:\\MNT\\DATA\\", {u"inner\\"}, kNone},
        {"AbsentVolume",
         wide("\\\\?\\Volume{00000000-0000-0000-0000-000000000099}\\"),
         {},
         os::ERROR_FILE_NOT_FOUND},
        {"NoTrailingBackslash", guid(1).substr(0, 48), {}, os::ERROR_INVALID_NAME},
        {"FolderThatIsNoRoot", u"C:\\mnt\\", {}, os::ERROR_FILE_NOT_FOUND},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::DWORD error = kNone;
        const auto found = allMountPoints(row.root, &error);
        EXPECT_EQ(error, row.error);
        if (row.error == kNone) {
            ASSERT_TRUE(found.has_value());
            EXPECT_EQ(*found, row.expected);
        }
    }
}

TEST_F(NestedMachineTest, MountPointBufferRows) {
    const std::u16string root = guid(1);
    const std::u16string firstMountPoint = u"mnt\\data\\";  // 9 characters
    struct Row {
        const char* name;
        bool nullRoot;
        bool nullBuffer;
        os::DWORD length;
        bool succeeds;
        os::DWORD error;
    };
    const Row rows[] = {
        {"NullRoot", true, false, 10, false, os::ERROR_INVALID_PARAMETER},
        {"NullBuffer", false, true, 10, false, os::ERROR_INVALID_PARAMETER},
        {"ZeroLength", false, false, 0, false, os::ERROR_MORE_DATA},
        {"NoRoomForNul", false, false, 9, false, os::ERROR_MORE_DATA},
        {"ExactFit", false, false, 10, true, kUntouched},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        os::HANDLE find =
            os::FindFirstVolumeMountPointW(row.nullRoot ? nullptr : root.c_str(),
                                           row.nullBuffer ? nullptr : buffer.data(), row.length);
        EXPECT_EQ(find != os::INVALID_HANDLE_VALUE, row.succeeds);
        EXPECT_EQ(os::GetLastError(), row.error);
        EXPECT_TRUE(buffer.canaryIntact());
        if (!row.succeeds) {
            EXPECT_TRUE(buffer.untouched());
            continue;
        }
        EXPECT_EQ(buffer.text(), firstMountPoint);
        // "mnt\d2\" needs 8; seven is one short and does not advance the search.
        CanaryBuffer shortBuffer(7);
        os::SetLastError(kUntouched);
        EXPECT_FALSE(os::FindNextVolumeMountPointW(find, shortBuffer.data(), shortBuffer.length()));
        EXPECT_EQ(os::GetLastError(), os::ERROR_MORE_DATA);
        EXPECT_TRUE(shortBuffer.untouched());
        CanaryBuffer exact(8);
        EXPECT_TRUE(os::FindNextVolumeMountPointW(find, exact.data(), exact.length()));
        EXPECT_EQ(exact.text(), u"mnt\\d2\\");
        EXPECT_TRUE(exact.canaryIntact());
        os::SetLastError(kUntouched);
        EXPECT_FALSE(os::FindNextVolumeMountPointW(find, exact.data(), exact.length()));
        EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_FILES);
        EXPECT_TRUE(os::FindVolumeMountPointClose(find));
    }
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::FindNextVolumeMountPointW(nullptr, CanaryBuffer(10).data(), 10));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
}

TEST_F(NestedMachineTest, GetVolumeNameForVolumeMountPointRows) {
    struct Row {
        const char* name;
        const char* path;  // null: a null pointer
        os::DWORD length;
        os::DWORD error;  // kNone: succeeds
        int volume;       // expected GUID name on success
    };
    const Row rows[] = {
        {"NullPath", nullptr, 50, os::ERROR_INVALID_PARAMETER, 0},
        {"EmptyPath", "", 50, os::ERROR_INVALID_PARAMETER, 0},
        {"NoTrailingBackslash", "C:", 50, os::ERROR_INVALID_NAME, 0},
        {"BackslashCheckedBeforeLength", "C:", 10, os::ERROR_INVALID_NAME, 0},
        {"ZeroLength", "C:\\", 0, os::ERROR_FILENAME_EXCED_RANGE, 0},
        {"OneShort", "C:\\", 49, os::ERROR_FILENAME_EXCED_RANGE, 0},
        {"LengthCheckedBeforeExistence", "Q:\\", 49, os::ERROR_FILENAME_EXCED_RANGE, 0},
        {"ExactFit", "C:\\", 50, kNone, 1},
        {"LowerCaseDrive", "c:\\", 50, kNone, 1},
        {"FolderMountPoint", "C:\\mnt\\data\\", 50, kNone, 2},
        {"WrongCaseMountPoint", "c:\\MNT\\Data\\", 50, kNone, 2},
        {"NestedMountPoint", "C:\\mnt\\data\\inner\\", 50, kNone, 3},
        {"SecondPathOfVolume", "C:\\mnt\\d2\\", 50, kNone, 4},
        {"ForwardSlashes", "C:/mnt/d2\\", 50, kNone, 4},
        {"FolderThatIsNoMountPoint", "C:\\mnt\\", 50, os::ERROR_NOT_A_REPARSE_POINT, 0},
        {"MissingFolder", "C:\\absent\\", 50, os::ERROR_FILE_NOT_FOUND, 0},
        {"AbsentDrive", "Q:\\", 50, os::ERROR_FILE_NOT_FOUND, 0},
        {"GuidOfVolumeWithoutPath", "\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\", 50,
         kNone, 5},
        {"GuidInUpperCase", "\\\\?\\VOLUME{00000000-0000-0000-0000-000000000005}\\", 50, kNone, 5},
        {"AbsentGuid", "\\\\?\\Volume{00000000-0000-0000-0000-000000000077}\\", 50,
         os::ERROR_FILE_NOT_FOUND, 0},
        {"MountPointBelowGuidRoot",
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\mnt\\data\\", 50, kNone, 2},
        {"NestedMountPointBelowGuidRoot",
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\MNT\\data\\inner\\", 50, kNone, 3},
        {"MountPointBelowMountedGuidRoot",
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000002}\\inner\\", 50, kNone, 3},
        {"FolderBelowGuidRoot", "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\mnt\\", 50,
         os::ERROR_NOT_A_REPARSE_POINT, 0},
        {"RawVolumeStillHasAName", "E:\\", 50, kNone, 6},
        {"EmptyDriveStillHasAName", "F:\\", 50, kNone, 7},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string path = row.path == nullptr ? u"" : wide(row.path);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        const os::BOOL result = os::GetVolumeNameForVolumeMountPointW(
            row.path == nullptr ? nullptr : path.c_str(), buffer.data(), row.length);
        EXPECT_TRUE(buffer.canaryIntact());
        if (row.error != kNone) {
            EXPECT_FALSE(result);
            EXPECT_EQ(os::GetLastError(), row.error);
            EXPECT_TRUE(buffer.untouched());
            continue;
        }
        EXPECT_TRUE(result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_EQ(buffer.text(), guid(row.volume));
    }
}

TEST_F(NestedMachineTest, GetVolumePathNameRows) {
    struct Row {
        const char* name;
        const char* path;
        os::DWORD length;
        os::DWORD error;
        const char* expected;
    };
    const Row rows[] = {
        {"EmptyName", "", 10, os::ERROR_INVALID_PARAMETER, nullptr},
        {"FileOnDrive", "C:\\windows\\system32\\x.dll", 10, kNone, "C:\\"},
        {"KeepsCallersCase", "c:\\Windows", 10, kNone, "c:\\"},
        {"BareDrive", "C:", 10, kNone, "C:\\"},
        {"FileBelowNestedMount", "C:\\mnt\\data\\inner\\a\\b.txt", 30, kNone,
         "C:\\mnt\\data\\inner\\"},
        {"MountFolderWithoutBackslash", "C:\\mnt\\data", 30, kNone, "C:\\mnt\\data\\"},
        {"FolderBesideMountPoint", "C:\\mnt\\other\\x", 30, kNone, "C:\\"},
        {"DotDotLeavesMountPoint", "C:\\mnt\\data\\..\\x", 30, kNone, "C:\\"},
        {"ExactFit", "C:\\mnt\\data\\f", 13, kNone, "C:\\mnt\\data\\"},
        {"OneShort", "C:\\mnt\\data\\f", 12, os::ERROR_FILENAME_EXCED_RANGE, nullptr},
        {"AbsentDrive", "Q:\\x", 10, os::ERROR_PATH_NOT_FOUND, nullptr},
        {"RelativeName", "x\\y", 10, os::ERROR_PATH_NOT_FOUND, nullptr},
        {"GuidPath", "\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\dir\\f", 50, kNone,
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\"},
        {"GuidPathThroughMountPoint",
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\mnt\\data\\f", 70, kNone,
         "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\mnt\\data\\"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string path = wide(row.path);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        const os::BOOL result = os::GetVolumePathNameW(path.c_str(), buffer.data(), row.length);
        EXPECT_TRUE(buffer.canaryIntact());
        if (row.error != kNone) {
            EXPECT_FALSE(result);
            EXPECT_EQ(os::GetLastError(), row.error);
            EXPECT_TRUE(buffer.untouched());
            continue;
        }
        EXPECT_TRUE(result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_EQ(buffer.text(), wide(row.expected));
    }
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::GetVolumePathNameW(nullptr, CanaryBuffer(10).data(), 10));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

TEST_F(NestedMachineTest, LogicalDriveStringsAskForTheirLengthFirst) {
    // C, D, E, F, G: four characters each and the final NUL.
    const std::u16string expected = std::u16string(u"C:\\\0D:\\\0E:\\\0F:\\\0G:\\\0", 20);
    struct Row {
        const char* name;
        os::DWORD length;
        os::DWORD result;
    };
    const Row rows[] = {
        {"ZeroLength", 0, 21},
        {"OneShort", 20, 21},
        {"ExactFit", 21, 20},
        {"Larger", 40, 20},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CanaryBuffer buffer(row.length);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetLogicalDriveStringsW(row.length, buffer.data()), row.result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_TRUE(buffer.canaryIntact());
        if (row.result > row.length) {
            EXPECT_TRUE(buffer.untouched());
        } else {
            EXPECT_EQ(std::u16string(buffer.data(), 21), expected + u'\0');
        }
    }
    EXPECT_EQ(os::GetLogicalDriveStringsW(0, nullptr), 21u);
}

TEST_F(NestedMachineTest, GetDriveTypeRows) {
    struct Row {
        const char* name;
        const char* root;  // null: a null pointer
        os::UINT type;
    };
    const Row rows[] = {
        {"SystemDrive", "C:\\", os::DRIVE_FIXED},
        {"LowerCase", "c:\\", os::DRIVE_FIXED},
        {"NoTrailingBackslash", "C:", os::DRIVE_NO_ROOT_DIR},
        {"CdRomWithoutDisc", "F:\\", os::DRIVE_CDROM},
        {"Removable", "G:\\", os::DRIVE_REMOVABLE},
        {"FolderMountPoint", "C:\\mnt\\data\\", os::DRIVE_FIXED},
        {"FolderThatIsNoRoot", "C:\\mnt\\", os::DRIVE_NO_ROOT_DIR},
        {"GuidWithoutBackslash", "\\\\?\\Volume{00000000-0000-0000-0000-000000000008}",
         os::DRIVE_REMOVABLE},
        {"DeviceFormOfDrive", "\\\\.\\G:\\", os::DRIVE_REMOVABLE},
        {"AbsentDrive", "Q:\\", os::DRIVE_NO_ROOT_DIR},
        {"Null", nullptr, os::DRIVE_NO_ROOT_DIR},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string root = row.root == nullptr ? u"" : wide(row.root);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetDriveTypeW(row.root == nullptr ? nullptr : root.c_str()), row.type);
        EXPECT_EQ(os::GetLastError(), kUntouched);
    }
}

TEST_F(NestedMachineTest, GetVolumeInformationRows) {
    struct Row {
        const char* name;
        const char* root;
        os::DWORD labelLength;       // 0: no label buffer
        os::DWORD fileSystemLength;  // 0: no file-system buffer
        os::DWORD error;
        const char* label;
        const char* fileSystem;
    };
    const Row rows[] = {
        {"RawVolume", "E:\\", 0, 0, os::ERROR_UNRECOGNIZED_VOLUME, nullptr, nullptr},
        {"AbsentDrive", "Q:\\", 0, 0, os::ERROR_PATH_NOT_FOUND, nullptr, nullptr},
        {"DriveWithoutDisc", "F:\\", 0, 0, os::ERROR_NOT_READY, nullptr, nullptr},
        {"NoTrailingBackslash", "C:", 0, 0, os::ERROR_INVALID_NAME, nullptr, nullptr},
        {"FolderThatIsNoRoot", "C:\\mnt\\", 0, 0, os::ERROR_DIR_NOT_ROOT, nullptr, nullptr},
        {"NoOutputBuffers", "C:\\", 0, 0, kNone, nullptr, nullptr},
        {"ExactFit", "G:\\", 6, 6, kNone, "STICK", "FAT32"},
        {"LabelOneShort", "G:\\", 5, 6, os::ERROR_BAD_LENGTH, nullptr, nullptr},
        {"FileSystemOneShort", "G:\\", 6, 5, os::ERROR_BAD_LENGTH, nullptr, nullptr},
        {"MountPoint", "C:\\mnt\\d2\\", 1, 5, kNone, "", "ReFS"},
        {"WrongCaseGuid", "\\\\?\\VOLUME{00000000-0000-0000-0000-000000000005}\\", 1, 5, kNone, "",
         "NTFS"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string root = wide(row.root);
        CanaryBuffer label(row.labelLength);
        CanaryBuffer fileSystem(row.fileSystemLength);
        os::DWORD serial = 0;
        os::DWORD maxComponent = 0;
        os::DWORD flags = 0;
        os::SetLastError(kUntouched);
        const os::BOOL result = os::GetVolumeInformationW(
            root.c_str(), row.labelLength ? label.data() : nullptr, row.labelLength, &serial,
            &maxComponent, &flags, row.fileSystemLength ? fileSystem.data() : nullptr,
            row.fileSystemLength);
        EXPECT_TRUE(label.canaryIntact());
        EXPECT_TRUE(fileSystem.canaryIntact());
        if (row.error != kNone) {
            EXPECT_FALSE(result);
            EXPECT_EQ(os::GetLastError(), row.error);
            EXPECT_TRUE(label.untouched());
            EXPECT_TRUE(fileSystem.untouched());
            continue;
        }
        EXPECT_TRUE(result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_EQ(maxComponent, 255u);
        if (row.label != nullptr) {
            EXPECT_EQ(label.text(), wide(row.label));
            EXPECT_EQ(fileSystem.text(), wide(row.fileSystem));
        }
    }
    os::DWORD serial = 0;
    ASSERT_TRUE(
        os::GetVolumeInformationW(u"G:\\", nullptr, 0, &serial, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(serial, 0x1A2B3C4Du);
}

TEST_F(NestedMachineTest, GetDiskFreeSpaceRows) {
    std::filesystem::create_directories(sim::Machine::current().resolve(u"D:\\")->hostPath / "Sub");
    struct Row {
        const char* name;
        const char* path;
        os::DWORD error;
        std::uint64_t total;
        std::uint64_t free;
    };
    const Row rows[] = {
        {"DriveRoot", "C:\\", kNone, 100ull << 30, 40ull << 30},
        {"BareDrive", "c:", kNone, 100ull << 30, 40ull << 30},
        {"MountPoint", "C:\\mnt\\data\\", kNone, 200ull << 30, 150ull << 30},
        {"NestedMountPoint", "C:\\MNT\\data\\inner\\", kNone, 300ull << 30, 10ull << 30},
        {"SecondPath", "C:\\mnt\\d2\\", kNone, 400ull << 30, 400ull << 30},
        {"ExistingFolderWrongCase", "D:\\sub\\", kNone, 400ull << 30, 400ull << 30},
        {"GuidOfVolumeWithoutPath", "\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\", kNone,
         500ull << 30, 5ull << 30},
        {"MissingFolder", "D:\\absent\\", os::ERROR_PATH_NOT_FOUND, 0, 0},
        {"AbsentDrive", "Q:\\", os::ERROR_PATH_NOT_FOUND, 0, 0},
        {"RawVolume", "E:\\", os::ERROR_UNRECOGNIZED_VOLUME, 0, 0},
        {"DriveWithoutDisc", "F:\\", os::ERROR_NOT_READY, 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string path = wide(row.path);
        os::ULARGE_INTEGER available{};
        os::ULARGE_INTEGER total{};
        os::ULARGE_INTEGER free{};
        available.QuadPart = total.QuadPart = free.QuadPart = 7;
        os::SetLastError(kUntouched);
        const os::BOOL result = os::GetDiskFreeSpaceExW(path.c_str(), &available, &total, &free);
        if (row.error != kNone) {
            EXPECT_FALSE(result);
            EXPECT_EQ(os::GetLastError(), row.error);
            EXPECT_EQ(free.QuadPart, 7u);
            continue;
        }
        EXPECT_TRUE(result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_EQ(total.QuadPart, row.total);
        EXPECT_EQ(free.QuadPart, row.free);
        EXPECT_EQ(available.QuadPart, row.free);
    }
    // Every output may be left out.
    EXPECT_TRUE(os::GetDiskFreeSpaceExW(u"C:\\", nullptr, nullptr, nullptr));
}

// The default machine, written on first use when FIKIV_MACHINE is not set.
class DefaultMachineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "fikiv-rt-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        runtime_ = pattern;
        saveVariable("FIKIV_MACHINE", &machine_);
        saveVariable("XDG_RUNTIME_DIR", &runtimeVariable_);
        unsetenv("FIKIV_MACHINE");
        setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
        sim::Machine::reset();
    }
    void TearDown() override {
        restoreVariable("FIKIV_MACHINE", machine_);
        restoreVariable("XDG_RUNTIME_DIR", runtimeVariable_);
        sim::Machine::reset();
        std::error_code ignored;
        std::filesystem::remove_all(runtime_, ignored);
    }

    std::filesystem::path runtime_;

  private:
    static void saveVariable(const char* name, std::optional<std::string>* saved) {
        if (const char* value = std::getenv(name)) {
            *saved = value;
        }
    }
    static void restoreVariable(const char* name, const std::optional<std::string>& saved) {
        if (saved) {
            setenv(name, saved->c_str(), 1);
        } else {
            unsetenv(name);
        }
    }
    std::optional<std::string> machine_;
    std::optional<std::string> runtimeVariable_;
};

TEST_F(DefaultMachineTest, IsWrittenUnderTheRuntimeDirectoryOnFirstUse) {
    const std::vector<std::u16string> names = allVolumes();
    EXPECT_EQ(names.size(), 8u);
    const std::filesystem::path file =
        runtime_ / ("fikiv-" + std::to_string(getuid())) / "default" / "machine.json";
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_EQ(sim::Machine::current().file(), file);
    // Volume directories are made on first use, not at load.
    const std::filesystem::path volumes = file.parent_path() / "machine.state" / "volumes";
    EXPECT_FALSE(std::filesystem::exists(volumes));
    EXPECT_EQ(os::GetFileAttributesW(u"C:\\"), os::FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_TRUE(std::filesystem::is_directory(volumes / "{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a01}"));

    CanaryBuffer drives(64);
    EXPECT_EQ(os::GetLogicalDriveStringsW(drives.length(), drives.data()), 24u);
    EXPECT_EQ(std::u16string(drives.data(), 24),
              std::u16string(u"C:\\\0D:\\\0E:\\\0F:\\\0G:\\\0H:\\\0", 24));
}

}  // namespace
