#include "host/text.h"

#include <cstdint>

namespace host {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void appendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
        return;
    }
    c -= 0x10000;
    out += static_cast<char16_t>(0xD800 + (c >> 10));
    out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
}

}  // namespace

std::string toUtf8(const char16_t* text) {
    return text == nullptr ? std::string() : toUtf8(std::u16string_view(text));
}

std::string toUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = kReplacement;
        }
        appendUtf8(out, c);
    }
    return out;
}

std::u16string toUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        auto lead = static_cast<std::uint8_t>(text[i]);
        std::size_t extra = 0;
        char32_t c = lead;
        if (lead >= 0xF0 && lead <= 0xF4) {
            extra = 3;
            c = lead & 0x07;
        } else if (lead >= 0xE0 && lead < 0xF0) {
            extra = 2;
            c = lead & 0x0F;
        } else if (lead >= 0xC2 && lead < 0xE0) {
            extra = 1;
            c = lead & 0x1F;
        } else if (lead >= 0x80) {
            appendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        bool valid = i + extra < text.size();
        for (std::size_t k = 1; valid && k <= extra; ++k) {
            auto next = static_cast<std::uint8_t>(text[i + k]);
            valid = (next & 0xC0) == 0x80;
            c = (c << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are malformed.
        const char32_t minimum[] = {0, 0x80, 0x800, 0x10000};
        if (!valid || c < minimum[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            appendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        appendUtf16(out, c);
        i += extra + 1;
    }
    return out;
}

}  // namespace host
