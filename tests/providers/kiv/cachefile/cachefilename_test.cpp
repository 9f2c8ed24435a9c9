// Cache file names, directories and sizes on simulated machines.
#include "kiv/cachefile/cachefilename.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cachefile_test_support.h"
#include "os/error.h"
#include "os/file.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace cachefiletest {
namespace {

using testsupport::TempMachine;
using testsupport::utf8;

// "directory", "file" or "absent", as the plug-in sees `path`.
std::string kindOf(const std::u16string& path) {
    const os::DWORD attributes = os::GetFileAttributesW(path.c_str());
    if (attributes == os::INVALID_FILE_ATTRIBUTES) {
        return "absent";
    }
    return (attributes & os::FILE_ATTRIBUTE_DIRECTORY) != 0 ? "directory" : "file";
}

TEST(CacheFileNameTest, SeparatorsAreSingleAndTheCounterAdvances) {
    // clang-format off
    struct Row { const char16_t* root; const char16_t* directory; std::uint32_t counter; const char* expected; std::uint32_t next; };
    const Row rows[] = {
        {u"D:",   u"",         7,           "D:\\_tarnKivCacheFile_7.KIV",          8},
        {u"D:\\", u"",         7,           "D:\\_tarnKivCacheFile_7.KIV",          8},
        {u"D:",   u"cache",    7,           "D:\\cache\\_tarnKivCacheFile_7.KIV",   8},
        {u"D:\\", u"cache\\",  7,           "D:\\cache\\_tarnKivCacheFile_7.KIV",   8},
        {u"D:",   u"one\\two", 7,           "D:\\one\\two\\_tarnKivCacheFile_7.KIV", 8},
        {u"D:",   u"",         0xFFFFFFFFu, "D:\\_tarnKivCacheFile_4294967295.KIV", 0},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(utf8(row.root) + " + " + utf8(row.directory));
        TempMachine machine(drives({50, 50}));
        setCacheFileCounter(row.counter);
        EXPECT_EQ(utf8(makeCacheFilePath(row.root, row.directory)), row.expected);
        EXPECT_EQ(cacheFileCounter(), row.next);
        if (*row.directory != u'\0') {
            EXPECT_EQ(kindOf(std::u16string(u"D:\\") + row.directory), "directory");
        }
    }
}

TEST(CacheFileNameTest, CreatesMissingParentsAndStopsOnImpossiblePathsOrFiles) {
    TempMachine machine(drives({50, 50}));
    EXPECT_TRUE(createDirectoryPath(u"D:\\level1\\level2\\"));
    EXPECT_EQ(kindOf(u"D:\\level1\\level2"), "directory");
    // Existing directories are fine, with or without the trailing separator.
    EXPECT_TRUE(createDirectoryPath(u"D:\\level1"));
    // Through the volume's GUID name as well.
    EXPECT_TRUE(createDirectoryPath(guid(2) + u"byguid\\inner"));
    EXPECT_EQ(kindOf(u"D:\\byguid\\inner"), "directory");

    // No volume behind the path: the recursion runs out and reports failure.
    os::SetLastError(0xdeadbeef);
    EXPECT_FALSE(createDirectoryPath(u"Q:\\a\\b\\"));
    EXPECT_EQ(os::GetLastError(), os::ERROR_PATH_NOT_FOUND);

    // A file in the way fails with "already exists", but the name is returned.
    createFileAt(u"D:\\blocker");
    for (const char16_t* directory : {u"D:\\blocker\\", u"D:\\blocker\\below\\"}) {
        SCOPED_TRACE(utf8(directory));
        os::SetLastError(0xdeadbeef);
        EXPECT_FALSE(createDirectoryPath(directory));
        EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_EXISTS);
    }
    setCacheFileCounter(3);
    EXPECT_EQ(utf8(makeCacheFilePath(u"D:", u"blocker")), "D:\\blocker\\_tarnKivCacheFile_3.KIV");
    EXPECT_EQ(kindOf(u"D:\\blocker"), "file");
}

// An existing cache file is skipped; a path over 260 characters never exists,
// so its name is handed out again. "\\?\Volume{...}\" (49) + directory + "\"
// + file name (23).
TEST(CacheFileNameTest, ExistingNamesAreSkippedUnlessThePathIsTooLong) {
    const struct {
        std::size_t directoryLength;
        bool exists;
        const char16_t* chosen;
        std::uint32_t next;
    } rows[] = {{187, true, u"\\_tarnKivCacheFile_1.KIV", 2},
                {188, false, u"\\_tarnKivCacheFile_0.KIV", 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.directoryLength);
        TempMachine machine(drives({50, 50}));
        const std::u16string directory = guid(2) + std::u16string(row.directoryLength, u'd');
        ASSERT_TRUE(createDirectoryPath(directory));
        const std::u16string file = directory + u"\\_tarnKivCacheFile_0.KIV";
        ASSERT_EQ(file.size(), 73 + row.directoryLength);  // 260, then 261
        createFileAt(file);

        EXPECT_EQ(fileExists(file), row.exists);
        // The directory itself is short enough and counts as existing.
        EXPECT_TRUE(fileExists(directory));
        setCacheFileCounter(0);
        const std::u16string path =
            makeCacheFilePath(guidRoot(2), std::u16string(row.directoryLength, u'd'));
        EXPECT_EQ(utf8(path), utf8(directory + row.chosen));
        EXPECT_EQ(cacheFileCounter(), row.next);
    }
}

CacheFileHints hintsOf(std::uint32_t initialMB, std::uint32_t maxMB, std::uint32_t initialPct,
                       std::uint32_t maxPct) {
    return {{}, {}, u"", initialMB, maxMB, initialPct, maxPct};
}

// Sizes and the host's messages. Volume 2 holds the cache; volume 1 is the
// target when the cache file is not on the snapshotted volume.
TEST(CacheFileSizesTest, RulesClampsFloorsAndMessages) {
    // clang-format off
    struct Row { const char* name; std::uint64_t totalBytes; std::uint64_t freeBytes; CacheFileHints hints; bool onOwnVolume; bool failFreeSpaceQuery; CacheFileSizes expected; std::vector<std::string> messages; };
    const std::uint64_t tib = 1ull << 40;
    const Row rows[] = {
        // 1,000 MB used, 30 MB free: the share 100 is capped to 95% of 30 and
        // raised to the floor; the maximum share 3 too.
        {"ThirtyMBFree",                     1030 * kMB,   30 * kMB,   hintsOf(0, 0, 10, 10),    true,  false, {50, 50},     {kPercentages, kLowSpace, ninetyFive("28", "30")}},
        // 102,400 MB used, 5,000 MB free: 10,240 exceeds 5,000, so 4,750.
        {"CappedAtNinetyFivePercent",        107400 * kMB, 5000 * kMB, hintsOf(0, 0, 10, 1),     true,  false, {50, 50},     {kPercentages, ninetyFive("4750", "5000")}},
        {"CappedShareKeptUnderLargeMaximum", 107400 * kMB, 5000 * kMB, hintsOf(0, 10000, 10, 1), true,  false, {4750, 10000}, {kPercentages, ninetyFive("4750", "5000")}},
        {"AbsoluteInitialHasNoFloor",        100 * kGB,    50 * kGB,   hintsOf(10, 0, 0, 10),    true,  false, {10, 5120},   {kAbsolute}},
        {"AbsoluteInitialLoweredToMaximum",  100 * kGB,    50 * kGB,   hintsOf(10, 5, 0, 0),     true,  false, {5, 5},       {kAbsolute}},
        {"AbsoluteMaximumHasNoFloor",        100 * kGB,    50 * kGB,   hintsOf(0, 20, 10, 0),    true,  false, {20, 20},     {kPercentages}},
        // 0 acts as 1 percent, 100 as 99 percent (51,200 MB used and free).
        {"PercentagesZeroAndHundred",        100 * kGB,    50 * kGB,   hintsOf(0, 0, 0, 100),    true,  false, {512, 50688}, {kPercentages}},
        {"PercentagesHundredAndZero",        100 * kGB,    50 * kGB,   hintsOf(0, 0, 100, 0),    true,  false, {512, 512},   {kPercentages}},
        // A cache file on another volume starts empty; nothing is reported.
        {"OtherVolumeStartsEmpty",           100 * kGB,    50 * kGB,   hintsOf(10, 0, 50, 10),   false, false, {0, 5120},    {}},
        // 50 TiB used and free: 99 percent of 52,428,800 MB must not wrap.
        {"LargeVolumeDoesNotWrap",           100 * tib,    50 * tib,   hintsOf(0, 0, 99, 99),    true,  false, {51904512, 51904512}, {kPercentages}},
        // A failed query counts as an empty volume: floors, and the warning.
        {"FailedFreeSpaceQuery",             100 * kGB,    50 * kGB,   hintsOf(0, 0, 10, 10),    true,  true,  {50, 50},     {kPercentages, kLowSpace}},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TempMachine machine(machineWith(
            {TempMachine::volume(1, {"C:\\"}),
             TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", row.totalBytes, row.freeBytes)}));
        HostCapture host;
        if (row.failFreeSpaceQuery) {
            sim::injectFault("GetDiskFreeSpaceExW", os::ERROR_PATH_NOT_FOUND, 0, sim::kAlways);
        }
        const std::u16string cacheVolume = guidRoot(2);
        const std::u16string target = row.onOwnVolume ? cacheVolume : guidRoot(1);

        EXPECT_EQ(computeCacheFileSizes(target, cacheVolume, row.hints), row.expected);
        std::vector<std::string> expected;
        for (const std::string& message : row.messages) {
            expected.push_back(onVolume(message, target));
        }
        EXPECT_EQ(host.lines(), expected);
    }
}

TEST(CacheFileSizesTest, TrailingSeparatorDoesNotHideTheOwnVolume) {
    TempMachine machine(drives({50, 50}));
    const CacheFileHints hints = hintsOf(0, 0, 10, 10);
    // 50 GB used and free: 10 percent each is 5,120 MB.
    EXPECT_EQ(computeCacheFileSizes(guid(2), guidRoot(2), hints), (CacheFileSizes{5120, 5120}));
    EXPECT_EQ(computeCacheFileSizes(guidRoot(2), guid(2), hints), (CacheFileSizes{5120, 5120}));
}

}  // namespace
}  // namespace cachefiletest
