// Files and folders on the volumes of a machine, and reading and writing
// through descriptor handles.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "sim/handles.h"
#include "support/temp_machine.h"

namespace {

using platformtest::kNone;
using platformtest::kUntouched;
using testsupport::TempMachine;

// The nested machine with C:\ kept in disks/c, which holds
// C:\Folder\Report.TXT (5 bytes), C:\Folder\cache.kiv and a file C:\plain.
nlohmann::json machineWithFiles() {
    nlohmann::json description = platformtest::nestedMachine();
    description["volumes"][0]["backingDirectory"] = "disks/c";
    return description;
}

class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::filesystem::path c = machine_.directory() / "disks" / "c";
        std::filesystem::create_directories(c / "Folder");
        std::ofstream(c / "Folder" / "Report.TXT") << "12345";
        std::ofstream(c / "Folder" / "cache.kiv") << "";
        std::ofstream(c / "plain") << "x";
    }

    TempMachine machine_{machineWithFiles()};
};

TEST_F(FileTest, GetFileAttributesRows) {
    std::u16string longPath = u"C:\\";
    for (int i = 0; i < 51; ++i) {
        longPath += u"abcd\\";
    }
    longPath += u"xy";  // 260 characters
    const std::u16string longForm = u"\\\\?\\" + longPath;
    constexpr os::DWORD kInvalid = os::INVALID_FILE_ATTRIBUTES;
    struct Row {
        const char* name;
        const char16_t* path;
        os::DWORD attributes;  // kInvalid: fails with `error`
        os::DWORD error;
    };
    // clang-format off
    const Row rows[] = {
        {"DriveRoot",                   u"C:\\",                    os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"FolderHoldingMountPoint",     u"C:\\mnt",                 os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"DoubledSeparatorsAndDots",    u"C:\\\\Folder\\.\\\\Report.TXT", os::FILE_ATTRIBUTE_NORMAL,  kUntouched},
        {"DotDotStopsAtRoot",           u"C:\\..\\..\\Folder",      os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"DeviceForm",                  u"\\\\?\\C:\\Folder",       os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"GuidForm",                    VOLUME_GUID("1") u"Folder",  os::FILE_ATTRIBUTE_DIRECTORY, kUntouched},
        {"GuidWithoutSeparator",        u"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}x", kInvalid, os::ERROR_PATH_NOT_FOUND},
        {"MissingParent",               u"C:\\absent\\file.txt",    kInvalid, os::ERROR_PATH_NOT_FOUND},
        {"FileAsParent",                u"C:\\plain\\file.txt",     kInvalid, os::ERROR_PATH_NOT_FOUND},
        {"FileIsNotOnTheMountedVolume", u"C:\\mnt\\data\\plain",    kInvalid, os::ERROR_FILE_NOT_FOUND},
        {"AbsentDrive",                 u"Q:\\x",                   kInvalid, os::ERROR_PATH_NOT_FOUND},
        {"RawVolume",                   u"E:\\x",                   kInvalid, os::ERROR_UNRECOGNIZED_VOLUME},
        {"DriveWithoutDisc",            u"F:\\x",                   kInvalid, os::ERROR_NOT_READY},
        {"Wildcard",                    u"C:\\Folder\\*",           kInvalid, os::ERROR_INVALID_NAME},
        {"ForbiddenCharacter",          u"C:\\a|b",                 kInvalid, os::ERROR_INVALID_NAME},
        {"Empty",                       u"",                        kInvalid, os::ERROR_PATH_NOT_FOUND},
        {"Null",                        nullptr,                    kInvalid, os::ERROR_INVALID_PARAMETER},
        {"TooLong",                     longPath.c_str(),           kInvalid, os::ERROR_FILENAME_EXCED_RANGE},
        {"LongFormIsNotLimited",        longForm.c_str(),           kInvalid, os::ERROR_PATH_NOT_FOUND},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::GetFileAttributesW(row.path), row.attributes);
        EXPECT_EQ(os::GetLastError(), row.error);
    }
}

TEST_F(FileTest, CreateDirectoryRows) {
    struct Row {
        const char* name;
        const char16_t* path;
        os::DWORD error;          // kNone: succeeds
        const char16_t* landsAt;  // the new folder through its volume's GUID path
    };
    // clang-format off
    const Row rows[] = {
        {"NewFolder",           u"C:\\New",              kNone,                         VOLUME_GUID("1") u"New"},
        {"TrailingBackslash",   u"C:\\Folder\\Sub\\",    kNone,                         VOLUME_GUID("1") u"Folder\\Sub"},
        {"InsideMountedVolume", u"C:\\mnt\\data\\Cache", kNone,                         VOLUME_GUID("2") u"Cache"},
        {"ExistingWrongCase",   u"C:\\FOLDER",           os::ERROR_ALREADY_EXISTS,      nullptr},
        {"MountPoint",          u"C:\\mnt\\data\\",      os::ERROR_ALREADY_EXISTS,      nullptr},
        {"TwoLevelsMissing",    u"C:\\x\\y",             os::ERROR_PATH_NOT_FOUND,      nullptr},
        {"ParentIsAFile",       u"C:\\plain\\y",         os::ERROR_PATH_NOT_FOUND,      nullptr},
        {"AbsentDrive",         u"Q:\\x",                os::ERROR_PATH_NOT_FOUND,      nullptr},
        {"Null",                nullptr,                 os::ERROR_PATH_NOT_FOUND,      nullptr},
        {"Wildcard",            u"C:\\a*",               os::ERROR_INVALID_NAME,        nullptr},
        {"ForbiddenCharacter",  u"C:\\a\"b",             os::ERROR_INVALID_NAME,        nullptr},
        {"RawVolume",           u"E:\\x",                os::ERROR_UNRECOGNIZED_VOLUME, nullptr},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::SetLastError(kUntouched);
        EXPECT_EQ(os::CreateDirectoryW(row.path, nullptr) != 0, row.error == kNone);
        EXPECT_EQ(os::GetLastError(), row.error == kNone ? kUntouched : row.error);
        if (row.landsAt != nullptr) {
            EXPECT_EQ(os::GetFileAttributesW(row.landsAt), os::FILE_ATTRIBUTE_DIRECTORY);
        }
    }
}

// The names a file search gives, and the error after the last one (or of
// the first call when nothing matches).
std::vector<std::u16string> findAll(const char16_t* pattern, os::DWORD* error) {
    std::vector<std::u16string> names;
    os::WIN32_FIND_DATAW data{};
    os::SetLastError(kUntouched);
    os::HANDLE find = os::FindFirstFileW(pattern, &data);
    if (find != os::INVALID_HANDLE_VALUE) {
        do {
            names.emplace_back(data.cFileName);
        } while (os::FindNextFileW(find, &data));
    }
    *error = os::GetLastError();
    if (find != os::INVALID_HANDLE_VALUE) {
        EXPECT_TRUE(os::FindClose(find));
    }
    return names;
}

TEST_F(FileTest, FindFileRowsAndWhatTheyTellOfAFile) {
    ASSERT_TRUE(os::CreateDirectoryW(u"C:\\FOLDER\\Sub", nullptr));
    struct Row {
        const char* name;
        const char16_t* pattern;
        std::vector<std::u16string> names;
        os::DWORD error;
    };
    // clang-format off
    const Row rows[] = {
        {"ExactNameGivesSpellingOnDisk", u"c:\\folder\\REPORT.txt",    {u"Report.TXT"},                  os::ERROR_NO_MORE_FILES},
        {"MountFolderIsFound",           u"C:\\mnt\\data",             {u"data"},                        os::ERROR_NO_MORE_FILES},
        {"StarListsInNameOrder",         u"C:\\Folder\\*",             {u"cache.kiv", u"Report.TXT", u"Sub"}, os::ERROR_NO_MORE_FILES},
        {"NewFolderJoinedTheOldOne",     u"C:\\*",                     {u"Folder", u"mnt", u"plain"},    os::ERROR_NO_MORE_FILES},
        {"PatternIgnoresCase",           u"C:\\Folder\\*.KIV",         {u"cache.kiv"},                   os::ERROR_NO_MORE_FILES},
        {"QuestionMark",                 u"C:\\Folder\\Report.tx?",    {u"Report.TXT"},                  os::ERROR_NO_MORE_FILES},
        {"NoMatch",                      u"C:\\Folder\\*.dat",         {},                               os::ERROR_FILE_NOT_FOUND},
        {"MissingFolder",                u"C:\\absent\\x",             {},                               os::ERROR_PATH_NOT_FOUND},
        {"TrailingBackslash",            u"C:\\Folder\\",              {},                               os::ERROR_FILE_NOT_FOUND},
        {"Empty",                        u"",                          {},                               os::ERROR_PATH_NOT_FOUND},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        os::DWORD error = kNone;
        EXPECT_EQ(findAll(row.pattern, &error), row.names);
        EXPECT_EQ(error, row.error);
    }

    // What a search tells of the file it found.
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

    // Search handles have their own closer, which works once.
    const auto failsOnHandle = [](auto call) {
        return platformtest::answer(call) == std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE});
    };
    EXPECT_TRUE(failsOnHandle([&] { return os::CloseHandle(find); }));
    EXPECT_TRUE(failsOnHandle([&] { return os::FindVolumeClose(find); }));
    EXPECT_TRUE(os::FindClose(find));
    EXPECT_TRUE(failsOnHandle([&] { return os::FindClose(find); }));
    EXPECT_TRUE(failsOnHandle([&] { return os::FindNextFileW(find, &data); }));
}

TEST(DescriptorHandleTest, PipeReadWriteAndBrokenEnds) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    os::HANDLE reader = sim::handleFromFd(ends[0]);
    os::HANDLE writer = sim::handleFromFd(ends[1]);
    EXPECT_EQ(reader, reinterpret_cast<os::HANDLE>(std::uintptr_t(ends[0] + 1) * 4));
    EXPECT_EQ(sim::fdFromHandle(reader), ends[0]);

    os::DWORD count = 99;
    ASSERT_TRUE(os::WriteFile(writer, "hello", 5, &count, nullptr));
    EXPECT_EQ(count, 5u);
    char buffer[8] = {};
    ASSERT_TRUE(os::ReadFile(reader, buffer, sizeof(buffer), &count, nullptr));
    EXPECT_EQ(std::string(buffer, count), "hello");

    struct Row {
        const char* name;
        os::HANDLE handle;
        bool nullCount;
        void* overlapped;
        os::DWORD error;
    };
    const os::HANDLE tableHandle = reinterpret_cast<os::HANDLE>(std::uintptr_t{0x40000000});
    // clang-format off
    const Row rows[] = {
        {"NullHandle",                nullptr,     false, nullptr, os::ERROR_INVALID_HANDLE},
        {"TableHandleIsNoDescriptor", tableHandle, false, nullptr, os::ERROR_INVALID_HANDLE},
        {"NullCount",                 reader,      true,  nullptr, os::ERROR_INVALID_PARAMETER},
        {"Overlapped",                reader,      false, buffer,  os::ERROR_NOT_SUPPORTED},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(platformtest::answer([&] {
                      return os::ReadFile(row.handle, buffer, 1, row.nullCount ? nullptr : &count,
                                          row.overlapped);
                  }),
                  std::pair(os::FALSE, row.error));
    }

    // The writer goes: the reader sees a broken pipe, not an empty read.
    ASSERT_TRUE(os::CloseHandle(writer));
    EXPECT_EQ(platformtest::answer([&] { return os::ReadFile(reader, buffer, 8, &count, nullptr); }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_BROKEN_PIPE}));
    EXPECT_EQ(count, 0u);
    ASSERT_TRUE(os::CloseHandle(reader));
    EXPECT_EQ(platformtest::answer([&] { return os::CloseHandle(reader); }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE}));

    // The reader goes: writing fails with a code instead of killing the process.
    ASSERT_EQ(pipe(ends), 0);
    ::close(ends[0]);
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(platformtest::answer([&] {
                  return os::WriteFile(sim::handleFromFd(ends[1]), "x", 1, &count, nullptr);
              }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_NO_DATA}));
    ::close(ends[1]);
}

TEST(DescriptorHandleTest, FileReadStopsOnlyAtTheEnd) {
    char path[] = "/tmp/fikiv-read-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    const os::HANDLE file = sim::handleFromFd(fd);
    const std::string content(100000, 'k');
    os::DWORD count = 0;
    ASSERT_TRUE(os::WriteFile(file, content.data(), 100000, &count, nullptr));
    EXPECT_EQ(count, 100000u);
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    std::string back(content.size() + 10, '\0');
    ASSERT_TRUE(os::ReadFile(file, back.data(), 100010, &count, nullptr));
    EXPECT_EQ(count, 100000u);
    // At the end of a file a read succeeds with nothing.
    ASSERT_TRUE(os::ReadFile(file, back.data(), 10, &count, nullptr));
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(os::CloseHandle(file));
}

}  // namespace
