// UTF-8 <-> UTF-16 conversion with the Windows rules: argument checks, size
// queries, short buffers and the terminator. Ill-formed input is the table of
// support/text_cases.h, run through these functions by text_test.cpp.
#include "os/codepage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/error.h"

namespace {

constexpr os::DWORD kUntouched = 0xDEADBEEF;
constexpr os::UINT kUtf8 = os::CP_UTF8;
constexpr os::UINT kWestern = 1252;

TEST(MultiByteToWideCharTest, Table) {
    struct Row {
        const char* name;
        os::UINT codePage;
        const char* bytes;
        int byteCount;  // -1: up to and including the terminator
        os::DWORD flags;
        int outputCount;  // 0: a size query without output buffer
        int result;
        os::DWORD error;  // kUntouched on success
        std::u16string units;
    };
    // clang-format off
    const Row rows[] = {
        {"NullInput",                 kUtf8,    nullptr,            3,  0,   8,  0,  os::ERROR_INVALID_PARAMETER,   u""},
        {"ZeroCount",                 kUtf8,    "abc",              0,  0,   8,  0,  os::ERROR_INVALID_PARAMETER,   u""},
        {"NegativeOutputCount",       kUtf8,    "abc",              3,  0,   -1, 0,  os::ERROR_INVALID_PARAMETER,   u""},
        {"OtherCodePage",             kWestern, "abc",              3,  0,   8,  0,  os::ERROR_INVALID_PARAMETER,   u""},
        {"UnknownFlag",               kUtf8,    "abc",              3,  0x1, 8,  0,  os::ERROR_INVALID_FLAGS,       u""},
        {"OneShort",                  kUtf8,    "abc",              3,  0,   2,  0,  os::ERROR_INSUFFICIENT_BUFFER, u""},
        {"AstralDoesNotFitOneUnit",   kUtf8,    "\xF0\x9F\x98\x80", 4,  0,   1,  0,  os::ERROR_INSUFFICIENT_BUFFER, u""},
        {"ExactFit",                  kUtf8,    "abc",              3,  0,   3,  3,  kUntouched,                    u"abc"},
        {"TerminatorCountedWithMinus1", kUtf8,  "ab",               -1, 0,   8,  3,  kUntouched,                    std::u16string(u"ab\0", 3)},
        {"SizeQuery",                 kUtf8,    "\xC3\x85ngstr\xC3\xB6m \xF0\x9F\x98\x80", -1, 0, 0, 12, kUntouched, u""},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<char16_t> output(20, 0x1111);
        os::SetLastError(kUntouched);
        const int result =
            os::MultiByteToWideChar(row.codePage, row.flags, row.bytes, row.byteCount,
                                    row.outputCount ? output.data() : nullptr, row.outputCount);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(os::GetLastError(), row.error);
        if (row.outputCount > 0 && result > 0) {
            EXPECT_EQ(std::u16string(output.data(), static_cast<std::size_t>(result)), row.units);
        }
        for (std::size_t i = std::max(row.outputCount, 0); i < output.size(); ++i) {
            ASSERT_EQ(output[i], 0x1111) << "unit " << i << " written past the stated length";
        }
    }
}

TEST(WideCharToMultiByteTest, Table) {
    struct Row {
        const char* name;
        os::UINT codePage;
        const char16_t* units;
        int unitCount;  // -1: up to and including the terminator
        os::DWORD flags;
        int outputCount;   // 0: a size query without output buffer
        bool defaultChar;  // passes a default character
        bool usedDefault;  // asks whether it was used
        int result;
        os::DWORD error;  // kUntouched on success
        std::string bytes;
    };
    // clang-format off
    const Row rows[] = {
        {"NullInput",                   kUtf8,    nullptr,               3,  0,     0, false, false, 0,  os::ERROR_INVALID_PARAMETER,   ""},
        {"ZeroCount",                   kUtf8,    u"abc",                0,  0,     8, false, false, 0,  os::ERROR_INVALID_PARAMETER,   ""},
        {"OtherCodePage",               kWestern, u"abc",                3,  0,     0, false, false, 0,  os::ERROR_INVALID_PARAMETER,   ""},
        {"DefaultCharacterForUtf8",     kUtf8,    u"a",                  1,  0,     8, true,  false, 0,  os::ERROR_INVALID_PARAMETER,   ""},
        {"UsedDefaultForUtf8",          kUtf8,    u"a",                  1,  0,     8, false, true,  0,  os::ERROR_INVALID_PARAMETER,   ""},
        {"UnknownFlag",                 kUtf8,    u"abc",                3,  0x400, 8, false, false, 0,  os::ERROR_INVALID_FLAGS,       ""},
        {"OneShort",                    kUtf8,    u"\u00E9",             1,  0,     1, false, false, 0,  os::ERROR_INSUFFICIENT_BUFFER, ""},
        {"ExactFit",                    kUtf8,    u"\u00E9",             1,  0,     2, false, false, 2,  kUntouched,                    "\xC3\xA9"},
        {"TerminatorCountedWithMinus1", kUtf8,    u"ab",                 -1, 0,     8, false, false, 3,  kUntouched,                    std::string("ab\0", 3)},
        {"PairSplitByTheCount",         kUtf8,    u"\xD83D\xDE00",       1,  0,     8, false, false, 3,  kUntouched,                    "\xEF\xBF\xBD"},
        {"SizeQuery",                   kUtf8,    u"\u00C5ngstr\u00F6m", -1, 0,     0, false, false, 11, kUntouched,                    ""},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<char> output(20, 0x11);
        const char replacement = '?';
        os::BOOL used = os::FALSE;
        os::SetLastError(kUntouched);
        const int result = os::WideCharToMultiByte(
            row.codePage, row.flags, row.units, row.unitCount,
            row.outputCount ? output.data() : nullptr, row.outputCount,
            row.defaultChar ? &replacement : nullptr, row.usedDefault ? &used : nullptr);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(os::GetLastError(), row.error);
        if (row.outputCount > 0 && result > 0) {
            EXPECT_EQ(std::string(output.data(), static_cast<std::size_t>(result)), row.bytes);
        }
        for (std::size_t i = static_cast<std::size_t>(row.outputCount); i < output.size(); ++i) {
            ASSERT_EQ(output[i], 0x11) << "byte " << i << " written past the stated length";
        }
    }
}

}  // namespace
