// UTF-16 to UTF-8 and back, as the host copies the plug-in's texts.
#include "host/text.h"

#include <gtest/gtest.h>

namespace {

TEST(HostTextTest, ConvertsBothWaysAndReplacesMalformedInput) {
    struct Row {
        const char* name;
        std::u16string wide;
        std::string narrow;
        bool roundTrips;
    };
    const Row rows[] = {
        {"Ascii", u"C:\\cache", "C:\\cache", true},
        {"Latin", u"Größe",
         "Gr\xC3\xB6\xC3\x9F"
         "e",
         true},
        {"ThreeBytes", u"\u20AC", "\xE2\x82\xAC", true},
        {"SurrogatePair", u"\U0001F600", "\xF0\x9F\x98\x80", true},
        {"LoneHighSurrogate", std::u16string(1, char16_t(0xD800)) + u"a",
         "\xEF\xBF\xBD"
         "a",
         false},
        {"LoneLowSurrogate", std::u16string(1, char16_t(0xDC00)), "\xEF\xBF\xBD", false},
        {"Empty", u"", "", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(host::toUtf8(row.wide), row.narrow);
        if (row.roundTrips) {
            EXPECT_EQ(host::toUtf16(row.narrow), row.wide);
        }
    }
    EXPECT_EQ(host::toUtf8(static_cast<const char16_t*>(nullptr)), "");
}

TEST(HostTextTest, MalformedUtf8BecomesReplacementCharacters) {
    struct Row {
        const char* name;
        std::string narrow;
        std::u16string wide;
    };
    const Row rows[] = {
        {"StrayContinuation",
         "a\x80"
         "b",
         u"a\uFFFDb"},
        {"TruncatedSequence", "a\xE2\x82", u"a\uFFFD\uFFFD"},
        {"Overlong", "\xC0\xAF", u"\uFFFD\uFFFD"},
        {"EncodedSurrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(host::toUtf16(row.narrow), row.wide);
    }
}

}  // namespace
