// The information documents that tell the host which keys a group takes:
// exact text, cached after the first request, and the requests that get none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kiv/kivconfig/kivconfig.h"
#include "kivconfig_test_util.h"
#include "tarn/msgcatalog.h"
#include "support/row_name.h"

namespace kivconfigtest {
namespace {

const std::u16string kQuiesceInfo =
    u"<GET_CONFIG_INFO_LIST> <GET_CONFIG_INFO key=quiesceWait type=range value_range_min=0 /> "
    u"<GET_CONFIG_INFO key=quiesceTimeout type=range value_range_min=0 /> "
    u"</GET_CONFIG_INFO_LIST> ";

const std::u16string kSplitInfo =
    u"<GET_CONFIG_INFO_LIST> "
    u"<GET_CONFIG_INFO key=cs_flags type=SELECT value_type=selection_list "
    u"value_selection_list=TARN_CFS_SELECT_PREP,TARN_CFS_AUTO_PREP /> "
    u"<GET_CONFIG_INFO key=snapshotVolumeName  type=SELECT value_type=wstring "
    u"value_selection_list=<name_of_snapshotvolume> /> "
    u"<GET_CONFIG_INFO key=cacheFileName type=SELECT value_type=wstring "
    u"value_selection_list=<name_of_cachefile> /> "
    u"<GET_CONFIG_INFO key=initialCacheFileSize type=range value_range_min=0 /> "
    u"<GET_CONFIG_INFO key=maximumCacheFileSize type=range value_range_min=0 /> "
    u"</GET_CONFIG_INFO_LIST> ";

const std::u16string kCacheInfo =
    u"<GET_CONFIG_INFO_LIST> "
    u"<GET_CONFIG_INFO key=cachefileAllowedVolumes type=SELECT value_type=wstring "
    u"value_selection_list=<comma_delimited_drive_letter_eg.-g:\\,f:\\,etc.> /> "
    u"<GET_CONFIG_INFO key=cachefileDisallowedVolumes type=SELECT value_type=wstring "
    u"value_selection_list=<comma_delimited_drive_letter_eg.-g:\\,f:\\,etc.> /> "
    u"<GET_CONFIG_INFO key=cachefileInitSizeinMB type=range value_range_min=0 /> "
    u"<GET_CONFIG_INFO key=cachefileMaxSizeInMB type=range value_range_min=0 /> "
    u"<GET_CONFIG_INFO key=cachefileInitSizePercentage type=range value_range_min=0 "
    u"value_range_max=100 /> "
    u"<GET_CONFIG_INFO key=cachefileMaxSizePercentage type=range value_range_min=0 "
    u"value_range_max=100 /> "
    u"<GET_CONFIG_INFO key=cachefileDir type=SELECT value_type=wstring "
    u"value_selection_list=<name_of_directory> /> "
    u"</GET_CONFIG_INFO_LIST> ";

struct InfoRow {
    const char* name;
    Target target;
    Select select;
    std::int32_t result;
    std::u16string expected;  // "<null>" or "<untouched>" when no document
};
FIKIV_PRINT_ROW_NAME(InfoRow)

// clang-format off
const InfoRow kInfoRows[] = {
    {"GroupQuiesce",        Target::kGroup,  Select::kQuiesce, 0, kQuiesceInfo},
    {"GroupCache",          Target::kGroup,  Select::kSplit,   0, kCacheInfo},
    {"VolumeSplit",         Target::kVolume, Select::kSplit,   0, kSplitInfo},
    {"VolumeQuiesce",       Target::kVolume, Select::kQuiesce, 0, u"<null>"},
    {"GroupNoSelector",     Target::kGroup,  Select::kNone,    3, kUntouched},
    {"GroupBothSelectors",  Target::kGroup,  Select::kBoth,    3, kUntouched},
};
// clang-format on

class InfoTest : public ConfigFixture, public ::testing::WithParamInterface<InfoRow> {
  protected:
    // The document getConfigInfo hands over (see handedBack).
    std::u16string info(const InfoRow& row) {
        tarn_config_request r = request(row.select, kUntouched);
        EXPECT_EQ(config_.getConfigInfo(record(row.target), nullptr, &r), row.result);
        return handedBack(r);
    }
};

TEST_P(InfoTest, DocumentIsExactAndReused) {
    const InfoRow& row = GetParam();
    EXPECT_EQ(info(row), row.expected);
    // The second request gets an equal copy of the kept document.
    EXPECT_EQ(info(row), row.expected);
    // Clearing the settings does not touch the documents.
    config_.clearAll();
    EXPECT_EQ(info(row), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Requests, InfoTest, ::testing::ValuesIn(kInfoRows), kRowName);

// Each key carries the active catalogue's help text under its own id, spelled
// as the framework knows it ("HELPTEXT" once, "HELPTXT" elsewhere,
// "EXCLUDEDVOLS"); the directory key has none.
TEST_F(ConfigFixture, HelpTextsComeFromTheActiveCatalogue) {
    KivFiCoordinator::instance().initCatalogues(nullptr);
    tarp_MsgCatalog* catalogue = activeCatalogue();
    ASSERT_NE(catalogue, nullptr);
    KivConfig config;
    const std::pair<const std::vector<ConfigKeyDescriptor>&, std::vector<const char*>> groups[] = {
        // clang-format off
        {config.splitKeys(), {"MSG_CFGHELPTEXT_SNAPSHOTVOLUMENAME", "MSG_CFGHELPTXT_CACHEFILENAME", "MSG_CFGHELPTXT_INITIALCACHEFILESIZE", "MSG_CFGHELPTXT_MAXCACHEFILESIZE"}},
        {config.quiesceKeys(), {"MSG_CFGHELPTXT_QUIESCEWAITTIME", "MSG_CFGHELPTXT_QUIESCETIMEOUT"}},
        {config.cacheKeys(), {"MSG_CFGHELPTXT_CACHEFILEALLOWEDVOLS", "MSG_CFGHELPTXT_CACHEFILEEXCLUDEDVOLS", "MSG_CFGHELPTXT_CACHEFILEINITSIZEMB", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEMB", "MSG_CFGHELPTXT_CACHEFILEINITSIZEPCT", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEPCT", nullptr}},
        // clang-format on
    };
    for (const auto& [keys, ids] : groups) {
        ASSERT_EQ(keys.size(), ids.size());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            SCOPED_TRACE(ids[i] != nullptr ? ids[i] : "no id");
            const char16_t* expected =
                ids[i] != nullptr ? catalogue->getCachedMsg(ids[i], false) : nullptr;
            EXPECT_EQ(keys[i].helpText, expected);
            EXPECT_EQ(expected == nullptr, ids[i] == nullptr)
                << "the catalogue lacks the help text";
        }
    }
}

}  // namespace
}  // namespace kivconfigtest
