#include "support/wide_text.h"

#include <cstdint>

#include <unicode/unistr.h>

namespace testsupport {

std::string utf8(std::u16string_view text) {
    std::string narrow;
    icu::UnicodeString(text.data(), static_cast<std::int32_t>(text.size())).toUTF8String(narrow);
    return narrow;
}

std::u16string utf16(std::string_view text) {
    const icu::UnicodeString wide = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
    return {wide.getBuffer(), static_cast<std::size_t>(wide.length())};
}

}  // namespace testsupport
