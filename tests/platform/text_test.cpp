// The text module of the Linux side: the strict conversions on the table of
// ill-formed UTF-8 and UTF-16, the round trip of every scalar value, and the
// drive type names.
#include "sim/text.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "os/codepage.h"
#include "os/error.h"
#include "support/text_cases.h"

namespace {

constexpr os::DWORD kUntouched = 0xDEADBEEF;

// What a code-page conversion gives, asked for its size first as callers
// do: the output and the last error it left.
template <typename Output>
using Converted = std::pair<Output, os::DWORD>;

template <typename Output, typename Input, typename Call>
Converted<Output> converted(const Input& input, Call call) {
    os::SetLastError(kUntouched);
    const int count = static_cast<int>(input.size());
    Output output;
    const int needed = call(input.data(), count, nullptr, 0);
    if (needed > 0) {
        output.resize(static_cast<std::size_t>(needed));
        EXPECT_EQ(call(input.data(), count, output.data(), needed), needed);
    }
    return {output, os::GetLastError()};
}

Converted<std::u16string> toWide(const std::string& bytes, os::DWORD flags) {
    return converted<std::u16string>(
        bytes, [flags](const char* in, int count, char16_t* out, int size) {
            return os::MultiByteToWideChar(os::CP_UTF8, flags, in, count, out, size);
        });
}

Converted<std::string> toNarrow(const std::u16string& units, os::DWORD flags) {
    return converted<std::string>(units, [flags](const char16_t* in, int count, char* out,
                                                 int size) {
        return os::WideCharToMultiByte(os::CP_UTF8, flags, in, count, out, size, nullptr, nullptr);
    });
}

constexpr os::DWORD kRejected = os::ERROR_NO_UNICODE_TRANSLATION;

// The strict conversions refuse exactly the ill-formed rows of the shared
// table. The lenient ones are run through the table by the host's text, string
// helper and formatter tests, on these same functions.
TEST(TextTest, StrictConversionsRefuseTheIllFormedRows) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        SCOPED_TRACE(row.name);
        std::u16string strict = u"left over";
        EXPECT_EQ(sim::fromUtf8Strict(row.bytes, &strict), row.wellFormed);
        EXPECT_EQ(strict, row.wellFormed ? row.units : u"");
        EXPECT_EQ(toWide(row.bytes, os::MB_ERR_INVALID_CHARS),
                  row.wellFormed ? Converted<std::u16string>(row.units, kUntouched)
                                 : Converted<std::u16string>(u"", kRejected));
    }
    for (const testsupport::Utf16Case& row : testsupport::utf16Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(toNarrow(row.units, os::WC_ERR_INVALID_CHARS),
                  row.wellFormed ? Converted<std::string>(row.bytes, kUntouched)
                                 : Converted<std::string>("", kRejected));
    }
}

// Every scalar value survives UTF-8 and back, one at a time and all together.
TEST(TextTest, EveryScalarValueRoundTrips) {
    std::u16string all;
    for (char32_t value = 0; value <= 0x10FFFF; ++value) {
        if (value >= 0xD800 && value <= 0xDFFF) {
            continue;
        }
        char16_t units[2];
        all.append(units, sim::encodeUtf16(value, units));
        char bytes[4];
        const std::size_t length = sim::encodeUtf8(value, bytes);
        const sim::Decoded decoded = sim::decodeUtf8(std::string_view(bytes, length));
        if (!decoded.valid || decoded.value != value || decoded.length != length) {
            ADD_FAILURE() << "U+" << std::hex << static_cast<unsigned>(value) << " decodes as U+"
                          << static_cast<unsigned>(decoded.value);
            return;
        }
    }
    const std::string bytes = sim::toUtf8(all);
    std::u16string back;
    ASSERT_TRUE(sim::fromUtf8Strict(bytes, &back));
    EXPECT_TRUE(back == all);
}

// How the machine compares folder paths: trailing backslashes off, or one on.
TEST(TextTest, TrailingBackslashes) {
    // clang-format off
    const std::u16string_view rows[][3] = {  // path, without, with
        {u"",         u"",         u"\\"},
        {u"\\",       u"",         u"\\"},
        {u"C:",       u"C:",       u"C:\\"},
        {u"C:\\\\\\", u"C:",       u"C:\\\\\\"},
        {u"C:\\a\\b",  u"C:\\a\\b",  u"C:\\a\\b\\"},
    };
    // clang-format on
    for (const auto& [path, without, with] : rows) {
        SCOPED_TRACE(sim::toUtf8(path));
        EXPECT_EQ(sim::withoutTrailingBackslashes(path), without);
        EXPECT_EQ(sim::withTrailingBackslash(path), with);
        EXPECT_EQ(sim::withoutTrailingBackslashes(sim::toUtf8(path)), sim::toUtf8(without));
    }
}

// The names the machine file accepts are the names the tools print.
TEST(TextTest, DriveTypeNamesReadBackAsTheirValues) {
    for (std::uint32_t type : {0u, 2u, 3u, 4u, 5u, 6u}) {
        EXPECT_EQ(sim::driveTypeFromName(sim::driveTypeName(type)), type);
    }
    EXPECT_EQ(sim::driveTypeFromName(sim::driveTypeName(1)), std::nullopt)
        << "a volume needs a root";
    EXPECT_EQ(sim::driveTypeFromName("CdRom"), 5u);
    EXPECT_STREQ(sim::driveTypeName(7), "unknown");
}

}  // namespace
