// The one text module of the Linux side: UTF-8 <-> UTF-16 conversion, case
// folding, trailing backslashes and drive-type names, shared by the simulated
// machine (and its os:: code-page functions), the driver library and the host.
// The plug-in reaches the same conversion through os::MultiByteToWideChar and
// os::WideCharToMultiByte.
//
// Ill-formed UTF-8 is replaced by U+FFFD one maximal subpart at a time, the
// practice the Unicode Standard recommends (chapter 3, "U+FFFD Substitution of
// Maximal Subparts"). A maximal subpart is the longest start of a well-formed
// sequence at that point; when even the first byte cannot start one, that byte
// alone is the subpart. So:
//   E2 82 41     -> U+FFFD 'A'           (E2 82 could have begun U+20AC)
//   ED A0 80 41  -> U+FFFD U+FFFD U+FFFD 'A'   (no well-formed sequence starts
//                                         ED A0: it would encode a surrogate)
//   C0 AF        -> U+FFFD U+FFFD        (C0 never starts one: overlong)
//   F4 90 80 80  -> four U+FFFD          (above U+10FFFF)
// In UTF-16, an unpaired surrogate becomes U+FFFD. The table of these cases is
// tests/platform/text_test.cpp.
//
// Pure functions; safe from any thread; none touches the calling thread's last
// error.
#ifndef PLATFORM_SIM_INCLUDE_SIM_TEXT_H_
#define PLATFORM_SIM_INCLUDE_SIM_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

// One code point read from the start of a text.
struct Decoded {
    char32_t value = 0;      // U+FFFD when !valid
    std::size_t length = 0;  // units used: the sequence, or the maximal subpart
    bool valid = false;
};

// Decodes the sequence at the start of `text`, which must not be empty.
Decoded decodeUtf8(std::string_view text);
// Decodes the character or surrogate pair at the start of `text` (not empty);
// an unpaired surrogate is one invalid unit.
Decoded decodeUtf16(std::u16string_view text);

// Writes `value` (a scalar value) and returns the number of units written:
// 1 to 4 bytes, or 1 to 2 UTF-16 units.
std::size_t encodeUtf8(char32_t value, char* out);
std::size_t encodeUtf16(char32_t value, char16_t* out);

// Whole texts, replacing ill-formed input as above.
std::string toUtf8(std::u16string_view text);
std::u16string fromUtf8(std::string_view text);
// The UTF-16 of `text`, or false (and `out` cleared) when it is ill-formed.
bool fromUtf8Strict(std::string_view text, std::u16string* out);

// Upper case of one UTF-16 unit for path comparison, as NTFS compares names:
// ASCII, Latin-1, Greek and Cyrillic letters; everything else as it is.
char16_t foldCase(char16_t c);
bool equalsIgnoreCase(std::u16string_view a, std::u16string_view b);
bool startsWithIgnoreCase(std::u16string_view text, std::u16string_view prefix);
// Same, for UTF-8 file names on the Linux side.
bool equalsIgnoreCaseUtf8(std::string_view a, std::string_view b);

// A-Z to a-z, nothing else: for names that Windows compares in ASCII only
// (module names, volume GUIDs, drive letters, device prefixes, object names).
constexpr char lowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr char16_t lowerAscii(char16_t c) {
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
}
std::string lowerAscii(std::string_view text);
std::u16string lowerAscii(std::u16string_view text);

// `path` without any of its trailing backslashes.
std::u16string_view withoutTrailingBackslashes(std::u16string_view path);
std::string_view withoutTrailingBackslashes(std::string_view path);
// `path` ending in exactly one more backslash when it did not end in one.
std::u16string withTrailingBackslash(std::u16string_view path);

// The name of an os::GetDriveTypeW value as the machine file and the tools
// write it: "unknown", "no root", "removable", "fixed", "remote", "cdrom",
// "ramdisk"; "unknown" for any other number.
const char* driveTypeName(std::uint32_t type);
// The value of a drive-type name a volume can have (any of the above but
// "no root"), compared without ASCII case.
std::optional<std::uint32_t> driveTypeFromName(std::string_view name);

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_TEXT_H_
