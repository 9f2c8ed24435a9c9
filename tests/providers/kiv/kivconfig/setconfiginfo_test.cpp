// The settings document reader: which documents the host may send, what each
// stores, and that a rejected document adds nothing.
#include "kiv/kivconfig/setconfiginfo.h"
#include "support/row_name.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAreArray;

struct ParseRow {
    const char* name;
    const char16_t* text;
    std::int32_t result;
    std::vector<std::u16string> entries;  // appended on success
};
FIKIV_PRINT_ROW_NAME(ParseRow)

const ParseRow kParseRows[] = {
    {"EmptyList", u"<SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>", 0, {}},
    {"TwoElements",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
     u"<SET_CONFIG_INFO key=quiesceTimeout value=30 /> </SET_CONFIG_INFO_LIST>",
     0,
     {u"quiesceWait=10", u"quiesceTimeout=30"}},
    {"AttributeNamesAreFree",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO a=cacheFileName b=F:\\c.KIV /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"cacheFileName=F:\\c.KIV"}},
    {"BlankRunsAreOneSeparator",
     u"  <SET_CONFIG_INFO_LIST>   <SET_CONFIG_INFO   key=quiesceWait    value=10   />   "
     u"</SET_CONFIG_INFO_LIST>  ",
     0,
     {u"quiesceWait=10"}},
    // A name token ends at the first "=", so the further ones stay in the key
    // and value tokens, which end at blanks only.
    {"DoubledEqualsStayInTokens",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key==quiesceWait value===7 /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"=quiesceWait===7"}},
    {"EmptyValueStoresNothing",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileDir value=; /> "
     u"<SET_CONFIG_INFO key=quiesceWait value=1 /> </SET_CONFIG_INFO_LIST>",
     0,
     {u"quiesceWait=1"}},
    {"ValueStartingWithSemicolonIsStored",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileDir value=;x /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"cachefileDir=;x"}},
    {"ModeElementStoresNothing",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> "
     u"<SET_CONFIG_INFO key=cacheFileName value=F /> </SET_CONFIG_INFO_LIST>",
     0,
     {u"cacheFileName=F"}},
    {"ModeKeyInValueStoresNothing",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileDir value=my_cs_flags_dir /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {}},
    {"DuplicatedKeysAreAllKept",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
     u"<SET_CONFIG_INFO key=quiesceWait value=20 /> </SET_CONFIG_INFO_LIST>",
     0,
     {u"quiesceWait=10", u"quiesceWait=20"}},
    // After a value, a token that does not close the element is passed over
    // and the next pair is read from the text behind it.
    {"FurtherPairAfterAnyToken",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=1 and key=quiesceTimeout "
     u"value=2 /> </SET_CONFIG_INFO_LIST>",
     0,
     {u"quiesceWait=1", u"quiesceTimeout=2"}},
    {"PairRightAfterValueLosesItsName",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=1 key=quiesceTimeout "
     u"value=2 /> </SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"TabIsPartOfToken",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10\t/> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"TabInsideValueIsKept",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cachefileDir value=a\tb /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"cachefileDir=a\tb"}},
    {"QuotesBelongToValue",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=\"cachefileDir\" value=\"x\" /> "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"\"cachefileDir\"=\"x\""}},
    {"ClosingTokenMayCarryMore",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 />junk "
     u"</SET_CONFIG_INFO_LIST>",
     0,
     {u"quiesceWait=10"}},
    {"ValueAgainstElementEndFailsAtListEnd",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10/> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ValueAgainstElementEndSwallowsNextElement",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=a value=1/> <SET_CONFIG_INFO key=b value=2 /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"TextAfterListEndIsNotRead",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
     u"</SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO broken",
     0,
     {u"quiesceWait=10"}},
    {"MissingListEnd",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 />",
     3,
     {}},
    {"MissingElementEnd",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10",
     3,
     {}},
    {"ListStartOnly", u"<SET_CONFIG_INFO_LIST>", 3, {}},
    {"Empty", u"", 3, {}},
    {"OnlyBlanks", u"    ", 3, {}},
    {"WrongListStart", u"<SET_CONFIG_INFO_LIST2> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"ListStartIsCaseSensitive", u"<set_config_info_list> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"ListStartNotFirst", u"x <SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"StrayTokenBetweenElements",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=a value=1 /> junk </SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ElementEndWithoutElement", u"<SET_CONFIG_INFO_LIST> /> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"StrayElementStartAsKey",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=<SET_CONFIG_INFO value=1 /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"StrayElementStartAsValue",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=a value=<SET_CONFIG_INFO /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ElementStartInsteadOfElementEnd",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=a value=1 <SET_CONFIG_INFO key=b value=2 /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ElementWithoutPair",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO /> </SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ElementEndsBeforeValue", u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait", 3, {}},
    {"PairWithoutEquals",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO keyquiesceWait value10 /> "
     u"</SET_CONFIG_INFO_LIST>",
     3,
     {}},
    {"ListEndInsideElement",
     u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=a value=1 </SET_CONFIG_INFO_LIST>",
     3,
     {}},
};

class ParseSetConfigInfoTest : public ::testing::TestWithParam<ParseRow> {};

TEST_P(ParseSetConfigInfoTest, ResultAndEntries) {
    const ParseRow& row = GetParam();
    // A prior entry must survive both outcomes: entries are only appended.
    std::vector<std::u16string> out = {u"kept=1"};
    EXPECT_EQ(parseSetConfigInfo(row.text, out), row.result);
    std::vector<std::u16string> expected = {u"kept=1"};
    if (row.result == 0) {
        expected.insert(expected.end(), row.entries.begin(), row.entries.end());
    }
    EXPECT_THAT(out, ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Documents, ParseSetConfigInfoTest, ::testing::ValuesIn(kParseRows),
                         [](const ::testing::TestParamInfo<ParseRow>& info) {
                             return std::string(info.param.name);
                         });

TEST(ParseSetConfigInfo, NullTextIsRejected) {
    std::vector<std::u16string> out;
    EXPECT_EQ(parseSetConfigInfo(nullptr, out), 3);
    EXPECT_TRUE(out.empty());
}

TEST(ParseSetConfigInfo, CallerTextIsNotModified) {
    std::u16string text =
        u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
        u"</SET_CONFIG_INFO_LIST>";
    const std::u16string original = text;
    std::vector<std::u16string> out;
    ASSERT_EQ(parseSetConfigInfo(text.c_str(), out), 0);
    EXPECT_EQ(text, original);
    // The same text parses the same way a second time.
    ASSERT_EQ(parseSetConfigInfo(text.c_str(), out), 0);
    EXPECT_THAT(out, ElementsAreArray({u"quiesceWait=10", u"quiesceWait=10"}));
}

}  // namespace
