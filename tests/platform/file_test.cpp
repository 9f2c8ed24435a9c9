// Files and folders on the volumes of a machine, and reading and writing
// through descriptor handles.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "sim/handles.h"
#include "sim/machine.h"
#include "support/temp_machine.h"

namespace {

using platformtest::kUntouched;
using platformtest::wide;
using testsupport::TempMachine;

constexpr os::DWORD kNone = 0;

class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // C:\Folder\Report.TXT and C:\Folder\cache.kiv, a file C:\plain.
        const std::filesystem::path c = backing(0);
        std::filesystem::create_directories(c / "Folder");
        std::ofstream(c / "Folder" / "Report.TXT") << "12345";
        std::ofstream(c / "Folder" / "cache.kiv") << "";
        std::ofstream(c / "plain") << "x";
    }

    static std::filesystem::path backing(int index) {
        return sim::Machine::current().volumes()[static_cast<std::size_t>(index)].backingDirectory;
    }

    TempMachine machine_{platformtest::nestedMachine()};
};

TEST_F(FileTest, GetFileAttributesRows) {
    std::string longPath = "C:\\";
    for (int i = 0; i < 51; ++i) {
        longPath += "abcd\\";
    }
    longPath += "xy";  // 260 characters
    struct Row {
        const char* name;
        std::string path;
        os::DWORD attributes;  // INVALID_FILE_ATTRIBUTES: fails with `error`
        os::DWORD error;
    };
    const Row rows[] = {
        {"DriveRoot", "C:\\", os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"Folder", "C:\\Folder", os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"FolderWrongCase", "c:\\FOLDER\\", os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"FileWrongCase", "C:\\folder\\report.txt", os::FILE_ATTRIBUTE_NORMAL, kUntouched},
        {"MountFolder", "C:\\mnt\\data", os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"FolderHoldingMountPoint", "C:\\mnt", os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"MissingFile", "C:\\Folder\\absent.txt", os::INVALID_FILE_ATTRIBUTES,
         os::ERROR_FILE_NOT_FOUND},
        {"MissingParent", "C:\\absent\\file.txt", os::INVALID_FILE_ATTRIBUTES,
         os::ERROR_PATH_NOT_FOUND},
        {"FileAsParent", "C:\\plain\\file.txt", os::INVALID_FILE_ATTRIBUTES,
         os::ERROR_PATH_NOT_FOUND},
        {"FileIsNotOnTheMountedVolume", "C:\\mnt\\data\\plain", os::INVALID_FILE_ATTRIBUTES,
         os::ERROR_FILE_NOT_FOUND},
        {"AbsentDrive", "Q:\\x", os::INVALID_FILE_ATTRIBUTES, os::ERROR_PATH_NOT_FOUND},
        {"RawVolume", "E:\\x", os::INVALID_FILE_ATTRIBUTES, os::ERROR_UNRECOGNIZED_VOLUME},
        {"DriveWithoutDisc", "F:\\x", os::INVALID_FILE_ATTRIBUTES, os::ERROR_NOT_READY},
        {"Wildcard", "C:\\Folder\\*", os::INVALID_FILE_ATTRIBUTES, os::ERROR_INVALID_NAME},
        {"ForbiddenCharacter", "C:\\a|b", os::INVALID_FILE_ATTRIBUTES, os::ERROR_INVALID_NAME},
        {"Empty", "", os::INVALID_FILE_ATTRIBUTES, os::ERROR_PATH_NOT_FOUND},
        {"TooLong", longPath, os::INVALID_FILE_ATTRIBUTES, os::ERROR_FILENAME_EXCED_RANGE},
        {"LongFormIsNotLimited", "\\\\?\\" + longPath, os::INVALID_FILE_ATTRIBUTES,
         os::ERROR_PATH_NOT_FOUND},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string path = wide(row.path);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetFileAttributesW(path.c_str()), row.attributes);
        EXPECT_EQ(os::GetLastError(), row.error);
    }
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::GetFileAttributesW(nullptr), os::INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

TEST_F(FileTest, CreateDirectoryRows) {
    struct Row {
        const char* name;
        const char* path;
        os::DWORD error;  // kNone: succeeds
        int volume;       // where the new folder lands
        const char* onDisk;
    };
    const Row rows[] = {
        {"NewFolder", "C:\\New", kNone, 0, "New"},
        {"TrailingBackslash", "C:\\Folder\\Sub\\", kNone, 0, "Folder/Sub"},
        {"InsideMountedVolume", "C:\\mnt\\data\\Cache", kNone, 1, "Cache"},
        {"ExistingWrongCase", "C:\\FOLDER", os::ERROR_ALREADY_EXISTS, 0, nullptr},
        {"ExistingFile", "C:\\plain", os::ERROR_ALREADY_EXISTS, 0, nullptr},
        {"DriveRoot", "C:\\", os::ERROR_ALREADY_EXISTS, 0, nullptr},
        {"MountPoint", "C:\\mnt\\data\\", os::ERROR_ALREADY_EXISTS, 0, nullptr},
        {"TwoLevelsMissing", "C:\\x\\y", os::ERROR_PATH_NOT_FOUND, 0, nullptr},
        {"ParentIsAFile", "C:\\plain\\y", os::ERROR_PATH_NOT_FOUND, 0, nullptr},
        {"AbsentDrive", "Q:\\x", os::ERROR_PATH_NOT_FOUND, 0, nullptr},
        {"Empty", "", os::ERROR_PATH_NOT_FOUND, 0, nullptr},
        {"ForbiddenCharacter", "C:\\a\"b", os::ERROR_INVALID_NAME, 0, nullptr},
        {"Wildcard", "C:\\a*", os::ERROR_INVALID_NAME, 0, nullptr},
        {"RawVolume", "E:\\x", os::ERROR_UNRECOGNIZED_VOLUME, 0, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string path = wide(row.path);
        os::SetLastError(kUntouched);
        const os::BOOL result = os::CreateDirectoryW(path.c_str(), nullptr);
        if (row.error != kNone) {
            EXPECT_FALSE(result);
            EXPECT_EQ(os::GetLastError(), row.error);
            continue;
        }
        EXPECT_TRUE(result);
        EXPECT_EQ(os::GetLastError(), kUntouched);
        EXPECT_TRUE(std::filesystem::is_directory(backing(row.volume) / row.onDisk));
        EXPECT_EQ(os::GetFileAttributesW(path.c_str()), os::FILE_ATTRIBUTE_DIRECTORY);
    }
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::CreateDirectoryW(nullptr, nullptr));
    EXPECT_EQ(os::GetLastError(), os::ERROR_PATH_NOT_FOUND);
}

std::vector<std::u16string> findAll(const std::u16string& pattern, os::DWORD* error) {
    std::vector<std::u16string> names;
    os::WIN32_FIND_DATAW data{};
    os::SetLastError(kUntouched);
    os::HANDLE find = os::FindFirstFileW(pattern.c_str(), &data);
    if (find == os::INVALID_HANDLE_VALUE) {
        *error = os::GetLastError();
        return names;
    }
    do {
        names.emplace_back(data.cFileName);
    } while (os::FindNextFileW(find, &data));
    *error = os::GetLastError();
    EXPECT_TRUE(os::FindClose(find));
    return names;
}

TEST_F(FileTest, FindFileRows) {
    struct Row {
        const char* name;
        const char* pattern;
        std::vector<std::u16string> names;
        os::DWORD error;  // after the last name, or of the first call
    };
    const Row rows[] = {
        {"ExactNameGivesSpellingOnDisk",
         "c:\\folder\\REPORT.txt",
         {u"Report.TXT"},
         os::ERROR_NO_MORE_FILES},
        {"FolderIsFound", "C:\\Folder", {u"Folder"}, os::ERROR_NO_MORE_FILES},
        {"MountFolderIsFound", "C:\\mnt\\data", {u"data"}, os::ERROR_NO_MORE_FILES},
        {"StarListsInNameOrder",
         "C:\\Folder\\*",
         {u"cache.kiv", u"Report.TXT"},
         os::ERROR_NO_MORE_FILES},
        {"PatternIgnoresCase", "C:\\Folder\\*.KIV", {u"cache.kiv"}, os::ERROR_NO_MORE_FILES},
        {"QuestionMark", "C:\\Folder\\Report.tx?", {u"Report.TXT"}, os::ERROR_NO_MORE_FILES},
        {"NoMatch", "C:\\Folder\\*.dat", {}, os::ERROR_FILE_NOT_FOUND},
        {"MissingFile", "C:\\Folder\\_tarnKivCacheFile_0.KIV", {}, os::ERROR_FILE_NOT_FOUND},
        {"MissingFolder", "C:\\absent\\x", {}, os::ERROR_PATH_NOT_FOUND},
        {"TrailingBackslash", "C:\\Folder\\", {}, os::ERROR_FILE_NOT_FOUND},
        {"DriveRoot", "C:\\", {}, os::ERROR_FILE_NOT_FOUND},
        {"Empty", "", {}, os::ERROR_PATH_NOT_FOUND},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::DWORD error = kNone;
        EXPECT_EQ(findAll(wide(row.pattern), &error), row.names);
        EXPECT_EQ(error, row.error);
    }
}

TEST_F(FileTest, FindDataDescribesTheFile) {
    os::WIN32_FIND_DATAW data{};
    os::HANDLE find = os::FindFirstFileW(u"C:\\Folder\\Report.TXT", &data);
    ASSERT_NE(find, os::INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.dwFileAttributes, os::FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_EQ(data.nFileSizeHigh, 0u);
    // Written after 2020-01-01 (132223104000000000 in 100 ns units since 1601).
    const std::uint64_t written = (std::uint64_t{data.ftLastWriteTime.dwHighDateTime} << 32) |
                                  data.ftLastWriteTime.dwLowDateTime;
    EXPECT_GT(written, 132223104000000000ull);

    // Search handles have their own closer.
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::CloseHandle(find));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::FindVolumeClose(find));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
    EXPECT_TRUE(os::FindClose(find));
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::FindClose(find));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::FindNextFileW(find, &data));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);
}

TEST(DescriptorHandleTest, PipeReadWriteAndBrokenEnds) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    os::HANDLE reader = sim::handleFromFd(ends[0]);
    os::HANDLE writer = sim::handleFromFd(ends[1]);
    EXPECT_EQ(sim::fdFromHandle(reader), ends[0]);

    os::DWORD count = 99;
    ASSERT_TRUE(os::WriteFile(writer, "hello", 5, &count, nullptr));
    EXPECT_EQ(count, 5u);
    char buffer[8] = {};
    ASSERT_TRUE(os::ReadFile(reader, buffer, sizeof(buffer), &count, nullptr));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(std::string(buffer, 5), "hello");

    struct Row {
        const char* name;
        os::HANDLE handle;
        bool nullCount;
        void* overlapped;
        os::DWORD error;
    };
    const Row rows[] = {
        {"NullHandle", nullptr, false, nullptr, os::ERROR_INVALID_HANDLE},
        {"TableHandleIsNoDescriptor", reinterpret_cast<os::HANDLE>(std::uintptr_t{0x40000000}),
         false, nullptr, os::ERROR_INVALID_HANDLE},
        {"NullCount", reader, true, nullptr, os::ERROR_INVALID_PARAMETER},
        {"Overlapped", reader, false, buffer, os::ERROR_NOT_SUPPORTED},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::SetLastError(kUntouched);
        EXPECT_FALSE(
            os::ReadFile(row.handle, buffer, 1, row.nullCount ? nullptr : &count, row.overlapped));
        EXPECT_EQ(os::GetLastError(), row.error);
    }

    // The writer goes: the reader sees a broken pipe, not an empty read.
    ASSERT_TRUE(os::CloseHandle(writer));
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::ReadFile(reader, buffer, sizeof(buffer), &count, nullptr));
    EXPECT_EQ(os::GetLastError(), os::ERROR_BROKEN_PIPE);
    EXPECT_EQ(count, 0u);
    ASSERT_TRUE(os::CloseHandle(reader));
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::CloseHandle(reader));
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_HANDLE);

    // The reader goes: writing fails with a code instead of killing the process.
    ASSERT_EQ(pipe(ends), 0);
    ::close(ends[0]);
    signal(SIGPIPE, SIG_IGN);
    os::SetLastError(kUntouched);
    EXPECT_FALSE(os::WriteFile(sim::handleFromFd(ends[1]), "x", 1, &count, nullptr));
    EXPECT_EQ(os::GetLastError(), os::ERROR_NO_DATA);
    ::close(ends[1]);
}

TEST(DescriptorHandleTest, FileReadStopsOnlyAtTheEnd) {
    char path[] = "/tmp/fikiv-read-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string content(100000, 'k');
    os::DWORD count = 0;
    ASSERT_TRUE(os::WriteFile(sim::handleFromFd(fd), content.data(),
                              static_cast<os::DWORD>(content.size()), &count, nullptr));
    EXPECT_EQ(count, content.size());
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    std::string back(content.size() + 10, '\0');
    ASSERT_TRUE(os::ReadFile(sim::handleFromFd(fd), back.data(),
                             static_cast<os::DWORD>(back.size()), &count, nullptr));
    EXPECT_EQ(count, content.size());
    // At the end of a file a read succeeds with nothing.
    ASSERT_TRUE(os::ReadFile(sim::handleFromFd(fd), back.data(), 10, &count, nullptr));
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(os::CloseHandle(sim::handleFromFd(fd)));
    unlink(path);
}

}  // namespace
