// File names for the machine-wide named objects (mutexes, pipes) kept under
// the machine's state directory.
//
// A Windows object name may hold any UTF-16 character; a Linux file name may
// not hold '/' or NUL and is limited to 255 bytes (a socket path even to 107).
// escapeObjectName keeps letters, digits, '_' and '-' and writes every other
// code unit as "%XXXX", so two different names never share a file. Names
// whose escaped form is long are cut and completed with a hash of the whole.
//
// Pure functions; safe from any thread.
#ifndef PLATFORM_SIM_OBJECT_NAMES_H_
#define PLATFORM_SIM_OBJECT_NAMES_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace sim {

// Escaped names longer than this are shortened (leaves room for the state
// directory inside a socket path and for suffixes such as ".lock").
inline constexpr std::size_t kMaxEscapedNameLength = 48;

inline std::string escapeObjectName(std::u16string_view name) {
    std::string escaped;
    for (char16_t c : name) {
        bool plain = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
                     (c >= u'0' && c <= u'9') || c == u'_' || c == u'-';
        if (plain) {
            escaped.push_back(static_cast<char>(c));
            continue;
        }
        char code[8];
        std::snprintf(code, sizeof(code), "%%%04X", static_cast<unsigned>(c));
        escaped += code;
    }
    if (escaped.size() <= kMaxEscapedNameLength) {
        return escaped;
    }
    // FNV-1a over the full escaped text keeps long names distinct.
    std::uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char byte : escaped) {
        hash = (hash ^ byte) * 0x100000001b3ull;
    }
    char suffix[24];
    std::snprintf(suffix, sizeof(suffix), "~%016llx", static_cast<unsigned long long>(hash));
    return escaped.substr(0, kMaxEscapedNameLength - 17) + suffix;
}

}  // namespace sim

#endif  // PLATFORM_SIM_OBJECT_NAMES_H_
