// UTF-8 <-> UTF-16 conversion with the Windows rules: replacement of
// ill-formed input, the strict flags, size queries and short buffers.
#include "os/codepage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/error.h"

namespace {

constexpr os::DWORD kUntouched = 0xDEADBEEF;

struct ToWideRow {
    const char* name;
    std::string bytes;
    int byteCount;  // -1: up to and including the terminator
    os::DWORD flags;
    int outputCount;
    int expectedResult;
    os::DWORD expectedError;  // kUntouched on success
    std::u16string expectedUnits;
};

TEST(MultiByteToWideCharTest, Table) {
    const ToWideRow rows[] = {
        // Failures first: each with its own code.
        {"null input", "", 3, 0, 8, 0, os::ERROR_INVALID_PARAMETER, u""},
        {"zero count", "abc", 0, 0, 8, 0, os::ERROR_INVALID_PARAMETER, u""},
        {"negative output count", "abc", 3, 0, -1, 0, os::ERROR_INVALID_PARAMETER, u""},
        {"unknown flag", "abc", 3, 0x1, 8, 0, os::ERROR_INVALID_FLAGS, u""},
        {"one short", "abc", 3, 0, 2, 0, os::ERROR_INSUFFICIENT_BUFFER, u""},
        {"astral does not fit one unit", "\xF0\x9F\x98\x80", 4, 0, 1, 0,
         os::ERROR_INSUFFICIENT_BUFFER, u""},
        {"strict rejects lone continuation", "a\x80", 2, os::MB_ERR_INVALID_CHARS, 8, 0,
         os::ERROR_NO_UNICODE_TRANSLATION, u""},
        {"strict rejects overlong", "\xC0\xAF", 2, os::MB_ERR_INVALID_CHARS, 8, 0,
         os::ERROR_NO_UNICODE_TRANSLATION, u""},
        {"strict rejects truncated", "\xE2\x82", 2, os::MB_ERR_INVALID_CHARS, 8, 0,
         os::ERROR_NO_UNICODE_TRANSLATION, u""},
        // Working cases.
        {"ascii", "abc", 3, 0, 8, 3, kUntouched, u"abc"},
        {"exact fit", "abc", 3, 0, 3, 3, kUntouched, u"abc"},
        {"terminator counted with -1", "ab", -1, 0, 8, 3, kUntouched, std::u16string(u"ab\0", 3)},
        {"accented", "caf\xC3\xA9 na\xC3\xAFve", 12, 0, 16, 10, kUntouched,
         u"caf\u00E9 na\u00EFve"},
        {"three-byte", "\xE2\x82\xAC", 3, 0, 8, 1, kUntouched, u"\u20AC"},
        {"astral to surrogate pair", "\xF0\x9F\x98\x80", 4, 0, 8, 2, kUntouched,
         std::u16string{char16_t(0xD83D), char16_t(0xDE00)}},
        {"highest code point", "\xF4\x8F\xBF\xBF", 4, 0, 8, 2, kUntouched,
         std::u16string{char16_t(0xDBFF), char16_t(0xDFFF)}},
        {"strict accepts valid", "\xC3\xA9", 2, os::MB_ERR_INVALID_CHARS, 8, 1, kUntouched,
         u"\u00E9"},
        // Ill-formed input: the table in tests/support/text_cases.h, run by
        // tests/platform/text_test.cpp.
    };
    for (const ToWideRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<char16_t> output(20, 0x1111);
        const char* input = std::string(row.name) == "null input" ? nullptr : row.bytes.c_str();
        os::SetLastError(kUntouched);
        int result = os::MultiByteToWideChar(os::CP_UTF8, row.flags, input, row.byteCount,
                                             output.data(), row.outputCount);
        EXPECT_EQ(result, row.expectedResult);
        EXPECT_EQ(os::GetLastError(), row.expectedError);
        if (result > 0) {
            EXPECT_EQ(std::u16string(output.data(), static_cast<std::size_t>(result)),
                      row.expectedUnits);
        }
        std::size_t firstUnwritten = row.outputCount > 0 ? row.outputCount : 0;
        for (std::size_t i = firstUnwritten; i < output.size(); ++i) {
            ASSERT_EQ(output[i], 0x1111) << "unit " << i << " written past the stated length";
        }
    }
}

TEST(MultiByteToWideCharTest, SizeQueryMatchesConversion) {
    const char* text = "\xC3\x85ngstr\xC3\xB6m \xF0\x9F\x98\x80";
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::MultiByteToWideChar(os::CP_UTF8, 0, text, -1, nullptr, 0), 12);
    EXPECT_EQ(os::GetLastError(), kUntouched);
}

TEST(MultiByteToWideCharTest, OnlyUtf8IsSupported) {
    char16_t output[8];
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::MultiByteToWideChar(1252, 0, "abc", 3, output, 8), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

struct ToNarrowRow {
    const char* name;
    std::u16string units;
    int unitCount;
    os::DWORD flags;
    int outputCount;
    int expectedResult;
    os::DWORD expectedError;
    std::string expectedBytes;
};

TEST(WideCharToMultiByteTest, Table) {
    const char16_t highAlone = 0xD800;
    const char16_t lowAlone = 0xDC00;
    const ToNarrowRow rows[] = {
        {"zero count", u"abc", 0, 0, 8, 0, os::ERROR_INVALID_PARAMETER, ""},
        {"unknown flag", u"abc", 3, 0x400, 8, 0, os::ERROR_INVALID_FLAGS, ""},
        {"one short", u"\u00E9", 1, 0, 1, 0, os::ERROR_INSUFFICIENT_BUFFER, ""},
        {"strict rejects lone high", std::u16string{u'a', highAlone}, 2, os::WC_ERR_INVALID_CHARS,
         8, 0, os::ERROR_NO_UNICODE_TRANSLATION, ""},
        {"strict rejects lone low", std::u16string{lowAlone}, 1, os::WC_ERR_INVALID_CHARS, 8, 0,
         os::ERROR_NO_UNICODE_TRANSLATION, ""},
        {"ascii", u"abc", 3, 0, 8, 3, kUntouched, "abc"},
        {"exact fit", u"\u00E9", 1, 0, 2, 2, kUntouched, "\xC3\xA9"},
        {"terminator counted with -1", u"ab", -1, 0, 8, 3, kUntouched, std::string("ab\0", 3)},
        {"surrogate pair", std::u16string{char16_t(0xD83D), char16_t(0xDE00)}, 2, 0, 8, 4,
         kUntouched, "\xF0\x9F\x98\x80"},
        {"lone high", std::u16string{u'a', highAlone, u'b'}, 3, 0, 8, 5, kUntouched,
         "a\xEF\xBF\xBD"
         "b"},
        {"lone low", std::u16string{lowAlone}, 1, 0, 8, 3, kUntouched, "\xEF\xBF\xBD"},
        {"reversed pair", std::u16string{lowAlone, highAlone}, 2, 0, 8, 6, kUntouched,
         "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"pair split by the count", std::u16string{char16_t(0xD83D), char16_t(0xDE00)}, 1, 0, 8, 3,
         kUntouched, "\xEF\xBF\xBD"},
    };
    for (const ToNarrowRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<char> output(20, 0x11);
        os::SetLastError(kUntouched);
        int result =
            os::WideCharToMultiByte(os::CP_UTF8, row.flags, row.units.c_str(), row.unitCount,
                                    output.data(), row.outputCount, nullptr, nullptr);
        EXPECT_EQ(result, row.expectedResult);
        EXPECT_EQ(os::GetLastError(), row.expectedError);
        if (result > 0) {
            EXPECT_EQ(std::string(output.data(), static_cast<std::size_t>(result)),
                      row.expectedBytes);
        }
        for (std::size_t i = static_cast<std::size_t>(row.outputCount); i < output.size(); ++i) {
            ASSERT_EQ(output[i], 0x11) << "byte " << i << " written past the stated length";
        }
    }
}

TEST(WideCharToMultiByteTest, DefaultCharacterIsRefusedForUtf8) {
    char output[8];
    const char replacement = '?';
    os::BOOL used = os::FALSE;
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::WideCharToMultiByte(os::CP_UTF8, 0, u"a", 1, output, 8, &replacement, nullptr),
              0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::WideCharToMultiByte(os::CP_UTF8, 0, u"a", 1, output, 8, nullptr, &used), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

TEST(WideCharToMultiByteTest, SizeQueryAndOtherCodePages) {
    os::SetLastError(kUntouched);
    EXPECT_EQ(os::WideCharToMultiByte(os::CP_UTF8, 0, u"\u00C5ngstr\u00F6m", -1, nullptr, 0,
                                      nullptr, nullptr),
              11);
    EXPECT_EQ(os::GetLastError(), kUntouched);
    EXPECT_EQ(os::WideCharToMultiByte(1252, 0, u"abc", 3, nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(os::WideCharToMultiByte(os::CP_UTF8, 0, nullptr, 3, nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

}  // namespace
