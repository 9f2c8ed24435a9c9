// UTF conversion, case folding, backslashes and drive-type names for the
// Linux side (see sim/text.h for the replacement rule).
#include "sim/text.h"

namespace sim {

Decoded decodeUtf8(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return {lead, 1, true};
    }
    std::size_t more = 0;
    char32_t value = 0;
    // The range of the second byte: narrower than 80..BF after E0 (overlong
    // below U+0800), ED (surrogates), F0 (overlong below U+10000) and F4
    // (above U+10FFFF).
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2;
        value = lead & 0x0F;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3;
        value = lead & 0x07;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;
        }
    } else {
        // 80..BF continue, C0 and C1 only start overlong forms, F5..FF start nothing.
        return {kReplacementCharacter, 1, false};
    }
    std::size_t at = 1;
    for (; at <= more; ++at) {
        if (at >= text.size()) {
            return {kReplacementCharacter, at, false};
        }
        const auto next = static_cast<unsigned char>(text[at]);
        if (next < low || next > high) {
            return {kReplacementCharacter, at, false};
        }
        value = (value << 6) | (next & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return {value, at, true};
}

Decoded decodeUtf16(std::u16string_view text) {
    const char32_t unit = text[0];
    if (unit < 0xD800 || unit > 0xDFFF) {
        return {unit, 1, true};
    }
    if (unit <= 0xDBFF && text.size() > 1 && text[1] >= 0xDC00 && text[1] <= 0xDFFF) {
        return {0x10000 + ((unit - 0xD800) << 10) + (text[1] - 0xDC00), 2, true};
    }
    return {kReplacementCharacter, 1, false};
}

std::size_t encodeUtf8(char32_t value, char* out) {
    if (value < 0x80) {
        out[0] = static_cast<char>(value);
        return 1;
    }
    if (value < 0x800) {
        out[0] = static_cast<char>(0xC0 | (value >> 6));
        out[1] = static_cast<char>(0x80 | (value & 0x3F));
        return 2;
    }
    if (value < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (value >> 12));
        out[1] = static_cast<char>(0x80 | ((value >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (value & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (value >> 18));
    out[1] = static_cast<char>(0x80 | ((value >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((value >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (value & 0x3F));
    return 4;
}

std::size_t encodeUtf16(char32_t value, char16_t* out) {
    if (value < 0x10000) {
        out[0] = static_cast<char16_t>(value);
        return 1;
    }
    value -= 0x10000;
    out[0] = static_cast<char16_t>(0xD800 + (value >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + (value & 0x3FF));
    return 2;
}

std::string toUtf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    char bytes[4];
    while (!text.empty()) {
        const Decoded one = decodeUtf16(text);
        result.append(bytes, encodeUtf8(one.value, bytes));
        text.remove_prefix(one.length);
    }
    return result;
}

std::u16string fromUtf8(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    char16_t units[2];
    while (!text.empty()) {
        const Decoded one = decodeUtf8(text);
        result.append(units, encodeUtf16(one.value, units));
        text.remove_prefix(one.length);
    }
    return result;
}

bool fromUtf8Strict(std::string_view text, std::u16string* out) {
    out->clear();
    out->reserve(text.size());
    char16_t units[2];
    while (!text.empty()) {
        const Decoded one = decodeUtf8(text);
        if (!one.valid) {
            out->clear();
            return false;
        }
        out->append(units, encodeUtf16(one.value, units));
        text.remove_prefix(one.length);
    }
    return true;
}

char16_t foldCase(char16_t c) {
    if (c < 0x80) {
        return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 0x20) : c;
    }
    if ((c >= 0xE0 && c <= 0xFE && c != 0xF7) || (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) ||
        (c >= 0x430 && c <= 0x44F)) {
        return static_cast<char16_t>(c - 0x20);
    }
    if (c >= 0x450 && c <= 0x45F) {
        return static_cast<char16_t>(c - 0x50);
    }
    return c;
}

bool equalsIgnoreCase(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (foldCase(a[i]) != foldCase(b[i])) {
            return false;
        }
    }
    return true;
}

bool startsWithIgnoreCase(std::u16string_view text, std::u16string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

bool equalsIgnoreCaseUtf8(std::string_view a, std::string_view b) {
    return a == b || equalsIgnoreCase(fromUtf8(a), fromUtf8(b));
}

std::string lowerAscii(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        c = lowerAscii(c);
    }
    return result;
}

std::u16string lowerAscii(std::u16string_view text) {
    std::u16string result(text);
    for (char16_t& c : result) {
        c = lowerAscii(c);
    }
    return result;
}

std::u16string_view withoutTrailingBackslashes(std::u16string_view path) {
    while (!path.empty() && path.back() == u'\\') {
        path.remove_suffix(1);
    }
    return path;
}

std::string_view withoutTrailingBackslashes(std::string_view path) {
    while (!path.empty() && path.back() == '\\') {
        path.remove_suffix(1);
    }
    return path;
}

std::u16string withTrailingBackslash(std::u16string_view path) {
    std::u16string result(path);
    if (result.empty() || result.back() != u'\\') {
        result.push_back(u'\\');
    }
    return result;
}

namespace {

// The os::GetDriveTypeW values (DRIVE_UNKNOWN .. DRIVE_RAMDISK) by number.
constexpr const char* kDriveTypeNames[] = {"unknown", "no root", "removable", "fixed",
                                           "remote",  "cdrom",   "ramdisk"};
constexpr std::uint32_t kNoRootDirectory = 1;

}  // namespace

const char* driveTypeName(std::uint32_t type) {
    return type < std::size(kDriveTypeNames) ? kDriveTypeNames[type] : kDriveTypeNames[0];
}

std::optional<std::uint32_t> driveTypeFromName(std::string_view name) {
    const std::string folded = lowerAscii(name);
    for (std::uint32_t type = 0; type < std::size(kDriveTypeNames); ++type) {
        if (type != kNoRootDirectory && folded == kDriveTypeNames[type]) {
            return type;
        }
    }
    return std::nullopt;
}

}  // namespace sim
