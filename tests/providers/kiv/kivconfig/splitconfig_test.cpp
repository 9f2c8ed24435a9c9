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

// clang-format off
const QuiesceRow kQuiesceRows[] = {
    {"BothKeys",           {u"quiesceWait=10", u"quiesceTimeout=30"},                      true,  10, 30},
    {"ReverseOrder",       {u"quiesceTimeout=30", u"quiesceWait=10"},                      true,  10, 30},
    {"WaitTwice",          {u"quiesceWait=10", u"quiesceWait=20"},                         false, 20, 0},
    {"EmptyValue",         {u"quiesceWait=", u"quiesceTimeout=5"},                         false, 0,  5},
    {"ThreeEntries",       {u"quiesceWait=1", u"quiesceTimeout=2", u"quiesceWait=3"},      false, 0,  0},
    {"OneEntry",           {u"quiesceWait=1"},                                             false, 0,  0},
    {"NoEntries",          {},                                                             false, 0,  0},
    {"KeyIsCaseSensitive", {u"quiesceWait=1", u"quiesceTimeOut=2"},                        false, 1,  0},
    // A value that is not a number is still a value: valid, read as 0.
    {"UnreadableWait",     {u"quiesceWait=soon", u"quiesceTimeout=2"},                     true,  0,  2},
    {"UnreadableTimeout",  {u"quiesceWait=3", u"quiesceTimeout=-"},                        true,  3,  0},
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

// A selected split document: the four keys in order, with these values (an
// empty value leaves its key out, ";" sends it without a value), then the
// extra elements.
std::u16string splitDoc(const char16_t* volume, const char16_t* file, const char16_t* initial,
                        const char16_t* maximum, const Elements& extra = {}) {
    Elements elements;
    const std::pair<const char16_t*, const char16_t*> pairs[] = {
        {u"snapshotVolumeName", volume},
        {u"cacheFileName", file},
        {u"initialCacheFileSize", initial},
        {u"maximumCacheFileSize", maximum}};
    for (const auto& [key, value] : pairs) {
        if (*value != u'\0') {
            elements.emplace_back(key, value);
        }
    }
    elements.insert(elements.end(), extra.begin(), extra.end());
    return selectDocument(elements);
}

struct SplitRow {
    const char* name;
    std::u16string text;
    bool valid;
    SplitConfig values;
};
FIKIV_PRINT_ROW_NAME(SplitRow)

// clang-format off
const SplitRow kSplitRows[] = {
    {"AllFour",              splitDoc(u"V", u"F", u"100", u"500"),                           true,  {"V", "F", 100, 500}},
    {"NonAsciiNamesAsUtf8",  splitDoc(u"\u00e9:", u"\u65e5.KIV", u"1", u"2"),                true,  {"\xc3\xa9:", "\xe6\x97\xa5.KIV", 1, 2}},
    {"ThreeKeys",            splitDoc(u"V", u"F", u"100", u""),                              false, {}},
    {"FiveEntries",          splitDoc(u"V", u"F", u"100", u"500", {{u"cacheFileName", u"G"}}), false, {}},
    {"FourWithOneKeyTwice",  splitDoc(u"V", u"F", u"", u"500", {{u"cacheFileName", u"G"}}),  false, {"V", "G", 0, 500}},
    // Sizes that are not numbers are still values: valid, read as 0.
    {"UnreadableSizes",      splitDoc(u"V", u"F", u"abc", u"x1"),                            true,  {"V", "F", 0, 0}},
    {"EmptyValueDropsEntry", splitDoc(u";", u"F", u"100", u"500"),                           false, {}},
};
// clang-format on

class SplitTest : public ConfigFixture, public ::testing::WithParamInterface<SplitRow> {};

TEST_P(SplitTest, ValidityAndValues) {
    const SplitRow& row = GetParam();
    EXPECT_FALSE(config_.isValidNodeSplitConfig()) << "before any setting";
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, row.text), 0);
    EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
    // Selected values are never replaced by automatic ones.
    EXPECT_FALSE(config_.setAutoSplitConfig({"X", "Y", 1, 2}));
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
}

INSTANTIATE_TEST_SUITE_P(Documents, SplitTest, ::testing::ValuesIn(kSplitRows), kRowName);

const std::u16string kAuto = document({}, u"TARN_CFS_AUTO_PREP");

TEST_F(ConfigFixture, AutomaticSplitValuesAreStoredOnce) {
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
    EXPECT_TRUE(config_.isAutoPrepare());
    EXPECT_TRUE(config_.isValidNodeSplitConfig()) << "valid before the values are computed";
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(SplitConfig{}));

    const SplitConfig values{"V", "F", 100, 500};
    ASSERT_TRUE(config_.setAutoSplitConfig(values));
    EXPECT_THAT(config_.splitEntries(),
                ElementsAre(u"cacheFileName=F", u"initialCacheFileSize=100",
                            u"maximumCacheFileSize=500", u"snapshotVolumeName=V"));
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(values));
    EXPECT_TRUE(config_.isValidNodeSplitConfig());

    // A second preparation keeps the first values.
    EXPECT_FALSE(config_.setAutoSplitConfig({"W", "G", 1, 2}));
    EXPECT_EQ(fields(config_.getSplitConfig()), fields(values));

    // Clearing ends the automatic mode; values are refused until a new
    // automatic request.
    config_.clearSplitConfig();
    EXPECT_FALSE(config_.isAutoPrepare());
    EXPECT_FALSE(config_.setAutoSplitConfig({"W", "G", 1, 2}));
    EXPECT_THAT(config_.splitEntries(), IsEmpty());
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
    EXPECT_TRUE(config_.setAutoSplitConfig({"W", "G", 1, 2}));
    EXPECT_EQ(config_.getSplitConfig().snapshotVolumeName, "W");
}

TEST_F(ConfigFixture, AutomaticSplitValuesRoundTrip) {
    struct Row {
        SplitConfig values;
        bool valid;
    };
    // clang-format off
    const Row rows[] = {
        {{"\\\\?\\Volume{5}", "E:\\kiv\\_tarnKivCacheFile_3.KIV", 0, 4294967295u}, true},
        {{"\xc3\xa9", "\xe6\x97\xa5", 7, 8}, true},
        // An empty name leaves its entry without a value: invalid.
        {{"", "F", 1, 2}, false},
        {{"V", "", 1, 2}, false},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.values.snapshotVolumeName + "|" + row.values.cacheFileName);
        config_.clearSplitConfig();
        ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAuto), 0);
        ASSERT_TRUE(config_.setAutoSplitConfig(row.values));
        EXPECT_EQ(config_.isValidNodeSplitConfig(), row.valid);
        EXPECT_EQ(fields(config_.getSplitConfig()), fields(row.values));
    }
}

}  // namespace
}  // namespace kivconfigtest
