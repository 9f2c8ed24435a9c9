// The settings document reader: which documents the host may send, what each
// stores, and that a rejected document adds nothing.
#include "kiv/kivconfig/setconfiginfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/row_name.h"

namespace {

using ::testing::ElementsAreArray;

// `elements` between the list start and the list end, one blank apart.
std::u16string inList(const std::u16string& elements) {
    return u"<SET_CONFIG_INFO_LIST> " + elements + u" </SET_CONFIG_INFO_LIST>";
}

struct ParseRow {
    const char* name;
    std::optional<std::u16string> text;  // none: a null text
    std::int32_t result;
    std::vector<std::u16string> entries;  // appended on success
};
FIKIV_PRINT_ROW_NAME(ParseRow)

// clang-format off
const ParseRow kParseRows[] = {
    {"EmptyList",                  u"<SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>", 0, {}},
    {"TwoElements",                inList(u"<SET_CONFIG_INFO key=quiesceWait value=10 /> <SET_CONFIG_INFO key=quiesceTimeout value=30 />"), 0, {u"quiesceWait=10", u"quiesceTimeout=30"}},
    {"AttributeNamesAreFree",      inList(u"<SET_CONFIG_INFO a=cacheFileName b=F:\\c.KIV />"), 0, {u"cacheFileName=F:\\c.KIV"}},
    {"BlankRunsAreOneSeparator",   u"  <SET_CONFIG_INFO_LIST>   <SET_CONFIG_INFO   key=quiesceWait    value=10   />   </SET_CONFIG_INFO_LIST>  ", 0, {u"quiesceWait=10"}},
    // A name token ends at the first "=", so the further ones stay in the key
    // and value tokens, which end at blanks only.
    {"DoubledEqualsStayInTokens",  inList(u"<SET_CONFIG_INFO key==quiesceWait value===7 />"), 0, {u"=quiesceWait===7"}},
    {"EmptyValueStoresNothing",    inList(u"<SET_CONFIG_INFO key=cachefileDir value=; /> <SET_CONFIG_INFO key=quiesceWait value=1 />"), 0, {u"quiesceWait=1"}},
    {"ValueStartingWithSemicolonIsStored", inList(u"<SET_CONFIG_INFO key=cachefileDir value=;x />"), 0, {u"cachefileDir=;x"}},
    {"ModeElementStoresNothing",   inList(u"<SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> <SET_CONFIG_INFO key=cacheFileName value=F />"), 0, {u"cacheFileName=F"}},
    {"ModeKeyInValueStoresNothing", inList(u"<SET_CONFIG_INFO key=cachefileDir value=my_cs_flags_dir />"), 0, {}},
    {"DuplicatedKeysAreAllKept",   inList(u"<SET_CONFIG_INFO key=quiesceWait value=10 /> <SET_CONFIG_INFO key=quiesceWait value=20 />"), 0, {u"quiesceWait=10", u"quiesceWait=20"}},
    // After a value, a token that does not close the element is passed over
    // and the next pair is read from the text behind it.
    {"FurtherPairAfterAnyToken",   inList(u"<SET_CONFIG_INFO key=quiesceWait value=1 and key=quiesceTimeout value=2 />"), 0, {u"quiesceWait=1", u"quiesceTimeout=2"}},
    {"PairRightAfterValueLosesItsName", inList(u"<SET_CONFIG_INFO key=quiesceWait value=1 key=quiesceTimeout value=2 />"), 3, {}},
    {"TabIsPartOfToken",           inList(u"<SET_CONFIG_INFO key=quiesceWait value=10\t/>"), 3, {}},
    {"TabInsideValueIsKept",       inList(u"<SET_CONFIG_INFO key=cachefileDir value=a\tb />"), 0, {u"cachefileDir=a\tb"}},
    {"QuotesBelongToValue",        inList(u"<SET_CONFIG_INFO key=\"cachefileDir\" value=\"x\" />"), 0, {u"\"cachefileDir\"=\"x\""}},
    {"ClosingTokenMayCarryMore",   inList(u"<SET_CONFIG_INFO key=quiesceWait value=10 />junk"), 0, {u"quiesceWait=10"}},
    {"ValueAgainstElementEndFailsAtListEnd", inList(u"<SET_CONFIG_INFO key=quiesceWait value=10/>"), 3, {}},
    {"TextAfterListEndIsNotRead",  inList(u"<SET_CONFIG_INFO key=quiesceWait value=10 />") + u" <SET_CONFIG_INFO broken", 0, {u"quiesceWait=10"}},
    {"MissingListEnd",             u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 />", 3, {}},
    {"MissingElementEnd",          u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10", 3, {}},
    {"Null",                       std::nullopt, 3, {}},
    {"Empty",                      u"", 3, {}},
    {"WrongListStart",             u"<SET_CONFIG_INFO_LIST2> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"ListStartNotFirst",          u"x <SET_CONFIG_INFO_LIST> </SET_CONFIG_INFO_LIST>", 3, {}},
    {"StrayTokenBetweenElements",  inList(u"<SET_CONFIG_INFO key=a value=1 /> junk"), 3, {}},
    {"ElementEndWithoutElement",   inList(u"/>"), 3, {}},
    {"StrayElementStartAsKey",     inList(u"<SET_CONFIG_INFO key=<SET_CONFIG_INFO value=1 />"), 3, {}},
    {"StrayElementStartAsValue",   inList(u"<SET_CONFIG_INFO key=a value=<SET_CONFIG_INFO />"), 3, {}},
    {"ElementStartInsteadOfElementEnd", inList(u"<SET_CONFIG_INFO key=a value=1 <SET_CONFIG_INFO key=b value=2 />"), 3, {}},
    {"ElementWithoutPair",         inList(u"<SET_CONFIG_INFO />"), 3, {}},
    {"PairWithoutEquals",          inList(u"<SET_CONFIG_INFO keyquiesceWait value10 />"), 3, {}},
    {"ListEndInsideElement",       inList(u"<SET_CONFIG_INFO key=a value=1"), 3, {}},
};
// clang-format on

class ParseSetConfigInfoTest : public ::testing::TestWithParam<ParseRow> {};

TEST_P(ParseSetConfigInfoTest, ResultAndEntries) {
    const ParseRow& row = GetParam();
    // The reader works on a copy: the caller's text stays as it was.
    const std::optional<std::u16string> text = row.text;
    // A prior entry must survive both outcomes: entries are only appended.
    std::vector<std::u16string> out = {u"kept=1"};
    EXPECT_EQ(parseSetConfigInfo(text ? text->c_str() : nullptr, out), row.result);
    EXPECT_EQ(text, row.text);
    std::vector<std::u16string> expected = {u"kept=1"};
    if (row.result == 0) {
        expected.insert(expected.end(), row.entries.begin(), row.entries.end());
    }
    EXPECT_THAT(out, ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Documents, ParseSetConfigInfoTest, ::testing::ValuesIn(kParseRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
