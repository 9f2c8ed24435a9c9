// toNarrow/toWide: the conversion table, round trips, and the fatal
// consistency check when a conversion cannot be done at all.
#include "string_helper.h"

#include <gtest/gtest.h>

#include "os/codepage.h"
#include "support/text_cases.h"

namespace {

// Ill-formed input is replaced as everywhere else in the product; well-formed
// text converts back to what it was. An embedded NUL is text like any other.
TEST(StringHelperTest, FollowsTheConversionTable) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(toWide(row.bytes, os::CP_UTF8), row.units);
        if (row.wellFormed) {
            EXPECT_EQ(toNarrow(row.units, os::CP_UTF8), row.bytes);
        }
    }
    for (const testsupport::Utf16Case& row : testsupport::utf16Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(toNarrow(row.units, os::CP_UTF8), row.bytes);
        if (row.wellFormed) {
            EXPECT_EQ(toWide(row.bytes, os::CP_UTF8), row.units);
        }
    }
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(toWide(bytes, os::CP_UTF8), std::u16string(u"a\0b", 3));
    EXPECT_EQ(toNarrow(std::u16string(u"a\0b", 3), os::CP_UTF8), bytes);
    EXPECT_EQ(toWide("", os::CP_UTF8), u"");
    EXPECT_EQ(toNarrow(u"", os::CP_UTF8), "");
}

TEST(StringHelperDeathTest, UnconvertibleTextStopsTheProcess) {
    // A code page the platform cannot convert yields nothing, which the
    // length check catches.
    EXPECT_DEATH(toNarrow(u"abc", 1252),
                 "len2 >= len, file providers.include.string_helper, line 82");
}

}  // namespace
