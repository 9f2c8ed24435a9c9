// Cache file names, directories and sizes on simulated machines.
#include "kiv/cachefile/cachefilename.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cachefile_test_support.h"
#include "os/error.h"
#include "os/file.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace cachefiletest {
namespace {

using testsupport::TempMachine;

nlohmann::json oneVolumeMachine() {
    return machineWith({TempMachine::volume(1, {"C:\\"}), TempMachine::volume(2, {"D:\\"})});
}

bool isDirectory(const std::u16string& path) {
    const os::DWORD attributes = os::GetFileAttributesW(path.c_str());
    return attributes != os::INVALID_FILE_ATTRIBUTES &&
           (attributes & os::FILE_ATTRIBUTE_DIRECTORY) != 0;
}

TEST(CacheFileNameTest, ExistingNameIsSkippedAndCounterAdvancesByTwo) {
    TempMachine machine(oneVolumeMachine());
    setCacheFileCounter(0);
    createFileAt(u"D:\\_tarnKivCacheFile_0.KIV");

    EXPECT_EQ(utf8(makeCacheFilePath(u"D:\\", u"")), "D:\\_tarnKivCacheFile_1.KIV");
    EXPECT_EQ(cacheFileCounter(), 2u);
    // The next name follows on without reusing a skipped value.
    EXPECT_EQ(utf8(makeCacheFilePath(u"D:\\", u"")), "D:\\_tarnKivCacheFile_2.KIV");
}

TEST(CacheFileNameTest, SeparatorsAreSingleWhateverTheInputEndsIn) {
    struct Row {
        const char16_t* root;
        const char16_t* directory;
        const char* expected;
    };
    const Row rows[] = {
        {u"D:", u"", "D:\\_tarnKivCacheFile_7.KIV"},
        {u"D:\\", u"", "D:\\_tarnKivCacheFile_7.KIV"},
        {u"D:", u"cache", "D:\\cache\\_tarnKivCacheFile_7.KIV"},
        {u"D:\\", u"cache\\", "D:\\cache\\_tarnKivCacheFile_7.KIV"},
        {u"D:", u"one\\two", "D:\\one\\two\\_tarnKivCacheFile_7.KIV"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(utf8(row.root) + " + " + utf8(row.directory));
        TempMachine machine(oneVolumeMachine());
        setCacheFileCounter(7);
        EXPECT_EQ(utf8(makeCacheFilePath(row.root, row.directory)), row.expected);
        EXPECT_EQ(cacheFileCounter(), 8u);
        if (*row.directory != u'\0') {
            EXPECT_TRUE(isDirectory(std::u16string(u"D:\\") + row.directory));
        }
    }
}

TEST(CacheFileNameTest, CreatesMissingParentsAndStopsOnImpossiblePaths) {
    TempMachine machine(oneVolumeMachine());
    EXPECT_TRUE(createDirectoryPath(u"D:\\level1\\level2\\"));
    EXPECT_TRUE(isDirectory(u"D:\\level1"));
    EXPECT_TRUE(isDirectory(u"D:\\level1\\level2"));
    // Existing directories are fine, with or without the trailing separator.
    EXPECT_TRUE(createDirectoryPath(u"D:\\level1"));
    // Through the volume's GUID name as well.
    EXPECT_TRUE(createDirectoryPath(guid(2) + u"byguid\\inner"));
    EXPECT_TRUE(isDirectory(u"D:\\byguid\\inner"));

    // No volume behind the path: the recursion runs out and reports failure.
    os::SetLastError(0xdeadbeef);
    EXPECT_FALSE(createDirectoryPath(u"Q:\\a\\b\\"));
    EXPECT_NE(os::GetLastError(), 0xdeadbeefu);
    EXPECT_NE(os::GetLastError(), os::ERROR_SUCCESS);
}

TEST(CacheFileNameTest, FileInTheWayFailsWithAlreadyExistsButPathIsReturned) {
    TempMachine machine(oneVolumeMachine());
    createFileAt(u"D:\\blocker");

    const char16_t* directories[] = {u"D:\\blocker\\", u"D:\\blocker\\below\\"};
    for (const char16_t* directory : directories) {
        SCOPED_TRACE(utf8(directory));
        os::SetLastError(0xdeadbeef);
        EXPECT_FALSE(createDirectoryPath(directory));
        EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_EXISTS);
    }

    setCacheFileCounter(3);
    EXPECT_EQ(utf8(makeCacheFilePath(u"D:", u"blocker")), "D:\\blocker\\_tarnKivCacheFile_3.KIV");
    EXPECT_FALSE(isDirectory(u"D:\\blocker"));
    EXPECT_TRUE(std::filesystem::is_regular_file(hostPathOf(u"D:\\blocker")));
}

TEST(CacheFileNameTest, PathsOverTwoHundredSixtyCharactersNeverExist) {
    // The volume GUID form may name longer paths, as placement does; the
    // path is "\\?\Volume{...}\" (49) + directory + "\" + the file name (23).
    struct Row {
        std::size_t directoryLength;
        bool exists;
    };
    const Row rows[] = {{187, true}, {188, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.directoryLength);
        TempMachine machine(oneVolumeMachine());
        const std::u16string directory = guid(2) + std::u16string(row.directoryLength, u'd');
        ASSERT_TRUE(createDirectoryPath(directory));
        const std::u16string file = directory + u"\\_tarnKivCacheFile_0.KIV";
        ASSERT_EQ(file.size(), 73 + row.directoryLength);  // 260, then 261
        createFileAt(file);

        EXPECT_EQ(fileExists(file), row.exists);
        // The directory itself is short enough and counts as existing.
        EXPECT_TRUE(fileExists(directory));
        // A cache file behind a long path is not seen, so its name is handed
        // out again.
        setCacheFileCounter(0);
        const std::u16string path =
            makeCacheFilePath(guidRoot(2), std::u16string(row.directoryLength, u'd'));
        EXPECT_EQ(utf8(path), utf8(row.exists ? directory + u"\\_tarnKivCacheFile_1.KIV" : file));
    }
}

TEST(CacheFileNameTest, CounterWrapsToZero) {
    TempMachine machine(oneVolumeMachine());
    setCacheFileCounter(0xFFFFFFFFu);
    EXPECT_EQ(utf8(makeCacheFilePath(u"D:", u"")), "D:\\_tarnKivCacheFile_4294967295.KIV");
    EXPECT_EQ(cacheFileCounter(), 0u);
    EXPECT_EQ(utf8(makeCacheFilePath(u"D:", u"")), "D:\\_tarnKivCacheFile_0.KIV");
}

// Sizes and the messages the host sees, one machine per row. Volume 2 is the
// cache volume; volume 1 is another volume used as the target when the
// cache file does not live on the snapshotted volume.
struct SizingRow {
    const char* name;
    std::uint64_t totalBytes;
    std::uint64_t freeBytes;
    CacheFileHints hints;
    bool onOwnVolume;
    bool failFreeSpaceQuery;
    CacheFileSizes expected;
    std::vector<HostMessage> messages;  // "%V" stands for the volume name
};

CacheFileHints hintsOf(std::uint32_t initialMB, std::uint32_t maxMB, std::uint32_t initialPct,
                       std::uint32_t maxPct) {
    CacheFileHints hints;
    hints.initialCacheFileSizeMB = initialMB;
    hints.maxCacheFileSizeMB = maxMB;
    hints.initialCacheFileSizePct = initialPct;
    hints.maxCacheFileSizePct = maxPct;
    return hints;
}

const HostMessage kAbsolute{
    u"INFO: Absolute value for cachevolume size is considered for resource %V", 1};
const HostMessage kPercentages{
    u"INFO: cachefileInitSizePercentages are considered to find cachesize for resource %V", 1};
const HostMessage kLowSpace{u"WARNING: Freespace of cachevolume is less than 50MB for resource %V",
                            2};

HostMessage ninetyFive(const char16_t* sizeMB, const char16_t* freeMB) {
    return {std::u16string(u"INFO: 95% [") + sizeMB + u" MB] of Cache volume Freespace [" + freeMB +
                u" MB] is considered for resource %V",
            1};
}

std::u16string substituteVolume(std::u16string text, const std::u16string& volume) {
    const std::size_t at = text.find(u"%V");
    if (at != std::u16string::npos) {
        text.replace(at, 2, volume);
    }
    return text;
}

TEST(CacheFileSizesTest, RulesClampsFloorsAndMessages) {
    const std::uint64_t tib = 1ull << 40;
    const SizingRow rows[] = {
        // 1,000 MB used, 30 MB free: the share 100 is capped to 95% of 30 and
        // raised to the floor; the maximum share 3 too.
        {"ThirtyMBFree",
         1030 * kMB,
         30 * kMB,
         hintsOf(0, 0, 10, 10),
         true,
         false,
         {50, 50},
         {kPercentages, kLowSpace, ninetyFive(u"28", u"30")}},
        // 102,400 MB used, 5,000 MB free: 10,240 exceeds 5,000, so 4,750.
        {"CappedAtNinetyFivePercent",
         107400 * kMB,
         5000 * kMB,
         hintsOf(0, 0, 10, 1),
         true,
         false,
         {50, 50},
         {kPercentages, ninetyFive(u"4750", u"5000")}},
        {"CappedShareKeptUnderLargeMaximum",
         107400 * kMB,
         5000 * kMB,
         hintsOf(0, 10000, 10, 1),
         true,
         false,
         {4750, 10000},
         {kPercentages, ninetyFive(u"4750", u"5000")}},
        {"AbsoluteInitialHasNoFloor",
         100 * kGB,
         50 * kGB,
         hintsOf(10, 0, 0, 10),
         true,
         false,
         {10, 5120},
         {kAbsolute}},
        {"AbsoluteInitialLoweredToMaximum",
         100 * kGB,
         50 * kGB,
         hintsOf(10, 5, 0, 0),
         true,
         false,
         {5, 5},
         {kAbsolute}},
        {"AbsoluteMaximumHasNoFloor",
         100 * kGB,
         50 * kGB,
         hintsOf(0, 20, 10, 0),
         true,
         false,
         {20, 20},
         {kPercentages}},
        // 0 acts as 1 percent, 100 as 99 percent (51,200 MB used and free).
        {"PercentagesZeroAndHundred",
         100 * kGB,
         50 * kGB,
         hintsOf(0, 0, 0, 100),
         true,
         false,
         {512, 50688},
         {kPercentages}},
        {"PercentagesHundredAndZero",
         100 * kGB,
         50 * kGB,
         hintsOf(0, 0, 100, 0),
         true,
         false,
         {512, 512},
         {kPercentages}},
        // A cache file on another volume starts empty; nothing is reported.
        {"OtherVolumeStartsEmpty",
         100 * kGB,
         50 * kGB,
         hintsOf(10, 0, 50, 10),
         false,
         false,
         {0, 5120},
         {}},
        // 50 TiB used and free: 99 percent of 52,428,800 MB must not wrap.
        {"LargeVolumeDoesNotWrap",
         100 * tib,
         50 * tib,
         hintsOf(0, 0, 99, 99),
         true,
         false,
         {51904512, 51904512},
         {kPercentages}},
        // A failed query counts as an empty volume: floors, and the warning.
        {"FailedFreeSpaceQuery",
         100 * kGB,
         50 * kGB,
         hintsOf(0, 0, 10, 10),
         true,
         true,
         {50, 50},
         {kPercentages, kLowSpace}},
    };
    for (const SizingRow& row : rows) {
        SCOPED_TRACE(row.name);
        TempMachine machine(machineWith(
            {TempMachine::volume(1, {"C:\\"}),
             TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", row.totalBytes, row.freeBytes)}));
        MessageCapture capture;
        if (row.failFreeSpaceQuery) {
            sim::injectFault("GetDiskFreeSpaceExW", os::ERROR_PATH_NOT_FOUND, 0, sim::kAlways);
        }
        const std::u16string cacheVolume = guidRoot(2);
        const std::u16string target = row.onOwnVolume ? cacheVolume : guidRoot(1);

        const CacheFileSizes sizes = computeCacheFileSizes(target, cacheVolume, row.hints);

        EXPECT_EQ(sizes, row.expected);
        std::vector<HostMessage> expected;
        for (const HostMessage& message : row.messages) {
            expected.push_back({substituteVolume(message.text, target), message.level});
        }
        ASSERT_EQ(capture.messages().size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(utf8(capture.messages()[i].text), utf8(expected[i].text)) << i;
            EXPECT_EQ(capture.messages()[i].level, expected[i].level) << i;
        }
    }
}

TEST(CacheFileSizesTest, TrailingSeparatorDoesNotHideTheOwnVolume) {
    TempMachine machine(oneVolumeMachine());
    const CacheFileHints hints = hintsOf(0, 0, 10, 10);
    // 50 GB used and free: 10 percent each is 5,120 MB.
    EXPECT_EQ(computeCacheFileSizes(guid(2), guidRoot(2), hints), (CacheFileSizes{5120, 5120}));
    EXPECT_EQ(computeCacheFileSizes(guidRoot(2), guid(2), hints), (CacheFileSizes{5120, 5120}));
}

}  // namespace
}  // namespace cachefiletest
