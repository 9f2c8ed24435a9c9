// Validation and typed reading of the quiesce and split groups, and the split
// values stored during automatic preparation.
#include "kiv/kivconfig/splitconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "kiv/kivconfig/kivconfig.h"
#include "kivconfig_test_util.h"
#include "support/row_name.h"

namespace kivconfigtest {
namespace {

using ::testing::IsEmpty;

struct QuiesceRow {
    const char* name;
    std::vector<std::u16string> entries;  // as stored
    bool valid;
    std::uint32_t wait;
    std::uint32_t timeout;
};
FIKIV_PRINT_ROW_NAME(QuiesceRow)

// clang-format off
const QuiesceRow kQuiesceRows[] = {
    {"BothKeys",           {u"quiesceWait=10", u"quiesceTimeout=30"},                      true,  10, 30},
    {"WaitTwice",          {u"quiesceWait=10", u"quiesceWait=20"},                         false, 20, 0},
    {"EmptyValue",         {u"quiesceWait=", u"quiesceTimeout=5"},                         false, 0,  5},
    {"ThreeEntries",       {u"quiesceWait=1", u"quiesceTimeout=2", u"quiesceWait=3"},      false, 0,  0},
    {"NoEntries",          {},                                                             false, 0,  0},
    {"KeyIsCaseSensitive", {u"quiesceWait=1", u"quiesceTimeOut=2"},                        false, 1,  0},
    // A value that is not a number is still a value: valid, read as 0.
    {"UnreadableWait",     {u"quiesceWait=soon", u"quiesceTimeout=2"},                     true,  0,  2},
    {"LeadingBlanksAndSuffix", {u"quiesceWait=  15s", u"quiesceTimeout=\t7,5"},            true,  15, 7},
};
// clang-format on

class QuiesceTest : public ConfigFixture, public ::testing::WithParamInterface<QuiesceRow> {};

TEST_P(QuiesceTest, ValidityAndValues) {
    const QuiesceRow& row = GetParam();
    EXPECT_FALSE(config_.isValidQuiesceConfig()) << "before any setting";
    KivConfigTestPeer::storeQuiesceEntries(config_, row.entries);
    EXPECT_EQ(config_.isValidQuiesceConfig(), row.valid);
    const QuiesceConfig values = config_.getQuiesceConfig();
    EXPECT_EQ(values.quiesceWait, row.wait);
    EXPECT_EQ(values.quiesceTimeout, row.timeout);
}

INSTANTIATE_TEST_SUITE_P(Documents, QuiesceTest, ::testing::ValuesIn(kQuiesceRows), kRowName);

// The four fields, for comparing whole records.
auto fields(const SplitConfig& split) {
    return std::tie(split.snapshotVolumeName, split.cacheFileName, split.initialCacheFileSize,
                    split.maximumCacheFileSize);
}

// The split keys, for writing documents.
const std::u16string kVolume = u"snapshotVolumeName";
const std::u16string kFile = u"cacheFileName";
const std::u16string kInitial = u"initialCacheFileSize";
const std::u16string kMaximum = u"maximumCacheFileSize";

struct SplitRow {
    const char* name;
    Elements elements;  // of a selected split document
    bool valid;
    SplitConfig values;
};
FIKIV_PRINT_ROW_NAME(SplitRow)

// clang-format off
const SplitRow kSplitRows[] = {
    {"AllFour",              {{kVolume, u"V"}, {kFile, u"F"}, {kInitial, u"100"}, {kMaximum, u"500"}},                    true,  {"V", "F", 100, 500}},
    {"NonAsciiNamesAsUtf8",  {{kVolume, u"\u00e9:"}, {kFile, u"\u65e5.KIV"}, {kInitial, u"1"}, {kMaximum, u"2"}},         true,  {"\xc3\xa9:", "\xe6\x97\xa5.KIV", 1, 2}},
    {"ThreeKeys",            {{kVolume, u"V"}, {kFile, u"F"}, {kInitial, u"100"}},                                        false, {}},
    {"FiveEntries",          {{kVolume, u"V"}, {kFile, u"F"}, {kInitial, u"100"}, {kMaximum, u"500"}, {kFile, u"G"}},     false, {}},
    {"FourWithOneKeyTwice",  {{kVolume, u"V"}, {kFile, u"F"}, {kFile, u"G"}, {kMaximum, u"500"}},                         false, {"V", "G", 0, 500}},
    // Sizes that are not numbers are still values: valid, read as 0.
    {"UnreadableSizes",      {{kVolume, u"V"}, {kFile, u"F"}, {kInitial, u"abc"}, {kMaximum, u"x1"}},                     true,  {"V", "F", 0, 0}},
    {"EmptyValueDropsEntry", {{kVolume, u";"}, {kFile, u"F"}, {kInitial, u"100"}, {kMaximum, u"500"}},                    false, {}},
};
// clang-format on

class SplitTest : public ConfigFixture, public ::testing::WithParamInterface<SplitRow> {};

TEST_P(SplitTest, ValidityAndValues) {
    const SplitRow& row = GetParam();
    EXPECT_FALSE(config_.isValidNodeSplitConfig()) << "before any setting";
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, selectDocument(row.elements)), 0);
    EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
    // Selected values are never replaced by automatic ones.
    EXPECT_FALSE(config_.setAutoSplitConfig({"X", "Y", 1, 2}));
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
}

INSTANTIATE_TEST_SUITE_P(Documents, SplitTest, ::testing::ValuesIn(kSplitRows), kRowName);

// Values stored once in automatic preparation, as the node computes them.
struct AutoRow {
    const char* name;
    SplitConfig values;
    std::vector<std::u16string> entries;  // as stored, in this order
    bool valid;
};
FIKIV_PRINT_ROW_NAME(AutoRow)

// clang-format off
const AutoRow kAutoRows[] = {
    {"LongNameAndLimits", {"\\\\?\\Volume{5}", "E:\\kiv\\_tarnKivCacheFile_3.KIV", 0, 4294967295u}, {u"cacheFileName=E:\\kiv\\_tarnKivCacheFile_3.KIV", u"initialCacheFileSize=0", u"maximumCacheFileSize=4294967295", u"snapshotVolumeName=\\\\?\\Volume{5}"}, true},
    {"Utf8Names",    {"\xc3\xa9", "\xe6\x97\xa5", 7, 8},                             {u"cacheFileName=\u65e5", u"initialCacheFileSize=7", u"maximumCacheFileSize=8", u"snapshotVolumeName=\u00e9"}, true},
    // An empty name leaves its entry without a value: invalid, whichever it is.
    {"EmptyVolumeName", {"", "F", 1, 2},                                             {u"cacheFileName=F", u"initialCacheFileSize=1", u"maximumCacheFileSize=2", u"snapshotVolumeName="}, false},
    {"EmptyCacheFileName", {"V", "", 1, 2},                                          {u"cacheFileName=", u"initialCacheFileSize=1", u"maximumCacheFileSize=2", u"snapshotVolumeName=V"}, false},
};
// clang-format on

class AutoSplitTest : public ConfigFixture, public ::testing::WithParamInterface<AutoRow> {};

TEST_P(AutoSplitTest, ValuesAreStoredOnce) {
    const AutoRow& row = GetParam();
    const std::u16string automatic = document({}, u"TARN_CFS_AUTO_PREP");
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, automatic), 0);
    EXPECT_TRUE(config_.isAutoPrepare());
    EXPECT_TRUE(config_.isValidNodeSplitConfig()) << "valid before the values are computed";
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(SplitConfig{}));

    ASSERT_TRUE(config_.setAutoSplitConfig(row.values));
    EXPECT_EQ(config_.splitEntries(), row.entries);
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
    EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
    // A second preparation keeps the first values.
    EXPECT_FALSE(config_.setAutoSplitConfig({"W", "G", 1, 2}));
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));

    // Clearing ends the automatic mode; values are refused until a new
    // automatic request.
    config_.clearSplitConfig();
    EXPECT_FALSE(config_.isAutoPrepare());
    EXPECT_FALSE(config_.setAutoSplitConfig(row.values));
    EXPECT_THAT(config_.splitEntries(), IsEmpty());
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, automatic), 0);
    EXPECT_TRUE(config_.setAutoSplitConfig(row.values));
}

INSTANTIATE_TEST_SUITE_P(Values, AutoSplitTest, ::testing::ValuesIn(kAutoRows), kRowName);

}  // namespace
}  // namespace kivconfigtest
