// The text module of the Linux side: the table of ill-formed UTF-8 and UTF-16
// through every entry (the module itself and the os:: code-page functions on
// it), the round trip of every scalar value, and the small helpers.
#include "sim/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/codepage.h"
#include "os/error.h"
#include "support/text_cases.h"

namespace {

constexpr os::DWORD kUntouched = 0xDEADBEEF;

// The UTF-16 that os::MultiByteToWideChar gives for `bytes` with `flags`, or
// the error it set.
struct ApiResult {
    std::u16string units;
    os::DWORD error = kUntouched;
};

ApiResult multiByteToWide(const std::string& bytes, os::DWORD flags) {
    ApiResult result;
    os::SetLastError(kUntouched);
    const int count = static_cast<int>(bytes.size());
    const int needed = os::MultiByteToWideChar(os::CP_UTF8, flags, bytes.data(), count, nullptr, 0);
    if (needed == 0) {
        result.error = os::GetLastError();
        return result;
    }
    result.units.resize(static_cast<std::size_t>(needed));
    EXPECT_EQ(os::MultiByteToWideChar(os::CP_UTF8, flags, bytes.data(), count, result.units.data(),
                                      needed),
              needed);
    result.error = os::GetLastError();
    return result;
}

ApiResult wideToMultiByte(const std::u16string& units, os::DWORD flags, std::string* bytes) {
    ApiResult result;
    os::SetLastError(kUntouched);
    const int count = static_cast<int>(units.size());
    const int needed = os::WideCharToMultiByte(os::CP_UTF8, flags, units.data(), count, nullptr, 0,
                                               nullptr, nullptr);
    if (needed == 0) {
        result.error = os::GetLastError();
        return result;
    }
    bytes->resize(static_cast<std::size_t>(needed));
    EXPECT_EQ(os::WideCharToMultiByte(os::CP_UTF8, flags, units.data(), count, bytes->data(),
                                      needed, nullptr, nullptr),
              needed);
    result.error = os::GetLastError();
    return result;
}

TEST(TextTest, Utf8ToUtf16FollowsTheTable) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(sim::fromUtf8(row.bytes), row.units);

        std::u16string strict = u"left over";
        EXPECT_EQ(sim::fromUtf8Strict(row.bytes, &strict), row.wellFormed);
        EXPECT_EQ(strict, row.wellFormed ? row.units : u"");

        const ApiResult replaced = multiByteToWide(row.bytes, 0);
        EXPECT_EQ(replaced.units, row.units);
        EXPECT_EQ(replaced.error, kUntouched);

        const ApiResult checked = multiByteToWide(row.bytes, os::MB_ERR_INVALID_CHARS);
        EXPECT_EQ(checked.units, row.wellFormed ? row.units : u"");
        EXPECT_EQ(checked.error,
                  row.wellFormed ? kUntouched : os::DWORD{os::ERROR_NO_UNICODE_TRANSLATION});

        if (row.wellFormed) {
            EXPECT_EQ(sim::toUtf8(row.units), row.bytes);
        }
    }
}

TEST(TextTest, Utf16ToUtf8FollowsTheTable) {
    for (const testsupport::Utf16Case& row : testsupport::utf16Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(sim::toUtf8(row.units), row.bytes);

        std::string bytes;
        const ApiResult replaced = wideToMultiByte(row.units, 0, &bytes);
        EXPECT_EQ(bytes, row.bytes);
        EXPECT_EQ(replaced.error, kUntouched);

        bytes.clear();
        const ApiResult checked = wideToMultiByte(row.units, os::WC_ERR_INVALID_CHARS, &bytes);
        EXPECT_EQ(bytes, row.wellFormed ? row.bytes : "");
        EXPECT_EQ(checked.error,
                  row.wellFormed ? kUntouched : os::DWORD{os::ERROR_NO_UNICODE_TRANSLATION});

        if (row.wellFormed) {
            EXPECT_EQ(sim::fromUtf8(row.bytes), row.units);
        }
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

TEST(TextTest, LowerAsciiChangesOnlyAsciiLetters) {
    EXPECT_EQ(sim::lowerAscii(std::string_view("\\\\?\\Volume{ABCdef}\\\xC3\x84Z")),
              "\\\\?\\volume{abcdef}\\\xC3\x84z");
    EXPECT_EQ(sim::lowerAscii(std::u16string_view(u"PIPE\\\u00C4\u0416@[`{")),
              u"pipe\\\u00C4\u0416@[`{");
}

TEST(TextTest, TrailingBackslashes) {
    struct Row {
        std::u16string_view path;
        std::u16string_view without;
        std::u16string_view with;
    };
    const Row rows[] = {
        // clang-format off
        {u"",          u"",      u"\\"},
        {u"\\",        u"",      u"\\"},
        {u"C:",        u"C:",    u"C:\\"},
        {u"C:\\",      u"C:",    u"C:\\"},
        {u"C:\\\\\\",  u"C:",    u"C:\\\\\\"},
        {u"C:\\a\\b",  u"C:\\a\\b", u"C:\\a\\b\\"},
        // clang-format on
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(sim::toUtf8(row.path));
        EXPECT_EQ(sim::withoutTrailingBackslashes(row.path), row.without);
        EXPECT_EQ(sim::withTrailingBackslash(row.path), row.with);
        EXPECT_EQ(sim::withoutTrailingBackslashes(sim::toUtf8(row.path)), sim::toUtf8(row.without));
    }
}

// The names the machine file accepts are the names the tools print.
TEST(TextTest, DriveTypeNamesReadBackAsTheirValues) {
    for (std::uint32_t type = 0; type <= 6; ++type) {
        SCOPED_TRACE(type);
        const std::optional<std::uint32_t> back = sim::driveTypeFromName(sim::driveTypeName(type));
        if (type == 1) {
            EXPECT_FALSE(back.has_value()) << "a volume cannot be \"no root\"";
        } else {
            EXPECT_EQ(back, type);
        }
    }
    EXPECT_EQ(sim::driveTypeFromName("CdRom"), 5u);
    EXPECT_EQ(sim::driveTypeFromName("fixed "), std::nullopt);
    EXPECT_STREQ(sim::driveTypeName(7), "unknown");
}

}  // namespace
