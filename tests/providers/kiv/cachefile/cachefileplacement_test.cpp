// Cache volume selection on simulated machines, the simulated driver answering.
#include "kiv/cachefile/cachefileplacement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "cachefile_test_support.h"
#include "os/error.h"
#include "os/file.h"
#include "os/sync.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace cachefiletest {
namespace {

using testsupport::TempMachine;
using testsupport::utf16;
using testsupport::utf8;

// C:\ (volume 1) and volumes 2 to count + 1 mounted below it, listed in
// reverse so that the machine's order is no answer.
nlohmann::json mountedVolumes(int count, std::uint64_t (*freeOf)(int number)) {
    std::vector<nlohmann::json> volumes = {fixedVolume(1, {"C:\\"}, 90 * kGB)};
    std::vector<std::string> mountPoints(count + 2);
    for (int number = count + 1; number >= 2; --number) {
        mountPoints[number] = "C:\\mnt\\v" + std::to_string(number) + "\\";
        volumes.push_back(fixedVolume(number, {mountPoints[number].c_str()}, freeOf(number)));
    }
    return machineWith(volumes);
}

// The path of cache file `counter` at the root of `volume`.
std::string fileOn(int volume, std::uint32_t counter) {
    return utf8(guid(volume)) + "_tarnKivCacheFile_" + std::to_string(counter) + ".KIV";
}

CacheFileHints hintsWith(std::vector<std::u16string> preferred,
                         std::vector<std::u16string> excluded) {
    return {std::move(preferred), std::move(excluded), u"", 0, 0, 10, 10};
}

// 10 percent of a volume's free space in MB, as the maximum size.
std::uint32_t tenPercentMB(std::uint64_t freeBytes) {
    return static_cast<std::uint32_t>(freeBytes / kMB / 10);
}

struct Placement {
    bool result = false;
    std::vector<std::string> paths;  // as UTF-8
    std::vector<CacheFileSizes> sizes;
    PlacementReport report;
};

Placement place(const std::vector<std::u16string>& targets, const CacheFileHints& hints,
                std::uint32_t counter = 0) {
    const os::UniqueHandle mutex = testMutex();
    setCacheFileCounter(counter);
    Placement placement;
    std::vector<std::u16string> paths;
    placement.result =
        placeCacheFiles(mutex.get(), targets, hints, paths, placement.sizes, &placement.report);
    for (const std::u16string& path : paths) {
        placement.paths.push_back(utf8(path));
    }
    return placement;
}

// Each spelling of one preferred name finds its volume; each suitability test
// removes a faulty V3 (E:\). V1 (C:\) is the target, V2 D:\ (20 GB free), V4
// mounted at C:\mnt\data\ only (30 GB).
TEST(CachePlacementTest, OnePreferredNameIsFoundOrRemoved) {
    // clang-format off
    struct Row { const char* name; nlohmann::json volume3; std::u16string preferred; PlacementRemoval removal; std::uint32_t detail; int chosen; };
    const nlohmann::json fixedE = fixedVolume(3, {"E:\\"}, 40 * kGB);
    using enum PlacementRemoval;
    const Row rows[] = {
        {"DriveLetter",         fixedE, u"d:",                kNone, 0, 2},
        {"DriveRoot",           fixedE, u"D:\\",              kNone, 0, 2},
        {"GuidName",            fixedE, guid(2),              kNone, 0, 2},
        {"GuidNameNoBackslash", fixedE, guidRoot(2),          kNone, 0, 2},
        {"MountPoint",          fixedE, u"C:\\mnt\\data\\",   kNone, 0, 4},
        {"MountPointNoBackslash", fixedE, u"C:\\mnt\\data",   kNone, 0, 4},
        // Names that reach no volume leave the choice to the fallback.
        {"NoSuchDrive",         fixedE, u"Q:",                kFileSystem, os::ERROR_PATH_NOT_FOUND, 3},
        {"NoDriveAtAll",        fixedE, u"q",                 kFileSystem, os::ERROR_PATH_NOT_FOUND, 3},
        {"NoSuchGuid",          fixedVolume(3, {"E:\\"}, 5 * kGB),                      guid(99), kFileSystem,       os::ERROR_PATH_NOT_FOUND, 4},
        {"Raw",                 TempMachine::volume(3, {"E:\\"}, "fixed", "RAW"),       guid(3),  kFileSystem,       os::ERROR_UNRECOGNIZED_VOLUME, 4},
        {"CdRom",               TempMachine::volume(3, {"E:\\"}, "cdrom", "CDFS"),      guid(3),  kNotFixed,         5,   4},
        {"NoPath",              TempMachine::volume(3, {}),                             guid(3),  kNoPath,           0,   4},
        {"DriverClaimed",       fixedVolume(3, {"E:\\"}, 50 * kGB, 0x3),                guid(3),  kDriverAttributes, 0x3, 4},
        {"DriverDisabled",      fixedVolume(3, {"E:\\"}, 50 * kGB, 0x5),                guid(3),  kDriverAttributes, 0x5, 4},
        {"DriverSnapshot",      fixedVolume(3, {"E:\\"}, 50 * kGB, 0x8),                guid(3),  kDriverAttributes, 0x8, 4},
        {"ActiveCacheIsFine",   fixedVolume(3, {"E:\\"}, 50 * kGB, 0x11),               guid(3),  kNone,             0,   3},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TempMachine machine(
            drives({10, 20}, {row.volume3, fixedVolume(4, {"C:\\mnt\\data\\"}, 30 * kGB)}));
        const Placement placement = place({guid(1)}, hintsWith({row.preferred}, {}));
        const PlacementReport& report = placement.report;

        ASSERT_TRUE(placement.result);
        ASSERT_EQ(report.preferred.size(), 1u);
        EXPECT_EQ(report.preferred[0].removal, row.removal);
        EXPECT_EQ(report.preferred[0].detail, row.detail);
        EXPECT_EQ(report.outcome, row.removal == kNone ? PlacementOutcome::kPreferred
                                                       : PlacementOutcome::kFallback);
        EXPECT_EQ(placement.paths, std::vector{fileOn(row.chosen, 0)});
        if (row.removal != kNone && row.preferred == guid(3)) {
            // The fallback tests it again and drops it for the same reason.
            const auto again = std::find_if(report.fallback.begin(), report.fallback.end(),
                                            [](const auto& c) { return c.name == guid(3); });
            ASSERT_NE(again, report.fallback.end());
            EXPECT_EQ(again->removal, row.removal);
        }
    }
}

// V1 and V2 may be targets; V3 (40 GB free), V4 (30 GB), V5 (20 GB) are fixed,
// V6 a CD-ROM. A row without fallback verdicts is decided among the preferred.
TEST(CachePlacementTest, PreferredExcludedAndTargetsDecideTheStage) {
    // clang-format off
    // fallback: the verdicts on V1 to V6.
    struct Row { const char* name; std::vector<std::u16string> targets; std::vector<std::u16string> preferred; std::vector<std::u16string> excluded; int chosen; std::vector<PlacementRemoval> fallback; };
    using enum PlacementRemoval;
    const Row rows[] = {
        {"PreferredBeatsExcluded",      {guid(1)},          {u"G:"},           {u"g:\\"},        5, {}},
        {"ExcludedSkippedInFallback",   {guid(1)},          {},                {u"D:"},          3, {kTarget, kExcluded, kNone, kNone, kNone, kNotFixed}},
        {"SeveralExcluded",             {guid(1)},          {},                {u"d:\\", u"E:"}, 4, {kTarget, kExcluded, kExcluded, kNone, kNone, kNotFixed}},
        {"MostFreeSpaceAmongPreferred", {guid(1)},          {u"G:", u"F:"},    {},               4, {}},
        // A single target may keep the cache on its own volume if preferred.
        {"SingleTargetOnItsOwnPreferredVolume", {guid(1)},  {u"C:"},           {},               1, {}},
        // With two targets their volumes never hold the shared cache.
        {"TwoTargetsExhaustThePreferredList", {guid(1), guid(2)}, {guid(1), guid(2)}, {},        3, {kTarget, kTarget, kNone, kNone, kNone, kNotFixed}},
        {"TargetsNotInTheFallback",     {guid(2), guid(1)}, {},                {},               3, {kTarget, kTarget, kNone, kNone, kNone, kNotFixed}},
    };
    // clang-format on
    const std::uint64_t freeGB[] = {0, 90, 80, 40, 30, 20};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TempMachine machine(
            drives({90, 80, 40, 30, 20}, {TempMachine::volume(6, {"H:\\"}, "cdrom", "CDFS")}));
        HostCapture host;
        const Placement placement = place(row.targets, hintsWith(row.preferred, row.excluded));
        const PlacementReport& report = placement.report;

        ASSERT_TRUE(placement.result);
        EXPECT_EQ(report.outcome, row.fallback.empty() ? PlacementOutcome::kPreferred
                                                       : PlacementOutcome::kFallback);
        std::vector<PlacementRemoval> verdicts;
        for (const PlacementCandidate& candidate : report.fallback) {
            verdicts.push_back(candidate.removal);
        }
        EXPECT_EQ(verdicts, row.fallback);
        EXPECT_EQ(utf8(report.cacheVolume), utf8(guid(row.chosen)));
        ASSERT_EQ(placement.paths.size(), row.targets.size());
        ASSERT_EQ(placement.sizes.size(), row.targets.size());
        for (std::size_t i = 0; i < row.targets.size(); ++i) {
            EXPECT_EQ(placement.paths[i], fileOn(row.chosen, i)) << i;
            // On its own volume V1: 10 percent of the 10 GB used.
            const std::uint32_t initial = row.targets[i] == guid(row.chosen) ? 1024 : 0;
            const std::uint32_t maximum = tenPercentMB(freeGB[row.chosen] * kGB);
            EXPECT_EQ(placement.sizes[i], (CacheFileSizes{initial, maximum})) << i;
        }
        // The host hears the own volume's sizing rule, no placement line.
        EXPECT_EQ(host.lines(), row.chosen == 1 ? std::vector{onVolume(kPercentages, guidRoot(1))}
                                                : std::vector<std::string>{});
    }
}

TEST(CachePlacementTest, NoUsableOtherVolumeGivesEachTargetItsOwnCacheFile) {
    TempMachine machine(drives({50, 80}, {TempMachine::volume(3, {"E:\\"}, "cdrom", "CDFS"),
                                          TempMachine::volume(4, {"F:\\"}, "fixed", "RAW"),
                                          fixedVolume(5, {"G:\\"}, 50 * kGB, 0x5)}));
    HostCapture host;
    const Placement placement = place({guid(1), guid(2)}, hintsWith({u"E:"}, {}), 5);

    ASSERT_TRUE(placement.result);
    EXPECT_EQ(placement.report.outcome, PlacementOutcome::kLastResort);
    EXPECT_TRUE(placement.report.cacheVolume.empty());
    EXPECT_EQ(placement.paths, (std::vector{fileOn(1, 5), fileOn(2, 6)}));
    // Own volume: 10 percent of the used space, maximum 10 percent of free.
    EXPECT_EQ(placement.sizes, (std::vector<CacheFileSizes>{{5120, 5120}, {2048, 8192}}));
    EXPECT_EQ(host.lines(), (std::vector{onVolume(kPercentages, guidRoot(1)),
                                         onVolume(kPercentages, guidRoot(2))}));
}

// Equal free space goes to the first name for any number of volumes, also
// when every free-space query fails (the maximum then falls to its floor).
TEST(CachePlacementTest, EqualFreeSpaceGoesToTheFirstName) {
    const struct {
        int count;
        bool queriesFail;
    } rows[] = {{2, false}, {3, false}, {33, false}, {40, false}, {3, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.count) + (row.queriesFail ? " failing" : ""));
        TempMachine machine(mountedVolumes(row.count, [](int) { return 50 * kGB; }));
        if (row.queriesFail) {
            sim::injectFault("GetDiskFreeSpaceExW", os::ERROR_NOT_READY, 0, sim::kAlways);
        }
        const Placement placement = place({guid(1)}, hintsWith({}, {}));

        ASSERT_TRUE(placement.result);
        EXPECT_EQ(utf8(placement.report.cacheVolume), utf8(guid(2)));
        ASSERT_EQ(placement.report.order.size(), static_cast<std::size_t>(row.count));
        for (int i = 0; i < row.count; ++i) {
            EXPECT_EQ(utf8(placement.report.order[i].name), utf8(guid(2 + i))) << i;
            EXPECT_EQ(placement.report.order[i].freeBytes, row.queriesFail ? 0 : 50 * kGB) << i;
        }
        const std::uint32_t maximum = row.queriesFail ? 50 : tenPercentMB(50 * kGB);
        EXPECT_EQ(placement.sizes, std::vector<CacheFileSizes>(1, {0, maximum}));
    }
}

// Free space is queried at every comparison and may change mid-order (here
// failing queries count as 0); every usable volume is still ordered once.
TEST(CachePlacementTest, FreeSpaceChangingDuringTheOrderKeepsEveryVolumeOnce) {
    for (std::uint32_t skip : {0u, 5u, 40u, 90u}) {
        SCOPED_TRACE(skip);
        TempMachine machine(mountedVolumes(40, [](int number) { return (number % 7 + 1) * kGB; }));
        sim::injectFault("GetDiskFreeSpaceExW", os::ERROR_NOT_READY, skip, 25);
        const Placement placement = place({guid(1)}, hintsWith({}, {}));

        ASSERT_TRUE(placement.result);
        std::vector<std::string> ordered;
        std::vector<std::string> expected;
        for (const PlacementRank& rank : placement.report.order) {
            ordered.push_back(utf8(rank.name));
            expected.push_back(utf8(guid(static_cast<int>(expected.size()) + 2)));
        }
        std::sort(ordered.begin(), ordered.end());
        EXPECT_EQ(ordered, expected);
        EXPECT_EQ(expected.size(), 40u);
        EXPECT_EQ(placement.report.cacheVolume, placement.report.order.front().name);
    }
}

// Placement makes the cache directory, never a file (the driver makes those).
TEST(CachePlacementTest, TargetsKeepTheirOrderAndTakeConsecutiveNames) {
    TempMachine machine(drives({10, 10, 10, 60}));
    CacheFileHints hints = hintsWith({}, {});
    hints.cacheFileDir = u"kiv\\cache";
    const Placement placement = place({guid(3), guid(1), guid(2)}, hints, 41);

    ASSERT_TRUE(placement.result);
    const std::string files = utf8(guid(4)) + "kiv\\cache\\_tarnKivCacheFile_";
    EXPECT_EQ(placement.paths, (std::vector{files + "41.KIV", files + "42.KIV", files + "43.KIV"}));
    EXPECT_EQ(placement.sizes, std::vector<CacheFileSizes>(3, {0, tenPercentMB(60 * kGB)}));
    EXPECT_EQ(os::GetFileAttributesW(u"F:\\kiv\\cache"), os::FILE_ATTRIBUTE_DIRECTORY);
    for (const std::string& path : placement.paths) {
        EXPECT_EQ(os::GetFileAttributesW(utf16(path).c_str()), os::INVALID_FILE_ATTRIBUTES);
    }
}

TEST(CachePlacementTest, EmptyTargetListPlacesNothing) {
    TempMachine machine(drives({10}));
    std::vector<std::u16string> paths = {u"kept"};
    std::vector<CacheFileSizes> sizes = {{1, 2}};
    EXPECT_TRUE(placeCacheFiles(testMutex().get(), {}, hintsWith({}, {}), paths, sizes));
    EXPECT_EQ(paths, std::vector<std::u16string>{u"kept"});
    EXPECT_EQ(sizes, (std::vector<CacheFileSizes>{{1, 2}}));
}

// Whether another thread can take the mutex at once (it gives it back).
bool freeForAnotherThread(os::HANDLE mutex) {
    return std::async(std::launch::async,
                      [mutex] {
                          const bool taken = os::WaitForSingleObject(mutex, 0) == os::WAIT_OBJECT_0;
                          if (taken) {
                              os::ReleaseMutex(mutex);
                          }
                          return taken;
                      })
        .get();
}

TEST(CachePlacementTest, SystemErrorPropagatesAndReleasesTheMutex) {
    const struct {
        const char* unbindable;
        std::vector<std::u16string> preferred;
    } rows[] = {{"FindFirstVolumeW", {}}, {"GetVolumeNameForVolumeMountPointW", {u"D:"}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.unbindable);
        TempMachine machine(drives({10, 50}));
        HostCapture host;
        sim::makeUnbindable("kernel32.dll", row.unbindable);
        const os::UniqueHandle mutex = testMutex();
        std::vector<std::u16string> paths;
        std::vector<CacheFileSizes> sizes;
        std::optional<os::DWORD> thrown;
        try {
            placeCacheFiles(mutex.get(), {guid(1)}, hintsWith(row.preferred, {}), paths, sizes);
        } catch (os::DWORD error) {
            thrown = error;
        }
        EXPECT_EQ(thrown, os::ERROR_PROC_NOT_FOUND);
        EXPECT_EQ(host.lines(), std::vector<std::string>{});
        EXPECT_TRUE(paths.empty());
        EXPECT_TRUE(sizes.empty());
        EXPECT_TRUE(freeForAnotherThread(mutex.get()));
    }
}

// Preferred names are sorted, not thinned: every entry, an empty one too, is
// tested. V1 is the target, V2 (D:) and V3 (E:) are usable.
TEST(CachePlacementTest, RepeatedAndEmptyPreferredNamesAreEachTested) {
    // clang-format off
    // candidates: in the order tested.
    struct Row { const char* name; std::vector<std::u16string> preferred; std::vector<std::u16string> candidates; int chosen; };
    const Row rows[] = {
        {"OneVolumeThreeSpellings", {u"D:", guid(2), u"d:\\"}, {guid(2), guid(2), guid(2)}, 2},
        {"SameNameTwice",           {u"E:", u"D:", u"E:"},     {guid(2), guid(3), guid(3)}, 3},
        {"EmptyNameFirst",          {u"D:", u""},              {u"", guid(2)},              2},
        {"OnlyEmptyNames",          {u"", u""},                {u"", u""},                  3},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TempMachine machine(drives({10, 30, 50}));
        const Placement placement = place({guid(1)}, hintsWith(row.preferred, {}));

        ASSERT_TRUE(placement.result);
        const std::vector<PlacementCandidate>& tested = placement.report.preferred;
        ASSERT_EQ(tested.size(), row.candidates.size());
        for (std::size_t i = 0; i < tested.size(); ++i) {
            EXPECT_EQ(utf8(tested[i].name), utf8(row.candidates[i])) << i;
            // A name of no volume fails the first test.
            EXPECT_EQ(tested[i].removal, tested[i].name.empty() ? PlacementRemoval::kFileSystem
                                                                : PlacementRemoval::kNone)
                << i;
        }
        EXPECT_EQ(placement.paths, std::vector{fileOn(row.chosen, 0)});
    }
}

// Before version 5 volumes are drive roots in device form "\\.\X:\" (a
// preferred folder names its drive's root); a target named "C:\" is not that
// form, so the fallback may choose C:.
TEST(CachePlacementTest, OldSystemComparesDriveRootsInDeviceForm) {
    const struct {
        std::vector<std::u16string> preferred;
        const char* path;
        CacheFileSizes sizes;
    } rows[] = {
        {{u"e:"}, "\\\\.\\E:\\_tarnKivCacheFile_0.KIV", {0, 2048}},
        {{u"E:\\kiv\\x"}, "\\\\.\\E:\\_tarnKivCacheFile_0.KIV", {0, 2048}},
        {{}, "\\\\.\\C:\\_tarnKivCacheFile_0.KIV", {0, 9216}},
    };
    for (const auto& row : rows) {
        nlohmann::json description = drives({90, 50, 20});
        description["majorVersion"] = 4;
        TempMachine machine(description);
        const Placement placement = place({u"C:\\"}, hintsWith(row.preferred, {}));

        ASSERT_TRUE(placement.result);
        EXPECT_EQ(placement.paths, std::vector<std::string>{row.path});
        EXPECT_EQ(placement.sizes, std::vector<CacheFileSizes>(1, row.sizes));
    }
}

// Empty lists and zero numbers are shown by the node's failure report.
TEST(CachePlacementTest, RequestTextListsTargetsAndHints) {
    CacheFileHints hints = hintsWith({u"D:", u"E:\\"}, {u"F:"});
    hints.cacheFileDir = u"not shown";
    hints.initialCacheFileSizeMB = 100;
    hints.maxCacheFileSizeMB = 4294967295u;
    EXPECT_EQ(utf8(formatCacheFileRequest({guid(1), u"C:"}, hints)),
              "\tTargets\n\t\t" + utf8(guid(1)) +
                  "\n\t\tC:\n\tHints\n"
                  "\t\texcludedVolumes = F:,\n"
                  "\t\tpreferredVolumes = D:,E:\\,\n"
                  "\t\tinitialCacheFileSizeMB = 100\n"
                  "\t\tmaxCacheFileSizeMB = 4294967295\n"
                  "\t\tinitialCacheFileSizePct = 10\n"
                  "\t\tmaxCacheFileSizePct = 10\n");
}

}  // namespace
}  // namespace cachefiletest
