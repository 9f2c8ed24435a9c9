// Path helpers shared by the machine description's reader and its path
// resolution.
#ifndef PLATFORM_SIM_MACHINE_PATHS_H_
#define PLATFORM_SIM_MACHINE_PATHS_H_

#include <string>
#include <string_view>
#include <vector>

namespace sim {

inline constexpr std::u16string_view kGuidPrefix = u"\\\\?\\Volume";

inline bool isDriveLetter(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

// `text` with every unit case-folded as path comparison does it.
std::u16string folded(std::u16string_view text);
// The non-empty components between backslashes.
std::vector<std::u16string> splitComponents(std::u16string_view text);

}  // namespace sim

#endif  // PLATFORM_SIM_MACHINE_PATHS_H_
