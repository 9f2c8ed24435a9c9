// Small text helpers of the simulated machine: case folding as Windows path
// comparison does it, and UTF-8 <-> UTF-16 conversion that never touches the
// caller's last error (unlike the os:: code-page functions).
#ifndef PLATFORM_SIM_WIDE_TEXT_H_
#define PLATFORM_SIM_WIDE_TEXT_H_

#include <string>
#include <string_view>

namespace sim {

// Upper case of one UTF-16 unit for path comparison: ASCII, Latin-1, Greek
// and Cyrillic letters; everything else compares as it is.
char16_t foldCase(char16_t c);
bool equalsIgnoreCase(std::u16string_view a, std::u16string_view b);
bool startsWithIgnoreCase(std::u16string_view text, std::u16string_view prefix);
// Same, for UTF-8 file names on the Linux side.
bool equalsIgnoreCaseUtf8(std::string_view a, std::string_view b);

std::string lowerAscii(std::string_view text);

// Unpaired surrogates and ill-formed bytes become U+FFFD.
std::string toUtf8(std::u16string_view text);
std::u16string fromUtf8(std::string_view text);

}  // namespace sim

#endif  // PLATFORM_SIM_WIDE_TEXT_H_
