// toNarrow/toWide over the platform's code-page functions (whose conversion
// table the platform tests check): lengths, and the fatal consistency check.
#include "string_helper.h"

#include <gtest/gtest.h>

#include "os/codepage.h"

namespace {

// Lengths come from the conversion, not from a terminator: an embedded NUL
// is text like any other, and non-ASCII text changes length both ways.
TEST(StringHelperTest, ConvertsWholeTextByLength) {
    const std::string bytes("a\0b\xC3\xA9\xF0\x9F\x98\x80", 9);
    const std::u16string units(u"a\0b\u00E9\U0001F600", 6);
    EXPECT_EQ(toWide(bytes, os::CP_UTF8), units);
    EXPECT_EQ(toNarrow(units, os::CP_UTF8), bytes);
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
