// The wide formatter against what the Windows wide CRT prints, and the
// counted formatter's buffer rules.
#include "strings/wide_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "support/text_cases.h"
#include "support/wide_text.h"

namespace {

std::u16string format(const char16_t* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    std::u16string text = strings::formatWide(pattern, arguments);
    va_end(arguments);
    return text;
}

int counted(char16_t* buffer, std::size_t count, const char16_t* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    int result = strings::countedFormatWide(buffer, count, pattern, arguments);
    va_end(arguments);
    return result;
}

struct Row {
    const char* name;
    std::u16string actual;
    std::u16string expected;
};

void checkRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.actual, row.expected) << "got \"" << testsupport::utf8(row.actual) << "\"";
    }
}

TEST(WideFormatTest, Integers) {
    // clang-format off
    checkRows({
        {"i conversion", format(u"%i", -42), u"-42"},
        {"int minimum", format(u"%d", INT_MIN), u"-2147483648"},
        {"width", format(u"[%5d]", 42), u"[   42]"},
        {"left", format(u"[%-5d]", 42), u"[42   ]"},
        {"zero pad", format(u"[%05d]", -42), u"[-0042]"},
        {"plus", format(u"%+d %+d", 5, -5), u"+5 -5"},
        {"space", format(u"[% d]", 5), u"[ 5]"},
        {"precision", format(u"[%.3d]", 7), u"[007]"},
        {"precision beats zero flag", format(u"[%06.3d]", 7), u"[   007]"},
        {"zero with precision zero", format(u"[%.0d]", 0), u"[]"},
        {"star width", format(u"[%*d]", 4, 1), u"[   1]"},
        {"negative star width left-justifies", format(u"[%*d]", -4, 1), u"[1   ]"},
        {"star precision", format(u"[%.*d]", 3, 1), u"[001]"},
        {"negative star precision is none", format(u"[%.*d]", -3, 1), u"[1]"},
        {"unsigned", format(u"%u", 4294967295u), u"4294967295"},
        {"hex", format(u"%x %X", 0xbeefu, 0xbeefu), u"beef BEEF"},
        {"alternate hex", format(u"%#x %#X %#x", 255u, 255u, 0u), u"0xff 0XFF 0"},
        {"octal", format(u"%o %#o %#o", 8u, 8u, 0u), u"10 010 0"},
        {"zero padded alternate hex", format(u"%#08x", 255u), u"0x0000ff"},
        {"short", format(u"%hd %hu", 70000, 70000), u"4464 4464"},
        {"char", format(u"%hhd %hhu", 300, 300), u"44 44"},
        {"64-bit", format(u"%lld %llu", -9000000000ll, 18446744073709551615ull), u"-9000000000 18446744073709551615"},
        {"I64", format(u"%I64u %I64d", 9000000000ull, -9000000000ll), u"9000000000 -9000000000"},
        {"I32", format(u"%I32u", 4000000000u), u"4000000000"},
        {"pointer-sized", format(u"%Iu %zu %zd %td %ju", std::size_t{1} << 40, std::size_t{1} << 40, std::ptrdiff_t{-1}, std::ptrdiff_t{7}, std::uintmax_t{1} << 33), u"1099511627776 1099511627776 -1 7 8589934592"},
        // long is 32 bits on Windows, so %lu and %ld read a 32-bit argument.
        {"lu", format(u"%lu", 4294967295u), u"4294967295"},
        {"ld", format(u"%ld", -5), u"-5"},
        {"lu then string", format(u"%lu|%s", 7u, u"next"), u"7|next"},
    });
    // clang-format on
}

// Texts without a terminator: a precision must keep the formatter inside them.
const char kUnterminated[3] = {'x', 'y', 'z'};
const char16_t kUnterminatedWide[2] = {u'u', u'v'};

TEST(WideFormatTest, StringsAndCharacters) {
    const char16_t astral[] = {u'[', 0xD83D, 0xDE00, u']', 0};
    // clang-format off
    checkRows({
        {"wide", format(u"%s", u"wide"), u"wide"},
        {"wide l", format(u"%ls", u"wide"), u"wide"},
        {"wide w", format(u"%ws", u"wide"), u"wide"},
        {"narrow h", format(u"%hs", "narrow"), u"narrow"},
        {"narrow S", format(u"%S", "narrow"), u"narrow"},
        {"wide lS", format(u"%lS", u"wide"), u"wide"},
        {"wide astral passes through", format(u"%s", astral), astral},
        {"width", format(u"[%6s]", u"ab"), u"[    ab]"},
        {"left", format(u"[%-6s]", u"ab"), u"[ab    ]"},
        {"narrow precision on unterminated text", format(u"[%.3hs]", kUnterminated), u"[xyz]"},
        {"wide precision on unterminated text", format(u"[%.2s]", kUnterminatedWide), u"[uv]"},
        {"zero flag pads strings with zeros", format(u"[%05s]", u"ab"), u"[000ab]"},
        {"null wide", format(u"%s", static_cast<const char16_t*>(nullptr)), u"(null)"},
        {"null narrow", format(u"%hs", static_cast<const char*>(nullptr)), u"(null)"},
        {"percent in argument stays", format(u"%s", u"100% sure %d"), u"100% sure %d"},
        {"wide char", format(u"%c%c", u'x', 0x00E9), u"x\u00E9"},
        {"narrow char", format(u"%hc%C", 'y', 'z'), u"yz"},
        {"char width", format(u"[%3c]", u'q'), u"[  q]"},
        {"percent", format(u"100%%"), u"100%"},
        // A precision on narrow text counts its bytes; a character cut by it
        // is ill-formed.
        {"whole character", format(u"[%.5hs]", "caf\xC3\xA9!"), u"[caf\u00E9]"},
        {"character cut", format(u"[%.4hs]", "caf\xC3\xA9!"), u"[caf\uFFFD]"},
        {"padded after conversion", format(u"[%3.2hs]", "\xC3\xA9\xC3\xA9"), u"[  \u00E9]"},
        {"zero precision", format(u"[%.0hs]", "abc"), u"[]"},
    });
    // clang-format on
}

// %hs converts as every other conversion does, ill-formed bytes included.
TEST(WideFormatTest, NarrowTextFollowsTheConversionTable) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(format(u"%hs", row.bytes.c_str()), row.units);
    }
}

TEST(WideFormatTest, PointersFloatingPointAndOddFormats) {
    // clang-format off
    checkRows({
        {"pointer", format(u"%p", reinterpret_cast<void*>(0x12FF7C)), u"000000000012FF7C"},
        {"null pointer", format(u"%p", static_cast<void*>(nullptr)), u"0000000000000000"},
        {"fixed precision", format(u"%.2f", 2.675), u"2.67"},
        {"fixed width", format(u"[%8.3f]", -3.14159), u"[  -3.142]"},
        {"exponent", format(u"%e", 1234.5), u"1.234500e+03"},
        {"exponent upper", format(u"%.1E", 0.00012), u"1.2E-04"},
        {"general", format(u"%g %g", 0.0001, 1e20), u"0.0001 1e+20"},
        {"general upper", format(u"%G", 1e-10), u"1E-10"},
        {"hex float", format(u"%a", 1.0), u"0x1.0000000000000p+0"},
        {"hex float precision", format(u"%.1a", 1.5), u"0x1.8p+0"},
        {"star width and precision", format(u"[%*.*f]", 7, 2, 3.14159), u"[   3.14]"},
        {"plus", format(u"%+.1f", 2.0), u"+2.0"},
        {"long double", format(u"%.1Lf|%d", 2.5L, 3), u"2.5|3"},
        // Odd formats are written as they stand.
        {"unknown conversion", format(u"a%qb"), u"a%qb"},
        {"n is not supported", format(u"a%nb"), u"a%nb"},
        {"trailing percent", format(u"50%"), u"50%"},
        {"empty", format(u""), u""},
    });
    // clang-format on
}

// Five units of room; nothing is written past them.
TEST(CountedFormatWideTest, WindowsBufferRules) {
    struct Row {
        const char* name;
        const char16_t* text;
        int expectedResult;
        std::u16string expectedUnits;  // what the buffer holds, terminator included if any
    };
    // clang-format off
    const Row rows[] = {
        {"ShorterIsTerminated",       u"abc",          3,  std::u16string(u"abc\0", 4)},
        {"ExactFillHasNoTerminator",  u"abcde",        5,  u"abcde"},
        {"OneOverGivesMinusOne",      u"abcdef",       -1, u"abcde"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::u16string buffer(8, char16_t{0x1111});
        EXPECT_EQ(counted(buffer.data(), 5, u"%s", row.text), row.expectedResult);
        const std::u16string untouched(8 - row.expectedUnits.size(), char16_t{0x1111});
        EXPECT_EQ(buffer, row.expectedUnits + untouched);
    }
}

}  // namespace
