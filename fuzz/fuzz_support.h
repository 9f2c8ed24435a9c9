// Helpers of the fuzz targets: turning bytes into wide text, telling printable
// text, and stopping on a broken invariant.
#ifndef FUZZ_FUZZ_SUPPORT_H_
#define FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzsupport {

// Stops the run (libFuzzer keeps the input) when `condition` is false.
inline void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

// Whether UTF-8 `text` carries no control character (C0, DEL or C1) that a
// terminal would act on.
inline bool printable(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            return false;
        }
        if (c == 0xC2 && i + 1 < text.size() &&
            static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
            static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
            return false;
        }
    }
    return true;
}

// UTF-8 where the bytes form it, one unit per byte where they do not, so that
// every input is some text and the seed documents stay readable.
inline std::u16string decode(const std::uint8_t* data, std::size_t size) {
    std::u16string text;
    text.reserve(size);
    std::size_t at = 0;
    while (at < size) {
        std::uint8_t lead = data[at];
        std::size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : 0;
        bool valid = length != 0 && at + length <= size;
        char32_t code = length == 1 ? lead : length == 2 ? (lead & 0x1F) : (lead & 0x0F);
        for (std::size_t i = 1; valid && i < length; ++i) {
            valid = (data[at + i] & 0xC0) == 0x80;
            code = (code << 6) | (data[at + i] & 0x3F);
        }
        if (!valid) {
            text.push_back(static_cast<char16_t>(lead));
            ++at;
            continue;
        }
        text.push_back(static_cast<char16_t>(code));
        at += length;
    }
    return text;
}

}  // namespace fuzzsupport

#endif  // FUZZ_FUZZ_SUPPORT_H_
