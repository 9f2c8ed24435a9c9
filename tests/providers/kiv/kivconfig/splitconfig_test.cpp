// Validation and typed reading of the quiesce and split groups, and the split
// values stored during automatic preparation.
#include "kiv/kivconfig/splitconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv/kivconfig/kivconfig.h"
#include "kivconfig_test_util.h"
#include "support/row_name.h"

namespace kivconfigtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct QuiesceRow {
    const char* name;
    std::vector<std::u16string> entries;  // as stored
    bool valid;
    std::uint32_t wait;
    std::uint32_t timeout;
};
FIKIV_PRINT_ROW_NAME(QuiesceRow)

const QuiesceRow kQuiesceRows[] = {
    {"BothKeys", {u"quiesceWait=10", u"quiesceTimeout=30"}, true, 10, 30},
    {"ReverseOrder", {u"quiesceTimeout=30", u"quiesceWait=10"}, true, 10, 30},
    {"WaitTwice", {u"quiesceWait=10", u"quiesceWait=20"}, false, 20, 0},
    {"EmptyValue", {u"quiesceWait=", u"quiesceTimeout=5"}, false, 0, 5},
    {"ThreeEntries", {u"quiesceWait=1", u"quiesceTimeout=2", u"quiesceWait=3"}, false, 0, 0},
    {"OneEntry", {u"quiesceWait=1"}, false, 0, 0},
    {"NoEntries", {}, false, 0, 0},
    {"KeyIsCaseSensitive", {u"quiesceWait=1", u"quiesceTimeOut=2"}, false, 1, 0},
    // A value that is not a number is still a value: valid, read as 0.
    {"UnreadableValue", {u"quiesceWait=soon", u"quiesceTimeout=2"}, true, 0, 2},
    {"LeadingBlanksAndSuffix", {u"quiesceWait=  15s", u"quiesceTimeout=\t7,5"}, true, 15, 7},
};

class QuiesceTest : public ConfigFixture, public ::testing::WithParamInterface<QuiesceRow> {};

TEST_P(QuiesceTest, ValidityAndValues) {
    const QuiesceRow& row = GetParam();
    EXPECT_FALSE(config_.isValidQuiesceConfig()) << "before any setting";
    KivConfigTestPeer::storeQuiesceEntries(config_, row.entries);
    EXPECT_EQ(config_.isValidQuiesceConfig(), row.valid);
    QuiesceConfig values = config_.getQuiesceConfig();
    EXPECT_EQ(values.quiesceWait, row.wait);
    EXPECT_EQ(values.quiesceTimeout, row.timeout);
}

INSTANTIATE_TEST_SUITE_P(Documents, QuiesceTest, ::testing::ValuesIn(kQuiesceRows),
                         [](const auto& info) { return std::string(info.param.name); });

struct SplitRow {
    const char* name;
    std::u16string text;
    bool valid;
    SplitConfig values;
};
FIKIV_PRINT_ROW_NAME(SplitRow)

SplitConfig split(const char* volume, const char* file, std::uint32_t initial,
                  std::uint32_t maximum) {
    return SplitConfig{volume, file, initial, maximum};
}

const SplitRow kSplitRows[] = {
    {"AllFour",
     selectDocument({{u"snapshotVolumeName", u"V"},
                     {u"cacheFileName", u"F"},
                     {u"initialCacheFileSize", u"100"},
                     {u"maximumCacheFileSize", u"500"}}),
     true, split("V", "F", 100, 500)},
    {"NonAsciiNamesAsUtf8",
     selectDocument({{u"snapshotVolumeName", u"\u00e9:"},
                     {u"cacheFileName", u"\u65e5.KIV"},
                     {u"initialCacheFileSize", u"1"},
                     {u"maximumCacheFileSize", u"2"}}),
     true, split("\xc3\xa9:", "\xe6\x97\xa5.KIV", 1, 2)},
    {"ThreeKeys",
     selectDocument({{u"snapshotVolumeName", u"V"},
                     {u"cacheFileName", u"F"},
                     {u"initialCacheFileSize", u"100"}}),
     false, split("", "", 0, 0)},
    {"FiveEntries",
     selectDocument({{u"snapshotVolumeName", u"V"},
                     {u"cacheFileName", u"F"},
                     {u"initialCacheFileSize", u"100"},
                     {u"maximumCacheFileSize", u"500"},
                     {u"cacheFileName", u"G"}}),
     false, split("", "", 0, 0)},
    {"FourWithOneKeyTwice",
     selectDocument({{u"snapshotVolumeName", u"V"},
                     {u"cacheFileName", u"F"},
                     {u"cacheFileName", u"G"},
                     {u"maximumCacheFileSize", u"500"}}),
     false, split("V", "G", 0, 500)},
    {"EmptyValueDropsEntry",
     selectDocument({{u"snapshotVolumeName", u";"},
                     {u"cacheFileName", u"F"},
                     {u"initialCacheFileSize", u"100"},
                     {u"maximumCacheFileSize", u"500"}}),
     false, split("", "", 0, 0)},
};

class SplitTest : public ConfigFixture, public ::testing::WithParamInterface<SplitRow> {};

TEST_P(SplitTest, ValidityAndValues) {
    const SplitRow& row = GetParam();
    EXPECT_FALSE(config_.isValidNodeSplitConfig()) << "before any setting";
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, row.text), 0);
    EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
    SplitConfig values = config_.getSplitConfig();
    EXPECT_EQ(values.snapshotVolumeName, row.values.snapshotVolumeName);
    EXPECT_EQ(values.cacheFileName, row.values.cacheFileName);
    EXPECT_EQ(values.initialCacheFileSize, row.values.initialCacheFileSize);
    EXPECT_EQ(values.maximumCacheFileSize, row.values.maximumCacheFileSize);
    // Selected values are never replaced by automatic ones.
    EXPECT_FALSE(config_.setAutoSplitConfig(split("X", "Y", 1, 2)));
    EXPECT_EQ(config_.getSplitConfig().snapshotVolumeName, row.values.snapshotVolumeName);
}

INSTANTIATE_TEST_SUITE_P(Documents, SplitTest, ::testing::ValuesIn(kSplitRows),
                         [](const auto& info) { return std::string(info.param.name); });

const std::u16string kAuto = document({}, u"TARN_CFS_AUTO_PREP");

TEST_F(ConfigFixture, AutomaticSplitValuesAreStoredOnce) {
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
    EXPECT_TRUE(config_.isAutoPrepare());
    EXPECT_TRUE(config_.isValidNodeSplitConfig()) << "valid before the values are computed";
    SplitConfig pending = config_.getSplitConfig();
    EXPECT_EQ(pending.snapshotVolumeName, "");
    EXPECT_EQ(pending.maximumCacheFileSize, 0u);

    ASSERT_TRUE(config_.setAutoSplitConfig(split("V", "F", 100, 500)));
    EXPECT_THAT(config_.splitEntries(),
                ElementsAre(u"cacheFileName=F", u"initialCacheFileSize=100",
                            u"maximumCacheFileSize=500", u"snapshotVolumeName=V"));
    SplitConfig stored = config_.getSplitConfig();
    EXPECT_EQ(stored.snapshotVolumeName, "V");
    EXPECT_EQ(stored.cacheFileName, "F");
    EXPECT_EQ(stored.initialCacheFileSize, 100u);
    EXPECT_EQ(stored.maximumCacheFileSize, 500u);
    EXPECT_TRUE(config_.isValidNodeSplitConfig());

    // A second preparation keeps the first values.
    EXPECT_FALSE(config_.setAutoSplitConfig(split("W", "G", 1, 2)));
    EXPECT_EQ(config_.getSplitConfig().snapshotVolumeName, "V");

    // Clearing ends the automatic mode; values are refused until a new
    // automatic request.
    config_.clearSplitConfig();
    EXPECT_FALSE(config_.setAutoSplitConfig(split("W", "G", 1, 2)));
    EXPECT_THAT(config_.splitEntries(), IsEmpty());
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
    EXPECT_TRUE(config_.setAutoSplitConfig(split("W", "G", 1, 2)));
    EXPECT_EQ(config_.getSplitConfig().snapshotVolumeName, "W");
}

TEST_F(ConfigFixture, AutomaticSplitValuesRoundTrip) {
    struct Row {
        SplitConfig values;
        bool valid;
    };
    const Row rows[] = {
        {split("\\\\?\\Volume{5}", "E:\\kiv\\_tarnKivCacheFile_3.KIV", 0, 4294967295u), true},
        {split("\xc3\xa9", "\xe6\x97\xa5", 7, 8), true},
        // An empty name leaves its entry without a value: invalid.
        {split("", "F", 1, 2), false},
        {split("V", "", 1, 2), false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.values.snapshotVolumeName + "|" + row.values.cacheFileName);
        config_.clearSplitConfig();
        ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
        ASSERT_TRUE(config_.setAutoSplitConfig(row.values));
        EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
        SplitConfig read = config_.getSplitConfig();
        EXPECT_EQ(read.snapshotVolumeName, row.values.snapshotVolumeName);
        EXPECT_EQ(read.cacheFileName, row.values.cacheFileName);
        EXPECT_EQ(read.initialCacheFileSize, row.values.initialCacheFileSize);
        EXPECT_EQ(read.maximumCacheFileSize, row.values.maximumCacheFileSize);
    }
}

TEST_F(ConfigFixture, UpdateOfSelectedSplitReadsDefaultsUntilCleared) {
    const std::u16string full = selectDocument({{u"snapshotVolumeName", u"V"},
                                                {u"cacheFileName", u"F"},
                                                {u"initialCacheFileSize", u"100"},
                                                {u"maximumCacheFileSize", u"500"}});
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, full), 0);
    ASSERT_TRUE(config_.isValidNodeSplitConfig());
    ASSERT_EQ(update(Target::kVolume, Select::kSplit, full), 0);
    EXPECT_EQ(config_.splitEntries().size(), 8u);
    EXPECT_FALSE(config_.isValidNodeSplitConfig());
    EXPECT_EQ(config_.getSplitConfig().snapshotVolumeName, "");
    config_.clearSplitConfig();
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, full), 0);
    EXPECT_TRUE(config_.isValidNodeSplitConfig());
}

TEST_F(ConfigFixture, QuiesceDocumentReachesTheReader) {
    // An element with no value is dropped on the way in, so the group lacks
    // a key.
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce,
                  document({{u"quiesceWait", u";"}, {u"quiesceTimeout", u"5"}})),
              0);
    EXPECT_FALSE(config_.isValidQuiesceConfig());
    EXPECT_EQ(config_.getQuiesceConfig().quiesceTimeout, 0u);
    ASSERT_EQ(update(Target::kGroup, Select::kQuiesce, document({{u"quiesceWait", u"8"}})), 0);
    EXPECT_TRUE(config_.isValidQuiesceConfig());
    EXPECT_EQ(config_.getQuiesceConfig().quiesceWait, 8u);
    EXPECT_EQ(config_.getQuiesceConfig().quiesceTimeout, 5u);
}

TEST_F(ConfigFixture, QuiesceSettingsOfAVolumeAreNotKept) {
    ASSERT_EQ(set(Target::kVolume, Select::kQuiesce,
                  document({{u"quiesceWait", u"10"}, {u"quiesceTimeout", u"30"}})),
              0);
    EXPECT_FALSE(config_.isValidQuiesceConfig());
    EXPECT_EQ(config_.getQuiesceConfig().quiesceWait, 0u);
}

}  // namespace
}  // namespace kivconfigtest
