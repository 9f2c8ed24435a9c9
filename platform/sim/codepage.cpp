// UTF-8 <-> UTF-16 conversion with the Windows rules for CP_UTF8: ill-formed
// input becomes U+FFFD (one per maximal ill-formed subsequence) or, with the
// error flag, fails with ERROR_NO_UNICODE_TRANSLATION; a count of -1 includes
// the terminator; an output size of 0 asks for the size needed.
#include "os/codepage.h"

#include <string>

#include "os/error.h"
#include "sim/errors.h"

namespace os {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one UTF-8 sequence of text[at..end); returns the code point, or
// U+FFFD with *invalid set when the bytes from `at` are ill-formed. Advances
// `at` past the maximal subpart used, so each bad subpart costs one U+FFFD.
char32_t decodeUtf8(const unsigned char* text, std::size_t end, std::size_t& at, bool* invalid) {
    unsigned char lead = text[at++];
    *invalid = false;
    if (lead < 0x80) {
        return lead;
    }
    int more = 0;
    char32_t value = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2;
        value = lead & 0x0F;
        if (lead == 0xE0) {
            low = 0xA0;  // overlong below U+0800
        } else if (lead == 0xED) {
            high = 0x9F;  // surrogates D800..DFFF
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3;
        value = lead & 0x07;
        if (lead == 0xF0) {
            low = 0x90;  // overlong below U+10000
        } else if (lead == 0xF4) {
            high = 0x8F;  // above U+10FFFF
        }
    } else {
        *invalid = true;  // C0, C1 (always overlong), F5..FF, lone continuation bytes
        return kReplacement;
    }
    for (int i = 0; i < more; ++i) {
        if (at >= end || text[at] < low || text[at] > high) {
            *invalid = true;
            return kReplacement;
        }
        value = (value << 6) | (text[at] & 0x3F);
        ++at;
        low = 0x80;
        high = 0xBF;
    }
    return value;
}

std::size_t utf8Length(char32_t value) {
    if (value < 0x80) {
        return 1;
    }
    if (value < 0x800) {
        return 2;
    }
    return value < 0x10000 ? 3 : 4;
}

void encodeUtf8(char32_t value, char* out) {
    auto put = [&out](unsigned value) { *out++ = static_cast<char>(value); };
    if (value < 0x80) {
        put(value);
    } else if (value < 0x800) {
        put(0xC0 | (value >> 6));
        put(0x80 | (value & 0x3F));
    } else if (value < 0x10000) {
        put(0xE0 | (value >> 12));
        put(0x80 | ((value >> 6) & 0x3F));
        put(0x80 | (value & 0x3F));
    } else {
        put(0xF0 | (value >> 18));
        put(0x80 | ((value >> 12) & 0x3F));
        put(0x80 | ((value >> 6) & 0x3F));
        put(0x80 | (value & 0x3F));
    }
}

}  // namespace

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wideString, int wideCount,
                        LPSTR multiByteString, int multiByteCount, LPCSTR defaultChar,
                        BOOL* usedDefaultChar) {
    if (wideString == nullptr || wideCount == 0 || multiByteCount < 0 ||
        (multiByteString == nullptr && multiByteCount > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if (codePage != CP_UTF8) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if ((flags & ~WC_ERR_INVALID_CHARS) != 0) {
        return sim::fail(ERROR_INVALID_FLAGS, 0);
    }
    if (defaultChar != nullptr || usedDefaultChar != nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    std::size_t count = 0;
    if (wideCount < 0) {
        while (wideString[count] != 0) {
            ++count;
        }
        ++count;  // the terminator is converted too
    } else {
        count = static_cast<std::size_t>(wideCount);
    }
    std::size_t written = 0;
    for (std::size_t at = 0; at < count;) {
        char32_t value = wideString[at++];
        if (value >= 0xD800 && value <= 0xDBFF && at < count && wideString[at] >= 0xDC00 &&
            wideString[at] <= 0xDFFF) {
            value = 0x10000 + ((value - 0xD800) << 10) + (wideString[at++] - 0xDC00);
        } else if (value >= 0xD800 && value <= 0xDFFF) {
            if ((flags & WC_ERR_INVALID_CHARS) != 0) {
                return sim::fail(ERROR_NO_UNICODE_TRANSLATION, 0);
            }
            value = kReplacement;
        }
        std::size_t length = utf8Length(value);
        if (multiByteCount > 0) {
            if (written + length > static_cast<std::size_t>(multiByteCount)) {
                return sim::fail(ERROR_INSUFFICIENT_BUFFER, 0);
            }
            encodeUtf8(value, multiByteString + written);
        }
        written += length;
    }
    return static_cast<int>(written);
}

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR multiByteString, int multiByteCount,
                        LPWSTR wideString, int wideCount) {
    if (multiByteString == nullptr || multiByteCount == 0 || wideCount < 0 ||
        (wideString == nullptr && wideCount > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if (codePage != CP_UTF8) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if ((flags & ~MB_ERR_INVALID_CHARS) != 0) {
        return sim::fail(ERROR_INVALID_FLAGS, 0);
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(multiByteString);
    std::size_t count = 0;
    if (multiByteCount < 0) {
        while (bytes[count] != 0) {
            ++count;
        }
        ++count;
    } else {
        count = static_cast<std::size_t>(multiByteCount);
    }
    std::size_t written = 0;
    for (std::size_t at = 0; at < count;) {
        bool invalid = false;
        char32_t value = decodeUtf8(bytes, count, at, &invalid);
        if (invalid && (flags & MB_ERR_INVALID_CHARS) != 0) {
            return sim::fail(ERROR_NO_UNICODE_TRANSLATION, 0);
        }
        std::size_t length = value >= 0x10000 ? 2 : 1;
        if (wideCount > 0) {
            if (written + length > static_cast<std::size_t>(wideCount)) {
                return sim::fail(ERROR_INSUFFICIENT_BUFFER, 0);
            }
            if (length == 1) {
                wideString[written] = static_cast<char16_t>(value);
            } else {
                wideString[written] = static_cast<char16_t>(0xD800 + ((value - 0x10000) >> 10));
                wideString[written + 1] =
                    static_cast<char16_t>(0xDC00 + ((value - 0x10000) & 0x3FF));
            }
        }
        written += length;
    }
    return static_cast<int>(written);
}

}  // namespace os
