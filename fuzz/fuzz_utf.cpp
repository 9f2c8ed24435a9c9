// Fuzzes UTF-8 <-> UTF-16 conversion along every road text takes: the
// plug-in's toWide/toNarrow over os::MultiByteToWideChar and
// os::WideCharToMultiByte, the Linux side's sim::fromUtf8/toUtf8, and the
// strict forms. The input is read both as UTF-8 bytes and as UTF-16 units.
// Checks:
//   - every road gives the same answer, and it is ICU's (which replaces
//     ill-formed UTF-8 by maximal subparts too);
//   - a size query gives the size the conversion then writes;
//   - the output is well-formed whatever the input;
//   - well-formed input survives a round trip exactly, and input survives
//     one exactly only when it is well-formed (the strict forms agree);
//   - UTF-16 keeps its length: each unpaired surrogate, and nothing else,
//     becomes U+FFFD.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <unicode/ustring.h>

#include "fuzz_support.h"
#include "os/codepage.h"
#include "os/error.h"
#include "sim/text.h"
#include "string_helper.h"

namespace {

using fuzzsupport::check;

bool isHighSurrogate(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// `text` with each surrogate that is not part of a pair replaced, written
// here from the definition rather than taken from the code under test.
std::u16string pairedOnly(std::u16string_view text) {
    std::u16string result(text);
    for (std::size_t i = 0; i < result.size(); ++i) {
        if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            ++i;
        } else if (isHighSurrogate(text[i]) || isLowSurrogate(text[i])) {
            result[i] = 0xFFFD;
        }
    }
    return result;
}

bool wellFormedUtf16(std::u16string_view text) {
    return pairedOnly(text) == text;
}

// ICU's conversion of UTF-8 with U+FFFD substitution.
std::u16string icuFromUtf8(std::string_view bytes) {
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    u_strFromUTF8WithSub(nullptr, 0, &length, bytes.data(), static_cast<std::int32_t>(bytes.size()),
                         0xFFFD, nullptr, &status);
    check(status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status), "ICU measures the text");
    std::u16string result(static_cast<std::size_t>(length), u'\0');
    status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(result.data(), length, &length, bytes.data(),
                         static_cast<std::int32_t>(bytes.size()), 0xFFFD, nullptr, &status);
    check(U_SUCCESS(status), "ICU converts the text");
    return result;
}

// os::MultiByteToWideChar, asked for the size first; `failed` receives the
// last error when the conversion refused the text.
std::u16string apiFromUtf8(std::string_view bytes, os::DWORD flags, os::DWORD* failed) {
    *failed = 0;
    if (bytes.empty()) {
        return {};
    }
    const int count = static_cast<int>(bytes.size());
    const int needed = os::MultiByteToWideChar(os::CP_UTF8, flags, bytes.data(), count, nullptr, 0);
    if (needed == 0) {
        *failed = os::GetLastError();
        return {};
    }
    std::u16string result(static_cast<std::size_t>(needed), u'\0');
    check(os::MultiByteToWideChar(os::CP_UTF8, flags, bytes.data(), count, result.data(), needed) ==
              needed,
          "MultiByteToWideChar writes the size it asked for");
    if (needed > 1) {
        // One unit short: refused, and nothing written past the stated size.
        std::u16string shorter(static_cast<std::size_t>(needed), u'\x2A');
        os::SetLastError(0);
        check(os::MultiByteToWideChar(os::CP_UTF8, flags, bytes.data(), count, shorter.data(),
                                      needed - 1) == 0 &&
                  os::GetLastError() == os::ERROR_INSUFFICIENT_BUFFER,
              "MultiByteToWideChar refuses a buffer one unit short");
        check(shorter.back() == u'\x2A', "MultiByteToWideChar writes within the stated size");
    }
    return result;
}

std::string apiToUtf8(std::u16string_view units, os::DWORD flags, os::DWORD* failed) {
    *failed = 0;
    if (units.empty()) {
        return {};
    }
    const int count = static_cast<int>(units.size());
    const int needed = os::WideCharToMultiByte(os::CP_UTF8, flags, units.data(), count, nullptr, 0,
                                               nullptr, nullptr);
    if (needed == 0) {
        *failed = os::GetLastError();
        return {};
    }
    std::string result(static_cast<std::size_t>(needed), '\0');
    check(os::WideCharToMultiByte(os::CP_UTF8, flags, units.data(), count, result.data(), needed,
                                  nullptr, nullptr) == needed,
          "WideCharToMultiByte writes the size it asked for");
    return result;
}

void checkUtf8Input(std::string_view bytes) {
    const std::u16string expected = icuFromUtf8(bytes);
    os::DWORD failed = 0;
    check(apiFromUtf8(bytes, 0, &failed) == expected && failed == 0,
          "MultiByteToWideChar agrees with ICU");
    check(sim::fromUtf8(bytes) == expected, "sim::fromUtf8 agrees with ICU");
    check(toWide(bytes, os::CP_UTF8) == expected, "toWide agrees with ICU");
    check(wellFormedUtf16(expected), "UTF-8 converts to well-formed UTF-16");
    check(expected.size() <= bytes.size(), "no byte gives more than one unit");

    const std::string back = sim::toUtf8(expected);
    check(toNarrow(expected, os::CP_UTF8) == back, "toNarrow agrees with sim::toUtf8");
    const bool wellFormed = back == bytes;
    std::u16string strict;
    check(sim::fromUtf8Strict(bytes, &strict) == wellFormed,
          "the strict conversion accepts exactly what round-trips");
    check(strict == (wellFormed ? expected : u""), "the strict conversion gives the same text");
    const std::u16string checked = apiFromUtf8(bytes, os::MB_ERR_INVALID_CHARS, &failed);
    check(wellFormed ? checked == expected && failed == 0
                     : bytes.empty() || failed == os::ERROR_NO_UNICODE_TRANSLATION,
          "MB_ERR_INVALID_CHARS refuses exactly what does not round-trip");
    // Once replaced, a text is well-formed and round-trips.
    check(sim::fromUtf8(back) == expected, "replaced text round-trips");
}

void checkUtf16Input(std::u16string_view units) {
    os::DWORD failed = 0;
    const std::string bytes = apiToUtf8(units, 0, &failed);
    check(failed == 0, "WideCharToMultiByte converts any text");
    check(sim::toUtf8(units) == bytes, "sim::toUtf8 agrees with WideCharToMultiByte");
    check(toNarrow(units, os::CP_UTF8) == bytes, "toNarrow agrees with WideCharToMultiByte");
    std::u16string back;
    check(sim::fromUtf8Strict(bytes, &back), "UTF-16 converts to well-formed UTF-8");
    check(back == pairedOnly(units), "only unpaired surrogates are replaced");
    const bool wellFormed = wellFormedUtf16(units);
    const std::string checked = apiToUtf8(units, os::WC_ERR_INVALID_CHARS, &failed);
    check(wellFormed ? checked == bytes && failed == 0
                     : units.empty() || failed == os::ERROR_NO_UNICODE_TRANSLATION,
          "WC_ERR_INVALID_CHARS refuses exactly the unpaired surrogates");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    checkUtf8Input(bytes);
    std::u16string units(size / 2, u'\0');
    for (std::size_t i = 0; i < units.size(); ++i) {
        units[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
    }
    checkUtf16Input(units);
    return 0;
}
