// The table of ill-formed (and just-well-formed) UTF-8 and UTF-16 that every
// conversion of the product is held to: the simulated machine's, the os::
// code-page functions, the host's, the driver's and the wide formatter's.
// One U+FFFD replaces each maximal subpart (sim/text.h explains the rule).
#ifndef TESTS_SUPPORT_TEXT_CASES_H_
#define TESTS_SUPPORT_TEXT_CASES_H_

#include <string>
#include <vector>

namespace testsupport {

struct Utf8Case {
    const char* name;
    std::string bytes;
    std::u16string units;  // what a replacing conversion gives
    bool wellFormed;       // a strict conversion accepts it (and gives `units`)
};

inline const std::vector<Utf8Case>& utf8Cases() {
    static const std::vector<Utf8Case> cases = {
        // clang-format off
        {"Ascii",                    "C:\\cache",                  u"C:\\cache",              true},
        {"TwoBytes",                 "\xC3\xA9",                   u"\u00E9",                 true},
        {"ThreeBytes",               "\xE2\x82\xAC",               u"\u20AC",                 true},
        {"LastBeforeSurrogates",     "\xED\x9F\xBF",               u"\uD7FF",                 true},
        {"FirstAfterSurrogates",     "\xEE\x80\x80",               u"\uE000",                 true},
        {"LastOfBasicPlane",         "\xEF\xBF\xBF",               u"\uFFFF",                 true},
        {"FourBytes",                "\xF0\x9F\x98\x80",           u"\U0001F600",             true},
        {"HighestCodePoint",         "\xF4\x8F\xBF\xBF",           u"\U0010FFFF",             true},
        {"LoneContinuation",         "a\x80z",                     u"a\uFFFDz",               false},
        {"TwoContinuations",         "\x80\xBF",                   u"\uFFFD\uFFFD",           false},
        {"OverlongC0",               "\xC0\xAF",                   u"\uFFFD\uFFFD",           false},
        {"OverlongC1",               "\xC1\xBF",                   u"\uFFFD\uFFFD",           false},
        {"OverlongThreeBytes",       "\xE0\x80\xAF",               u"\uFFFD\uFFFD\uFFFD",     false},
        {"OverlongThreeBytesHigh",   "\xE0\x9F\xBF",               u"\uFFFD\uFFFD\uFFFD",     false},
        {"OverlongFourBytes",        "\xF0\x8F\xBF\xBF",           u"\uFFFD\uFFFD\uFFFD\uFFFD", false},
        {"TwoBytesCutByAscii",       "\xC2\x41",                   u"\uFFFDA",                false},
        {"TwoBytesCutByEnd",         "a\xC2",                      u"a\uFFFD",                false},
        {"ThreeBytesCutByAscii",     "\xE2\x82\x41",               u"\uFFFDA",                false},
        {"ThreeBytesCutByEnd",       "a\xE2\x82",                  u"a\uFFFD",                false},
        {"ThreeBytesCutByLead",      "\xE1\x80\xE2\x82\xAC",       u"\uFFFD\u20AC",           false},
        {"FourBytesCutByAscii",      "\xF0\x9F\x98\x41",           u"\uFFFDA",                false},
        {"FourBytesCutByEnd",        "\xF0\x9F\x98",               u"\uFFFD",                 false},
        {"EncodedHighSurrogate",     "\xED\xA0\x80\x41",           u"\uFFFD\uFFFD\uFFFDA",    false},
        {"EncodedLowSurrogate",      "\xED\xBF\xBF",               u"\uFFFD\uFFFD\uFFFD",     false},
        {"AboveHighestCodePoint",    "\xF4\x90\x80\x80",           u"\uFFFD\uFFFD\uFFFD\uFFFD", false},
        {"LeadF5",                   "\xF5\x80\x80\x80",           u"\uFFFD\uFFFD\uFFFD\uFFFD", false},
        {"OldFiveByteForm",          "\xF8\x88\x80\x80\x80",       u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD", false},
        {"ByteFE",                   "\xFE",                       u"\uFFFD",                 false},
        {"ByteFF",                   "\xFF",                       u"\uFFFD",                 false},
        // clang-format on
    };
    return cases;
}

struct Utf16Case {
    const char* name;
    std::u16string units;
    std::string bytes;  // what a replacing conversion gives
    bool wellFormed;
};

inline const std::vector<Utf16Case>& utf16Cases() {
    static const std::vector<Utf16Case> cases = {
        // clang-format off
        {"Ascii",            u"C:\\cache",                                        "C:\\cache",                  true},
        {"Latin",            u"Gr\u00F6\u00DFe",                                  "Gr\xC3\xB6\xC3\x9F" "e",     true},
        {"SurrogatePair",    u"\U0001F600",                                       "\xF0\x9F\x98\x80",           true},
        {"LoneHigh",         std::u16string{u'a', char16_t(0xD800), u'b'},        "a\xEF\xBF\xBD" "b",          false},
        {"LoneHighAtEnd",    std::u16string{u'a', char16_t(0xDBFF)},              "a\xEF\xBF\xBD",              false},
        {"LoneLow",          std::u16string{char16_t(0xDC00)},                    "\xEF\xBF\xBD",               false},
        {"ReversedPair",     std::u16string{char16_t(0xDC00), char16_t(0xD800)},  "\xEF\xBF\xBD\xEF\xBF\xBD",   false},
        {"TwoHighsThenLow",  std::u16string{char16_t(0xD800), char16_t(0xD83D), char16_t(0xDE00)},
                                                                                  "\xEF\xBF\xBD\xF0\x9F\x98\x80", false},
        // clang-format on
    };
    return cases;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_TEXT_CASES_H_
