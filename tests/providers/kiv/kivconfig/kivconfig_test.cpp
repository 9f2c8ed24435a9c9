// The configuration object as the host drives it: which requests each group
// takes, what get hands back, update and clear, the cache placement request
// and the reading of numbers.
#include "kiv/kivconfig/kivconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivconfig/setconfiginfo.h"
#include "kivconfig_test_util.h"
#include "os/codepage.h"
#include "string_helper.h"
#include "support/log_capture.h"
#include "tarn/msgcatalog.h"
#include "support/row_name.h"

namespace kivconfigtest {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::u16string kQuiesceDoc = document({{u"quiesceWait", u"10"}, {u"quiesceTimeout", u"30"}});
const std::u16string kCacheDoc =
    document({{u"cachefileAllowedVolumes", u"g:\\"}, {u"cachefileInitSizeinMB", u"64"}});
const std::u16string kSplitDoc = selectDocument({{u"snapshotVolumeName", u"\\\\.\\Snap1:"},
                                                 {u"cacheFileName", u"F:\\c.KIV"},
                                                 {u"initialCacheFileSize", u"100"},
                                                 {u"maximumCacheFileSize", u"500"}});
const std::u16string kAutoText =
    u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags "
    u"value=TARN_CFS_AUTO_PREP /> </SET_CONFIG_INFO_LIST>";

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

const SetRow kSetRows[] = {
    {"GroupQuiesce",
     Target::kGroup,
     Select::kQuiesce,
     kQuiesceDoc.c_str(),
     0,
     {{u"quiesceWait=10", u"quiesceTimeout=30"}, {}, {}, false}},
    {"GroupCache",
     Target::kGroup,
     Select::kSplit,
     kCacheDoc.c_str(),
     0,
     {{}, {u"cachefileAllowedVolumes=g:\\", u"cachefileInitSizeinMB=64"}, {}, false}},
    {"GroupNoSelector", Target::kGroup, Select::kNone, kQuiesceDoc.c_str(), 3, {}},
    {"GroupBothSelectors", Target::kGroup, Select::kBoth, kQuiesceDoc.c_str(), 3, {}},
    {"GroupNullText", Target::kGroup, Select::kQuiesce, nullptr, 3, {}},
    {"GroupBrokenDocument",
     Target::kGroup,
     Select::kQuiesce,
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 />",
     3,
     {}},
    // The mode word means nothing to the cache group: the document is parsed.
    {"GroupCacheIgnoresMode", Target::kGroup, Select::kSplit, kAutoText.c_str(), 0, {}},
    {"VolumeSelected",
     Target::kVolume,
     Select::kSplit,
     kSplitDoc.c_str(),
     0,
     {{},
      {},
      {u"snapshotVolumeName=\\\\.\\Snap1:", u"cacheFileName=F:\\c.KIV", u"initialCacheFileSize=100",
       u"maximumCacheFileSize=500"},
      false}},
    {"VolumeAutomatic", Target::kVolume, Select::kSplit, kAutoText.c_str(), 0, {{}, {}, {}, true}},
    // The automatic mode is found anywhere, even in text that would not parse.
    {"VolumeAutomaticNotParsed",
     Target::kVolume,
     Select::kSplit,
     u"xTARN_CFS_AUTO_PREPx",
     0,
     {{}, {}, {}, true}},
    {"VolumeBothModesChoosesAutomatic",
     Target::kVolume,
     Select::kSplit,
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> "
     u"<SET_CONFIG_INFO key=cs_flags value=TARN_CFS_AUTO_PREP /> </SET_CONFIG_INFO_LIST>",
     0,
     {{}, {}, {}, true}},
    {"VolumeNoMode",
     Target::kVolume,
     Select::kSplit,
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cacheFileName value=F /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"VolumeModeIsCaseSensitive",
     Target::kVolume,
     Select::kSplit,
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=tarn_cfs_auto_prep /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"VolumeSelectedBrokenDocument",
     Target::kVolume,
     Select::kSplit,
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP />",
     3,
     {}},
    {"VolumeNullText", Target::kVolume, Select::kSplit, nullptr, 3, {}},
    {"VolumeQuiesceStoresNothing", Target::kVolume, Select::kQuiesce, kQuiesceDoc.c_str(), 0, {}},
    {"VolumeNoSelector", Target::kVolume, Select::kNone, kSplitDoc.c_str(), 3, {}},
    {"VolumeBothSelectors", Target::kVolume, Select::kBoth, kSplitDoc.c_str(), 3, {}},
};

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

INSTANTIATE_TEST_SUITE_P(Requests, SetTest, ::testing::ValuesIn(kSetRows),
                         [](const auto& info) { return std::string(info.param.name); });

// A group takes one set; a second is refused and changes nothing; update
// appends; after a clear the group takes a set again.
struct GroupRow {
    const char* name;
    Target target;
    Select select;
    const std::u16string* first;
    const std::u16string* second;
    const std::vector<std::u16string>& (KivConfig::*entries)() const;
};
FIKIV_PRINT_ROW_NAME(GroupRow)

const std::u16string kQuiesceDoc2 = document({{u"quiesceWait", u"99"}});
const std::u16string kCacheDoc2 = document({{u"cachefileDir", u"tmp"}});
const std::u16string kSplitDoc2 = selectDocument({{u"cacheFileName", u"G:\\d.KIV"}});

const GroupRow kGroupRows[] = {
    {"Quiesce", Target::kGroup, Select::kQuiesce, &kQuiesceDoc, &kQuiesceDoc2,
     &KivConfig::quiesceEntries},
    {"Cache", Target::kGroup, Select::kSplit, &kCacheDoc, &kCacheDoc2, &KivConfig::cacheEntries},
    {"Split", Target::kVolume, Select::kSplit, &kSplitDoc, &kSplitDoc2, &KivConfig::splitEntries},
};

class GroupLifeTest : public ConfigFixture, public ::testing::WithParamInterface<GroupRow> {
  protected:
    void clearGroup(const GroupRow& row) {
        if (row.select == Select::kQuiesce) {
            config_.clearQuiesceConfig();
        } else if (row.target == Target::kGroup) {
            config_.clearCacheConfig();
        } else {
            config_.clearSplitConfig();
        }
    }
};

TEST_P(GroupLifeTest, SetOnceThenUpdateThenClear) {
    const GroupRow& row = GetParam();
    ASSERT_EQ(set(row.target, row.select, *row.first), 0);
    const std::vector<std::u16string> firstEntries = (config_.*row.entries)();
    ASSERT_FALSE(firstEntries.empty());
    EXPECT_EQ(get(row.target, row.select), *row.first);

    EXPECT_EQ(set(row.target, row.select, *row.second), 3);
    EXPECT_EQ((config_.*row.entries)(), firstEntries);
    EXPECT_EQ(get(row.target, row.select), *row.first);

    ASSERT_EQ(update(row.target, row.select, *row.second), 0);
    std::vector<std::u16string> secondEntries;
    ASSERT_EQ(parseSetConfigInfo(row.second->c_str(), secondEntries), 0);
    std::vector<std::u16string> both = firstEntries;
    both.insert(both.end(), secondEntries.begin(), secondEntries.end());
    EXPECT_EQ((config_.*row.entries)(), both);
    EXPECT_EQ(get(row.target, row.select), *row.second);

    // A rejected update leaves everything as it was.
    EXPECT_EQ(update(row.target, row.select, u"<SET_CONFIG_INFO_LIST> broken"), 3);
    EXPECT_EQ((config_.*row.entries)(), both);
    EXPECT_EQ(get(row.target, row.select), *row.second);

    clearGroup(row);
    EXPECT_THAT((config_.*row.entries)(), IsEmpty());
    EXPECT_EQ(get(row.target, row.select), u"<untouched>");
    EXPECT_EQ(set(row.target, row.select, *row.second), 0);
    EXPECT_EQ((config_.*row.entries)(), secondEntries);
}

INSTANTIATE_TEST_SUITE_P(Groups, GroupLifeTest, ::testing::ValuesIn(kGroupRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConfigFixture, SetSplitGroupRefusesEveryLaterVolumeSet) {
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAutoText), 0);
    EXPECT_EQ(set(Target::kVolume, Select::kQuiesce, kQuiesceDoc), 3);
    EXPECT_EQ(set(Target::kVolume, Select::kNone, kSplitDoc), 3);
    EXPECT_EQ(set(Target::kVolume, Select::kSplit, kSplitDoc), 3);
    EXPECT_TRUE(config_.isAutoPrepare());
    EXPECT_THAT(config_.splitEntries(), IsEmpty());
    // Update is not refused and still stores nothing for a quiesce request.
    EXPECT_EQ(update(Target::kVolume, Select::kQuiesce, kQuiesceDoc), 0);
    EXPECT_THAT(config_.quiesceEntries(), IsEmpty());
}

TEST_F(ConfigFixture, GroupsAreIndependent) {
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce, kQuiesceDoc), 0);
    ASSERT_EQ(set(Target::kGroup, Select::kSplit, kCacheDoc), 0);
    config_.clearCacheConfig();
    EXPECT_EQ(config_.quiesceEntries().size(), 2u);
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), kQuiesceDoc);
    EXPECT_EQ(get(Target::kGroup, Select::kSplit), u"<untouched>");
    config_.clearAll();
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), u"<untouched>");
}

TEST_F(ConfigFixture, ClearSplitLeavesAutomaticMode) {
    ASSERT_EQ(set(Target::kVolume, Select::kSplit, kAutoText), 0);
    ASSERT_TRUE(config_.isAutoPrepare());
    config_.clearSplitConfig();
    EXPECT_FALSE(config_.isAutoPrepare());
    EXPECT_EQ(set(Target::kVolume, Select::kSplit, kSplitDoc), 0);
    EXPECT_FALSE(config_.isAutoPrepare());
}

struct GetRow {
    const char* name;
    Target target;
    Select select;
    std::u16string expected;
};
FIKIV_PRINT_ROW_NAME(GetRow)

// After the group quiesce and cache settings and a volume's automatic split
// settings are stored (the same configuration answers both kinds of request).
const GetRow kGetRows[] = {
    {"GroupQuiesce", Target::kGroup, Select::kQuiesce, kQuiesceDoc},
    {"GroupCache", Target::kGroup, Select::kSplit, kCacheDoc},
    {"GroupNoSelector", Target::kGroup, Select::kNone, u"<untouched>"},
    {"GroupBothSelectors", Target::kGroup, Select::kBoth, u"<untouched>"},
    {"VolumeSplit", Target::kVolume, Select::kSplit, kAutoText},
    {"VolumeQuiesceIsNull", Target::kVolume, Select::kQuiesce, u"<null>"},
    {"VolumeNoSelector", Target::kVolume, Select::kNone, u"<untouched>"},
};

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

INSTANTIATE_TEST_SUITE_P(Requests, GetTest, ::testing::ValuesIn(kGetRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConfigFixture, GetOnEmptyConfigurationLeavesTextButClearsVolumeQuiesce) {
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), u"<untouched>");
    EXPECT_EQ(get(Target::kGroup, Select::kSplit), u"<untouched>");
    EXPECT_EQ(get(Target::kVolume, Select::kSplit), u"<untouched>");
    EXPECT_EQ(get(Target::kVolume, Select::kQuiesce), u"<null>");
}

TEST_F(ConfigFixture, GetWithoutBufferAnswersOutOfMemoryAndKeepsText) {
    ASSERT_EQ(set(Target::kGroup, Select::kQuiesce, kQuiesceDoc), 0);
    const char16_t sentinel[] = u"before";
    tarn_config_request r = request(Select::kQuiesce, sentinel);
    tarn_test_fail_alloc(/*skip=*/0, /*count=*/1);
    EXPECT_EQ(config_.get(&groupRecord_, nullptr, &r), 5);
    tarn_test_fail_alloc(0, 0);
    EXPECT_EQ(r.text, sentinel);
    EXPECT_EQ(get(Target::kGroup, Select::kQuiesce), kQuiesceDoc);
}

// One row per key: the key read back through its reader, and a value that
// cannot be read.
struct KeyRow {
    const char* name;
    std::u16string key;
    Target target;
    Select select;
    std::u16string value;
    std::u16string invalid;  // empty: every value is valid
};
FIKIV_PRINT_ROW_NAME(KeyRow)

const KeyRow kKeyRows[] = {
    {"SnapshotVolumeName", u"snapshotVolumeName", Target::kVolume, Select::kSplit, u"V:", u""},
    {"CacheFileName", u"cacheFileName", Target::kVolume, Select::kSplit, u"F:\\x.KIV", u""},
    {"InitialCacheFileSize", u"initialCacheFileSize", Target::kVolume, Select::kSplit, u"123",
     u"abc"},
    {"MaximumCacheFileSize", u"maximumCacheFileSize", Target::kVolume, Select::kSplit, u"456",
     u"x1"},
    {"QuiesceWait", u"quiesceWait", Target::kGroup, Select::kQuiesce, u"11", u"abc"},
    {"QuiesceTimeout", u"quiesceTimeout", Target::kGroup, Select::kQuiesce, u"22", u"-"},
    {"AllowedVolumes", u"cachefileAllowedVolumes", Target::kGroup, Select::kSplit, u"g:\\", u""},
    {"DisallowedVolumes", u"cachefileDisallowedVolumes", Target::kGroup, Select::kSplit, u"h:\\",
     u""},
    {"InitSizeMB", u"cachefileInitSizeinMB", Target::kGroup, Select::kSplit, u"33", u"abc"},
    {"MaxSizeMB", u"cachefileMaxSizeInMB", Target::kGroup, Select::kSplit, u"44", u"abc"},
    {"InitSizePct", u"cachefileInitSizePercentage", Target::kGroup, Select::kSplit, u"5", u"%"},
    {"MaxSizePct", u"cachefileMaxSizePercentage", Target::kGroup, Select::kSplit, u"6", u"+"},
    {"CacheDir", u"cachefileDir", Target::kGroup, Select::kSplit, u"kivcache", u""},
};

// The value of `key` as its reader reports it, in text.
std::u16string readBack(KivConfig& config, const std::u16string& key) {
    auto number = [](std::uint32_t n) { return toWide(std::to_string(n), os::CP_UTF8); };
    auto join = [](const std::vector<std::u16string>& list) {
        std::u16string text;
        for (const std::u16string& item : list) {
            text += (text.empty() ? u"" : u"|") + item;
        }
        return text;
    };
    SplitConfig split = config.getSplitConfig();
    QuiesceConfig quiesce = config.getQuiesceConfig();
    CacheFileHints hints = config.getCacheFileHints();
    if (key == u"snapshotVolumeName")
        return toWide(split.snapshotVolumeName, os::CP_UTF8);
    if (key == u"cacheFileName")
        return toWide(split.cacheFileName, os::CP_UTF8);
    if (key == u"initialCacheFileSize")
        return number(split.initialCacheFileSize);
    if (key == u"maximumCacheFileSize")
        return number(split.maximumCacheFileSize);
    if (key == u"quiesceWait")
        return number(quiesce.quiesceWait);
    if (key == u"quiesceTimeout")
        return number(quiesce.quiesceTimeout);
    if (key == u"cachefileAllowedVolumes")
        return join(hints.preferredVolumes);
    if (key == u"cachefileDisallowedVolumes")
        return join(hints.excludedVolumes);
    if (key == u"cachefileInitSizeinMB")
        return number(hints.initialCacheFileSizeMB);
    if (key == u"cachefileMaxSizeInMB")
        return number(hints.maxCacheFileSizeMB);
    if (key == u"cachefileInitSizePercentage")
        return number(hints.initialCacheFileSizePct);
    if (key == u"cachefileMaxSizePercentage")
        return number(hints.maxCacheFileSizePct);
    if (key == u"cachefileDir")
        return hints.cacheFileDir;
    ADD_FAILURE() << "no reader for the key";
    return {};
}

// A document with `key`=`value` that makes its group complete: the split and
// quiesce readers only read a group holding one entry per key.
std::u16string completeDocument(const KeyRow& row, const std::u16string& value) {
    if (row.select == Select::kQuiesce) {
        std::u16string other = row.key == u"quiesceWait" ? u"quiesceTimeout" : u"quiesceWait";
        return document({{row.key, value}, {other, u"1"}});
    }
    if (row.target == Target::kGroup) {
        return document({{row.key, value}});
    }
    std::u16string text =
        u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags "
        u"value=TARN_CFS_SELECT_PREP /> ";
    for (const char16_t* key : {u"snapshotVolumeName", u"cacheFileName", u"initialCacheFileSize",
                                u"maximumCacheFileSize"}) {
        text += u"<SET_CONFIG_INFO key=" + std::u16string(key) + u" value=" +
                (key == row.key ? value : std::u16string(u"1")) + u" /> ";
    }
    return text + u"</SET_CONFIG_INFO_LIST>";
}

class KeyTest : public ConfigFixture, public ::testing::WithParamInterface<KeyRow> {};

TEST_P(KeyTest, SetReadUpdateClear) {
    const KeyRow& row = GetParam();
    const std::u16string defaultValue = readBack(config_, row.key);

    std::u16string text = completeDocument(row, row.value);
    ASSERT_EQ(set(row.target, row.select, text), 0);
    EXPECT_EQ(readBack(config_, row.key), row.value);
    EXPECT_EQ(get(row.target, row.select), text);

    // Updating the complete group again: the cache reader takes the later
    // value (lists add up), the other groups read defaults once they hold
    // more entries than keys.
    std::u16string again = completeDocument(row, row.value);
    ASSERT_EQ(update(row.target, row.select, again), 0);
    if (row.target == Target::kGroup && row.select == Select::kSplit) {
        bool isList = row.key.ends_with(u"Volumes");
        EXPECT_EQ(readBack(config_, row.key), isList ? row.value + u"|" + row.value : row.value);
    } else {
        EXPECT_EQ(readBack(config_, row.key), defaultValue);
    }

    config_.clearAll();
    EXPECT_EQ(readBack(config_, row.key), defaultValue);

    if (!row.invalid.empty()) {
        ASSERT_EQ(set(row.target, row.select, completeDocument(row, row.invalid)), 0);
        EXPECT_EQ(readBack(config_, row.key), defaultValue);
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, KeyTest, ::testing::ValuesIn(kKeyRows),
                         [](const auto& info) { return std::string(info.param.name); });

struct HintsRow {
    const char* name;
    std::vector<std::u16string> entries;  // cache entries, as stored
    CacheFileHints expected;
};
FIKIV_PRINT_ROW_NAME(HintsRow)

CacheFileHints hints(std::vector<std::u16string> preferred, std::vector<std::u16string> excluded,
                     std::u16string dir, std::uint32_t initMB, std::uint32_t maxMB,
                     std::uint32_t initPct, std::uint32_t maxPct) {
    CacheFileHints h;
    h.preferredVolumes = std::move(preferred);
    h.excludedVolumes = std::move(excluded);
    h.cacheFileDir = std::move(dir);
    h.initialCacheFileSizeMB = initMB;
    h.maxCacheFileSizeMB = maxMB;
    h.initialCacheFileSizePct = initPct;
    h.maxCacheFileSizePct = maxPct;
    return h;
}

const HintsRow kHintsRows[] = {
    {"ListWithBlanksEmptyItemAndTrailingComma",
     {u"cachefileAllowedVolumes= g:\\ , ,f:\\,"},
     hints({u"g:\\", u"f:\\"}, {}, u"", 0, 0, 0, 0)},
    {"ListTrimsTabsAndLineFeeds",
     {u"cachefileDisallowedVolumes=\t\ne:\\\t,,,  d:\\ x  "},
     hints({}, {u"e:\\", u"d:\\ x"}, u"", 0, 0, 0, 0)},
    {"ListOfSeparatorsOnly", {u"cachefileAllowedVolumes=, ,\t,"}, hints({}, {}, u"", 0, 0, 0, 0)},
    {"AllSevenKeys",
     {u"cachefileAllowedVolumes=g:\\", u"cachefileDisallowedVolumes=c:\\",
      u"cachefileInitSizeinMB=10", u"cachefileMaxSizeInMB=20", u"cachefileInitSizePercentage=30",
      u"cachefileMaxSizePercentage=40", u"cachefileDir=kiv"},
     hints({u"g:\\"}, {u"c:\\"}, u"kiv", 10, 20, 30, 40)},
    {"EightEntriesGiveDefaults",
     {u"cachefileAllowedVolumes=g:\\", u"cachefileDisallowedVolumes=c:\\",
      u"cachefileInitSizeinMB=10", u"cachefileMaxSizeInMB=20", u"cachefileInitSizePercentage=30",
      u"cachefileMaxSizePercentage=40", u"cachefileDir=kiv", u"cachefileDir=other"},
     hints({}, {}, u"", 0, 0, 0, 0)},
    {"RepeatedKeysAddAndReplace",
     {u"cachefileAllowedVolumes=g:\\", u"cachefileAllowedVolumes=h:\\", u"cachefileDir=x",
      u"cachefileDir=y", u"cachefileMaxSizeInMB=5", u"cachefileMaxSizeInMB=7"},
     hints({u"g:\\", u"h:\\"}, {}, u"y", 0, 7, 0, 0)},
    {"UnreadableNumberKeepsEarlierValue",
     {u"cachefileMaxSizeInMB=abc", u"cachefileInitSizeinMB=12", u"cachefileInitSizeinMB=x"},
     hints({}, {}, u"", 12, 0, 0, 0)},
    {"PercentSignIgnored", {u"cachefileMaxSizePercentage=50%"}, hints({}, {}, u"", 0, 0, 0, 50)},
    {"PrefixAloneIsSkipped",
     {u"cachefileDir=", u"cachefileAllowedVolumes=", u"cachefileMaxSizeInMB="},
     hints({}, {}, u"", 0, 0, 0, 0)},
    {"KeysAreCaseSensitive",
     {u"CacheFileDir=x", u"cachefileInitSizeInMB=9", u"cachefileMaxSizeinMB=9"},
     hints({}, {}, u"", 0, 0, 0, 0)},
    {"ForeignKeysIgnored",
     {u"quiesceWait=3", u"cachefileDirectory=z"},
     hints({}, {}, u"", 0, 0, 0, 0)},
};

class HintsTest : public ConfigFixture, public ::testing::WithParamInterface<HintsRow> {};

TEST_P(HintsTest, ReadsTheCacheGroup) {
    const HintsRow& row = GetParam();
    KivConfigTestPeer::storeCacheEntries(config_, row.entries);
    CacheFileHints actual = config_.getCacheFileHints();
    EXPECT_EQ(actual.preferredVolumes, row.expected.preferredVolumes);
    EXPECT_EQ(actual.excludedVolumes, row.expected.excludedVolumes);
    EXPECT_EQ(actual.cacheFileDir, row.expected.cacheFileDir);
    EXPECT_EQ(actual.initialCacheFileSizeMB, row.expected.initialCacheFileSizeMB);
    EXPECT_EQ(actual.maxCacheFileSizeMB, row.expected.maxCacheFileSizeMB);
    EXPECT_EQ(actual.initialCacheFileSizePct, row.expected.initialCacheFileSizePct);
    EXPECT_EQ(actual.maxCacheFileSizePct, row.expected.maxCacheFileSizePct);
}

INSTANTIATE_TEST_SUITE_P(Entries, HintsTest, ::testing::ValuesIn(kHintsRows),
                         [](const auto& info) { return std::string(info.param.name); });

// Numbers are read as formatted stream extraction reads an unsigned 32-bit
// integer; where that extraction succeeds both must agree, and where it fails
// the field keeps its earlier value.
struct NumberRow {
    const char* text;
    bool read;
    std::uint32_t value;  // when read
};

const NumberRow kNumberRows[] = {
    {"0", true, 0},
    {"42", true, 42},
    {"  \t\n\v\f\r17", true, 17},
    {"50%", true, 50},
    {"12 34", true, 12},
    {"0x10", true, 0},
    {"+7", true, 7},
    {"0000000000000000000000000000012", true, 12},
    {"4294967295", true, 4294967295u},
    {"-5", true, 4294967291u},
    {"-0", true, 0},
    {"-4294967295", true, 1},
    {"4294967296", false, 0},
    {"-4294967296", false, 0},
    {"99999999999999999999", false, 0},
    {"", false, 0},
    {"   ", false, 0},
    {"abc", false, 0},
    {"+", false, 0},
    {"- 5", false, 0},
    {"--5", false, 0},
    {"\xc2\xa0"
     "5",
     false, 0},  // no-break space is not white space here
};

TEST(ExtractUnsigned32, MatchesStreamExtraction) {
    for (const NumberRow& row : kNumberRows) {
        SCOPED_TRACE(row.text);
        std::istringstream stream(row.text);
        std::uint32_t streamValue = 0;
        stream >> streamValue;
        ASSERT_EQ(!stream.fail(), row.read) << "the table disagrees with the stream";
        if (row.read) {
            ASSERT_EQ(streamValue, row.value) << "the table disagrees with the stream";
        }

        const std::uint32_t earlier = 777;
        std::uint32_t narrow = earlier;
        EXPECT_EQ(extractUnsigned32(std::string_view(row.text), narrow), row.read);
        EXPECT_EQ(narrow, row.read ? row.value : earlier);

        std::uint32_t wide = earlier;
        EXPECT_EQ(extractUnsigned32(toWide(row.text, os::CP_UTF8), wide), row.read);
        EXPECT_EQ(wide, row.read ? row.value : earlier);
    }
}

// Operations the host and the node call: the traced ones frame themselves
// with entry and exit lines under their own name and this module's source
// name; the others write nothing.
TEST_F(ConfigFixture, TracedOperationsNameThemselves) {
    struct Row {
        const char16_t* name;  // null: not traced
        std::function<void()> call;
    };
    const std::u16string doc = kQuiesceDoc;
    const Row rows[] = {
        {u"KivConfig::set", [&] { set(Target::kGroup, Select::kQuiesce, doc); }},
        {u"KivConfig::get", [this] { get(Target::kGroup, Select::kQuiesce); }},
        {u"KivConfig::getQuiesceConfig", [this] { config_.getQuiesceConfig(); }},
        {u"KivConfig::isValidQuiesceConfig", [this] { config_.isValidQuiesceConfig(); }},
        {u"KivConfig::getSplitConfig", [this] { config_.getSplitConfig(); }},
        {u"KivConfig::isValidNodeSplitConfig", [this] { config_.isValidNodeSplitConfig(); }},
        {nullptr, [&] { update(Target::kGroup, Select::kSplit, doc); }},
        {nullptr, [this] { config_.getCacheFileHints(); }},
        {nullptr, [this] { config_.setAutoSplitConfig(SplitConfig{}); }},
        {nullptr, [this] { config_.clearAll(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name != nullptr ? toNarrow(row.name, os::CP_UTF8) : "untraced");
        testsupport::LogCapture capture;
        row.call();
        const std::vector<std::u16string> lines = capture.texts(kLogTrace);
        if (row.name == nullptr) {
            EXPECT_THAT(lines, IsEmpty());
            continue;
        }
        ASSERT_EQ(lines.size(), 2u);
        const std::u16string name(row.name);
        const std::u16string source = u", providers\\kiv\\kivconfig]\n";
        EXPECT_NE(lines[0].find(u" Entering Function " + name + u"["), std::u16string::npos);
        EXPECT_NE(lines[1].find(u" Exiting Function " + name + u"["), std::u16string::npos);
        EXPECT_TRUE(lines[0].ends_with(source));
        EXPECT_TRUE(lines[1].ends_with(source));
    }
}

}  // namespace
}  // namespace kivconfigtest
