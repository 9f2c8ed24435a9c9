// Case folding and UTF conversion for the simulated machine's paths.
#include "wide_text.h"

namespace sim {

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
    if (a == b) {
        return true;
    }
    return equalsIgnoreCase(fromUtf8(a), fromUtf8(b));
}

std::string lowerAscii(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c + 0x20);
        }
    }
    return result;
}

std::string toUtf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            result.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            result.push_back(static_cast<char>(0xC0 | (c >> 6)));
            result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            result.push_back(static_cast<char>(0xE0 | (c >> 12)));
            result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            result.push_back(static_cast<char>(0xF0 | (c >> 18)));
            result.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return result;
}

std::u16string fromUtf8(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        int more = 0;
        char32_t c = 0;
        if (lead < 0x80) {
            c = lead;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            more = 1;
            c = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            more = 2;
            c = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            more = 3;
            c = lead & 0x07;
        } else {
            result.push_back(u'\uFFFD');
            ++i;
            continue;
        }
        bool valid = more == 0 || i + static_cast<std::size_t>(more) < text.size();
        std::size_t taken = 1;
        for (int k = 1; valid && k <= more; ++k) {
            const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((next & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            c = (c << 6) | (next & 0x3F);
            ++taken;
        }
        const bool overlong = (more == 2 && c < 0x800) || (more == 3 && c < 0x10000);
        if (!valid || overlong || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            result.push_back(u'\uFFFD');
            i += taken;
            continue;
        }
        i += taken;
        if (c >= 0x10000) {
            c -= 0x10000;
            result.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
            result.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
        } else {
            result.push_back(static_cast<char16_t>(c));
        }
    }
    return result;
}

}  // namespace sim
