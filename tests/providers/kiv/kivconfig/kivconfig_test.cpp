// The configuration object as the host drives it: set, get, update, clear,
// the cache placement hints and the reading of numbers.
#include "kiv/kivconfig/kivconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "fiprovlib/TraceMethod.h"
#include "kivconfig_test_util.h"
#include "support/log_capture.h"
#include "support/row_name.h"
#include "support/wide_text.h"

namespace kivconfigtest {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using testsupport::utf16;

// clang-format off
const std::u16string kQuiesceDoc = document({{u"quiesceWait", u"10"}, {u"quiesceTimeout", u"30"}});
const std::u16string kCacheDoc = document({{u"cachefileAllowedVolumes", u"g:\\"}, {u"cachefileInitSizeinMB", u"64"}});
const std::u16string kSplitDoc = selectDocument({{u"snapshotVolumeName", u"\\\\.\\Snap1:"}, {u"cacheFileName", u"F:\\c.KIV"}, {u"initialCacheFileSize", u"100"}, {u"maximumCacheFileSize", u"500"}});
const std::u16string kAutoText = document({}, u"TARN_CFS_AUTO_PREP");
const std::u16string kBothModes = selectDocument({{u"cs_flags", u"TARN_CFS_AUTO_PREP"}});
const std::u16string kNoMode = document({{u"cacheFileName", u"F"}});
const std::u16string kLowerCaseMode = document({}, u"tarn_cfs_auto_prep");
const std::u16string kNoListEnd = u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP />";

const std::vector<std::u16string> kQuiesceEntries = {u"quiesceWait=10", u"quiesceTimeout=30"};
const std::vector<std::u16string> kCacheEntries = {u"cachefileAllowedVolumes=g:\\", u"cachefileInitSizeinMB=64"};
const std::vector<std::u16string> kSplitEntries = {u"snapshotVolumeName=\\\\.\\Snap1:", u"cacheFileName=F:\\c.KIV", u"initialCacheFileSize=100", u"maximumCacheFileSize=500"};
// clang-format on

// What a set stored, group by group.
struct Stored {
    std::vector<std::u16string> quiesce;
    std::vector<std::u16string> cache;
    std::vector<std::u16string> split;
    bool autoPrepare = false;
};

struct SetRow {
    const char* name;
    Target target;
    Select select;
    const char16_t* text;  // null: no text
    std::int32_t result;
    Stored stored;
};
FIKIV_PRINT_ROW_NAME(SetRow)

// clang-format off
const SetRow kSetRows[] = {
    {"GroupQuiesce",                    Target::kGroup,  Select::kQuiesce, kQuiesceDoc.c_str(),    0, {kQuiesceEntries, {}, {}, false}},
    {"GroupCache",                      Target::kGroup,  Select::kSplit,   kCacheDoc.c_str(),      0, {{}, kCacheEntries, {}, false}},
    {"GroupNoSelector",                 Target::kGroup,  Select::kNone,    kQuiesceDoc.c_str(),    3, {}},
    {"GroupNullText",                   Target::kGroup,  Select::kQuiesce, nullptr,                3, {}},
    {"GroupBrokenDocument",             Target::kGroup,  Select::kQuiesce, kNoListEnd.c_str(),     3, {}},
    // The mode word means nothing to the cache group: the document is parsed.
    {"GroupCacheIgnoresMode",           Target::kGroup,  Select::kSplit,   kAutoText.c_str(),      0, {}},
    {"VolumeSelected",                  Target::kVolume, Select::kSplit,   kSplitDoc.c_str(),      0, {{}, {}, kSplitEntries, false}},
    {"VolumeAutomatic",                 Target::kVolume, Select::kSplit,   kAutoText.c_str(),      0, {{}, {}, {}, true}},
    {"VolumeBothModesChoosesAutomatic", Target::kVolume, Select::kSplit,   kBothModes.c_str(),     0, {{}, {}, {}, true}},
    {"VolumeNullText",                  Target::kVolume, Select::kSplit,   nullptr,                3, {}},
    {"VolumeNoMode",                    Target::kVolume, Select::kSplit,   kNoMode.c_str(),        3, {}},
    {"VolumeModeIsCaseSensitive",       Target::kVolume, Select::kSplit,   kLowerCaseMode.c_str(), 3, {}},
    {"VolumeSelectedBrokenDocument",    Target::kVolume, Select::kSplit,   kNoListEnd.c_str(),     3, {}},
    {"VolumeQuiesceStoresNothing",      Target::kVolume, Select::kQuiesce, kQuiesceDoc.c_str(),    0, {}},
    {"VolumeBothSelectors",             Target::kVolume, Select::kBoth,    kSplitDoc.c_str(),      3, {}},
};
// clang-format on

class SetTest : public ConfigFixture, public ::testing::WithParamInterface<SetRow> {};

TEST_P(SetTest, StoresOnlyWhatTheRequestSelects) {
    const SetRow& row = GetParam();
    tarn_config_request r = request(row.select, row.text);
    EXPECT_EQ(config_.set(record(row.target), nullptr, &r), row.result);
    EXPECT_EQ(r.text, row.text) << "set must not replace the request text";
    EXPECT_THAT(config_.quiesceEntries(), ElementsAreArray(row.stored.quiesce));
    EXPECT_THAT(config_.cacheEntries(), ElementsAreArray(row.stored.cache));
    EXPECT_THAT(config_.splitEntries(), ElementsAreArray(row.stored.split));
    EXPECT_EQ(config_.isAutoPrepare(), row.stored.autoPrepare);
}

INSTANTIATE_TEST_SUITE_P(Requests, SetTest, ::testing::ValuesIn(kSetRows), kRowName);

// A group takes one set; a second is refused and changes nothing; update
// appends; after a clear the group takes a set again.
struct GroupRow {
    const char* name;
    Target target;
    Select select;
    const std::u16string* first;
    std::u16string second;
    std::vector<std::u16string> secondEntries;
    const std::vector<std::u16string>& (KivConfig::*entries)() const;
    void (KivConfig::*clear)();
};
FIKIV_PRINT_ROW_NAME(GroupRow)

// clang-format off
const GroupRow kGroupRows[] = {
    {"Quiesce", Target::kGroup,  Select::kQuiesce, &kQuiesceDoc, document({{u"quiesceWait", u"99"}}), {u"quiesceWait=99"},            &KivConfig::quiesceEntries, &KivConfig::clearQuiesceConfig},
    {"Cache",   Target::kGroup,  Select::kSplit,   &kCacheDoc,   document({{u"cachefileDir", u"tmp"}}), {u"cachefileDir=tmp"},          &KivConfig::cacheEntries,   &KivConfig::clearCacheConfig},
    {"Split",   Target::kVolume, Select::kSplit,   &kSplitDoc,   selectDocument({{u"cacheFileName", u"G:\\d.KIV"}}), {u"cacheFileName=G:\\d.KIV"}, &KivConfig::splitEntries, &KivConfig::clearSplitConfig},
};
// clang-format on

class GroupLifeTest : public ConfigFixture, public ::testing::WithParamInterface<GroupRow> {};

TEST_P(GroupLifeTest, SetOnceThenUpdateThenClear) {
    const GroupRow& row = GetParam();
    auto entries = [&] { return (config_.*row.entries)(); };
    ASSERT_EQ(set(row.target, row.select, *row.first), 0);
    const std::vector<std::u16string> firstEntries = entries();
    ASSERT_FALSE(firstEntries.empty());
    EXPECT_EQ(get(row.target, row.select), *row.first);

    EXPECT_EQ(set(row.target, row.select, row.second), 3);
    EXPECT_EQ(entries(), firstEntries);
    EXPECT_EQ(get(row.target, row.select), *row.first);

    ASSERT_EQ(update(row.target, row.select, row.second), 0);
    std::vector<std::u16string> both = firstEntries;
    both.insert(both.end(), row.secondEntries.begin(), row.secondEntries.end());
    EXPECT_EQ(entries(), both);
    EXPECT_EQ(get(row.target, row.select), row.second);

    (config_.*row.clear)();
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(get(row.target, row.select), kUntouched);
    EXPECT_EQ(set(row.target, row.select, row.second), 0);
    EXPECT_EQ(entries(), row.secondEntries);
}

INSTANTIATE_TEST_SUITE_P(Groups, GroupLifeTest, ::testing::ValuesIn(kGroupRows), kRowName);

// Once a volume's split group is set even its quiesce set is refused, and an
// update stores nothing. Clearing one group leaves the others; clearAll all.
TEST_F(ConfigFixture, GroupsAreIndependent) {
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce, kQuiesceDoc), 0);
    ASSERT_EQ(set(Target::kGroup, Select::kSplit, kCacheDoc), 0);
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kSplitDoc), 0);
    EXPECT_EQ(set(Target::kVolume, Select::kQuiesce, kQuiesceDoc), 3);
    EXPECT_EQ(update(Target::kVolume, Select::kQuiesce, kQuiesceDoc), 0);
    config_.clearCacheConfig();
    EXPECT_EQ(config_.quiesceEntries(), kQuiesceEntries);
    EXPECT_EQ(config_.splitEntries(), kSplitEntries);
    EXPECT_EQ(get(Target::kGroup, Select::kSplit), kUntouched);
    ASSERT_EQ(set(Target::kGroup, Select::kSplit, kCacheDoc), 0);
    config_.clearAll();
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), kUntouched);
    EXPECT_EQ(get(Target::kGroup, Select::kSplit), kUntouched);
    EXPECT_EQ(get(Target::kVolume, Select::kSplit), kUntouched);
}

// Group quiesce and cache and a volume's automatic split are set; unset groups
// are checked after their clear in SetOnceThenUpdateThenClear.
struct GetRow {
    const char* name;
    Target target;
    Select select;
    std::u16string expected;
};
FIKIV_PRINT_ROW_NAME(GetRow)

// clang-format off
const GetRow kGetRows[] = {
    {"GroupNoSelector",     Target::kGroup,  Select::kNone,    kUntouched},
    {"GroupBothSelectors",  Target::kGroup,  Select::kBoth,    kUntouched},
    {"VolumeSplit",         Target::kVolume, Select::kSplit,   kAutoText},
    {"VolumeQuiesceIsNull", Target::kVolume, Select::kQuiesce, u"<null>"},
    {"VolumeNoSelector",    Target::kVolume, Select::kNone,    kUntouched},
};
// clang-format on

class GetTest : public ConfigFixture, public ::testing::WithParamInterface<GetRow> {};

TEST_P(GetTest, HandsBackTheAcceptedText) {
    const GetRow& row = GetParam();
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce, kQuiesceDoc), 0);
    ASSERT_EQ(set(Target::kGroup, Select::kSplit, kCacheDoc), 0);
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAutoText), 0);
    EXPECT_EQ(get(row.target, row.select), row.expected);
    // get changes nothing: a second one gives the same.
    EXPECT_EQ(get(row.target, row.select), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Requests, GetTest, ::testing::ValuesIn(kGetRows), kRowName);

// When no buffer can be had for the host: 5, and the request's text stays.
TEST_F(ConfigFixture, HandOverWithoutBufferAnswersOutOfMemoryAndKeepsText) {
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce, kQuiesceDoc), 0);
    for (auto operation : {&KivConfig::get, &KivConfig::getConfigInfo}) {
        tarn_config_request r = request(Select::kQuiesce, kUntouched);
        tarn_test_fail_alloc(/*skip=*/0, /*count=*/1);
        EXPECT_EQ((config_.*operation)(&groupRecord_, nullptr, &r), 5);
        tarn_test_fail_alloc(0, 0);
        EXPECT_EQ(handedBack(r), kUntouched);
    }
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), kQuiesceDoc);
}

struct HintsRow {
    const char* name;
    std::vector<std::u16string> entries;  // cache entries, as stored
    CacheFileHints expected;
};
FIKIV_PRINT_ROW_NAME(HintsRow)

// clang-format off
const std::vector<std::u16string> kSevenEntries = {
    u"cachefileAllowedVolumes=g:\\", u"cachefileDisallowedVolumes=c:\\", u"cachefileInitSizeinMB=10", u"cachefileMaxSizeInMB=20",
    u"cachefileInitSizePercentage=30", u"cachefileMaxSizePercentage=40", u"cachefileDir=kiv"};

const HintsRow kHintsRows[] = {
    {"ListWithBlanksEmptyItemAndTrailingComma", {u"cachefileAllowedVolumes= g:\\ , ,f:\\,"},                  {{u"g:\\", u"f:\\"}, {}, u"", 0, 0, 0, 0}},
    {"ListTrimsTabsAndLineFeeds",     {u"cachefileDisallowedVolumes=\t\ne:\\\t,,,  d:\\ x  "},                {{}, {u"e:\\", u"d:\\ x"}, u"", 0, 0, 0, 0}},
    {"ListOfSeparatorsOnly",          {u"cachefileAllowedVolumes=, ,\t,"},                                     {}},
    {"AllSevenKeys",                  kSevenEntries,                                                           {{u"g:\\"}, {u"c:\\"}, u"kiv", 10, 20, 30, 40}},
    {"EightEntriesGiveDefaults",      std::vector<std::u16string>(8, u"cachefileInitSizeinMB=10"),            {}},
    {"RepeatedListsAddUp",            {u"cachefileAllowedVolumes=g:\\", u"cachefileAllowedVolumes=h:\\", u"cachefileDisallowedVolumes=c:\\", u"cachefileDisallowedVolumes=d:\\"}, {{u"g:\\", u"h:\\"}, {u"c:\\", u"d:\\"}, u"", 0, 0, 0, 0}},
    {"LaterSizesWin",                 {u"cachefileInitSizeinMB=1", u"cachefileInitSizeinMB=2", u"cachefileMaxSizeInMB=5", u"cachefileMaxSizeInMB=7"}, {{}, {}, u"", 2, 7, 0, 0}},
    {"LaterPercentagesAndDirectoryWin", {u"cachefileInitSizePercentage=1", u"cachefileInitSizePercentage=3", u"cachefileMaxSizePercentage=5", u"cachefileMaxSizePercentage=6", u"cachefileDir=x", u"cachefileDir=y"}, {{}, {}, u"y", 0, 0, 3, 6}},
    {"UnreadableNumberKeepsEarlierValue", {u"cachefileMaxSizeInMB=abc", u"cachefileInitSizeinMB=12", u"cachefileInitSizeinMB=x"}, {{}, {}, u"", 12, 0, 0, 0}},
    {"PrefixAloneIsSkipped",          {u"cachefileDir=", u"cachefileAllowedVolumes=", u"cachefileMaxSizeInMB="}, {}},
    {"KeysAreCaseSensitive",          {u"CacheFileDir=x", u"cachefileInitSizeInMB=9", u"cachefileMaxSizeinMB=9"}, {}},
    {"ForeignKeysIgnored",            {u"quiesceWait=3", u"cachefileDirectory=z"},                              {}},
};
// clang-format on

class HintsTest : public ConfigFixture, public ::testing::WithParamInterface<HintsRow> {};

TEST_P(HintsTest, ReadsTheCacheGroup) {
    const HintsRow& row = GetParam();
    KivConfigTestPeer::storeCacheEntries(config_, row.entries);
    auto fields = [](const CacheFileHints& h) {
        return std::tie(h.preferredVolumes, h.excludedVolumes, h.cacheFileDir,
                        h.initialCacheFileSizeMB, h.maxCacheFileSizeMB, h.initialCacheFileSizePct,
                        h.maxCacheFileSizePct);
    };
    const CacheFileHints actual = config_.getCacheFileHints();
    EXPECT_EQ(fields(actual), fields(row.expected));
}

INSTANTIATE_TEST_SUITE_P(Entries, HintsTest, ::testing::ValuesIn(kHintsRows), kRowName);

// Numbers read as stream extraction reads an unsigned 32-bit integer; where
// it fails the field keeps its earlier value.
TEST(ExtractUnsigned32, MatchesStreamExtraction) {
    // clang-format off
    const char* const texts[] = {
        "0", "42", "  \t\n\v\f\r17", "50%", "12 34", "0x10", "+7", "0000000000000000000000000000012",
        "4294967295", "-5", "-0", "-4294967295", "4294967296", "-4294967296", "99999999999999999999",
        "", "   ", "abc", "+", "- 5", "--5",
        "\xc2\xa0" "5",  // no-break space is not white space here
    };
    // clang-format on
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        std::istringstream stream(text);
        std::uint32_t value = 0;
        stream >> value;
        const bool read = !stream.fail();
        const std::uint32_t earlier = 777;
        std::uint32_t narrow = earlier;
        EXPECT_EQ(extractUnsigned32(std::string_view(text), narrow), read);
        EXPECT_EQ(narrow, read ? value : earlier);
        std::uint32_t wide = earlier;
        EXPECT_EQ(extractUnsigned32(utf16(text), wide), read);
        EXPECT_EQ(wide, read ? value : earlier);
    }
    // Pinned answers, so a library that reads differently fails here.
    std::uint32_t value = 0;
    EXPECT_TRUE(extractUnsigned32(std::string_view("50%"), value) && value == 50u);
    EXPECT_TRUE(extractUnsigned32(std::string_view("-5"), value) && value == 4294967291u);
    EXPECT_FALSE(extractUnsigned32(std::string_view("4294967296"), value));
}

// A traced operation frames itself with entry and exit lines under its own
// name and this module's source name; an untraced one writes nothing.
TEST_F(ConfigFixture, TracedOperationsNameThemselves) {
    const std::pair<std::u16string, std::function<void()>> rows[] = {
        {u"KivConfig::set", [this] { set(Target::kGroup, Select::kQuiesce, kQuiesceDoc); }},
        {u"KivConfig::getSplitConfig", [this] { config_.getSplitConfig(); }},
        {u"", [this] { update(Target::kGroup, Select::kSplit, kQuiesceDoc); }},
    };
    const std::u16string source = u", providers\\kiv\\kivconfig]\n";
    for (const auto& [name, call] : rows) {
        SCOPED_TRACE(name.empty() ? "untraced" : testsupport::utf8(name));
        testsupport::LogCapture capture;
        call();
        const std::vector<std::u16string> lines = capture.texts(kLogTrace);
        ASSERT_EQ(lines.size(), name.empty() ? 0u : 2u);
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::u16string word = i == 0 ? u" Entering" : u" Exiting";
            EXPECT_NE(lines[i].find(word + u" Function " + name + u"["), std::u16string::npos);
            EXPECT_TRUE(lines[i].ends_with(source));
        }
    }
}

}  // namespace
}  // namespace kivconfigtest
