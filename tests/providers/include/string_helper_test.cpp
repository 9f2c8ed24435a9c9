// toNarrow/toWide: round trips, replacement of bad input, and the fatal
// consistency check when a conversion cannot be done at all.
#include "string_helper.h"

#include <gtest/gtest.h>

#include "os/codepage.h"

namespace {

TEST(StringHelperTest, RoundTrips) {
    struct Row {
        const char* name;
        std::string utf8;
        std::size_t letters;  // UTF-16 units
    };
    const Row rows[] = {
        {"ascii", "C:\\mnt\\data\\", 12},
        {"accented",
         "\xC3\x85ngstr\xC3\xB6m \xC4\x8C"
         "e\xC5\xA1tina",
         16},
        {"cjk", "\xE6\x97\xA5\xE6\x9C\xAC", 2},
        {"astral", "vol\xF0\x9F\x98\x80", 5},
        {"empty", "", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::u16string wide = toWide(row.utf8, os::CP_UTF8);
        EXPECT_EQ(wide.size(), row.letters);
        EXPECT_EQ(toNarrow(wide, os::CP_UTF8), row.utf8);
    }
}

TEST(StringHelperTest, EmbeddedNulIsKept) {
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(toWide(bytes, os::CP_UTF8), std::u16string(u"a\0b", 3));
    EXPECT_EQ(toNarrow(std::u16string(u"a\0b", 3), os::CP_UTF8), bytes);
}

TEST(StringHelperTest, BadInputBecomesReplacementCharacter) {
    EXPECT_EQ(toWide("a\xC0\xAF"
                     "b",
                     os::CP_UTF8),
              u"a\uFFFD\uFFFDb");
    EXPECT_EQ(toWide("abc\xE2\x82", os::CP_UTF8), u"abc\uFFFD");
    const char16_t lone[] = {u'x', 0xDC00, 0};
    EXPECT_EQ(toNarrow(lone, os::CP_UTF8), "x\xEF\xBF\xBD");
}

TEST(StringHelperDeathTest, UnconvertibleTextStopsTheProcess) {
    // A code page the platform cannot convert yields nothing, which the
    // length check catches.
    EXPECT_DEATH(toNarrow(u"abc", 1252),
                 "len2 >= len, file providers.include.string_helper, line 82");
}

}  // namespace
