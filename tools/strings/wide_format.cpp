// The wide printf engine: parses each conversion, reads its argument with the
// Windows (LLP64) size rules and appends the converted text to a UTF-16
// string; the counted entry point then applies the Windows truncation rules.
#include "strings/wide_format.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "os/codepage.h"
#include "os/error.h"

namespace strings {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

enum class Size { Default, Char, Short, Long32, Long64, LongDouble, Wide };

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // -1: none given
    Size size = Size::Default;
    bool narrowText = false;  // h prefix on s/c
    bool wideText = false;    // l or w prefix on s/c
};

// Appends `body` padded to the width; `zeroAfter` is how many leading units of
// `body` (sign, radix prefix) stand before zero padding.
void appendPadded(std::u16string& out, const Directive& directive, const std::u16string& body,
                  std::size_t zeroAfter, bool zeroAllowed) {
    std::size_t width = directive.width > 0 ? static_cast<std::size_t>(directive.width) : 0;
    std::size_t pad = body.size() < width ? width - body.size() : 0;
    if (pad == 0) {
        out += body;
        return;
    }
    if (directive.left) {
        out += body;
        out.append(pad, u' ');
        return;
    }
    if (directive.zero && zeroAllowed) {
        out.append(body, 0, zeroAfter);
        out.append(pad, u'0');
        out.append(body, zeroAfter, std::u16string::npos);
        return;
    }
    out.append(pad, u' ');
    out += body;
}

std::u16string widenAscii(const char* text) {
    std::u16string out;
    for (; *text != '\0'; ++text) {
        out.push_back(static_cast<unsigned char>(*text));
    }
    return out;
}

// Reads a signed integer argument of the size the prefix names.
long long readSigned(va_list& arguments, Size size) {
    switch (size) {
        case Size::Char:
            return static_cast<signed char>(va_arg(arguments, int));
        case Size::Short:
            return static_cast<short>(va_arg(arguments, int));
        case Size::Long64:
            return va_arg(arguments, long long);
        default:
            return va_arg(arguments, int);
    }
}

unsigned long long readUnsigned(va_list& arguments, Size size) {
    switch (size) {
        case Size::Char:
            return static_cast<unsigned char>(va_arg(arguments, unsigned int));
        case Size::Short:
            return static_cast<unsigned short>(va_arg(arguments, unsigned int));
        case Size::Long64:
            return va_arg(arguments, unsigned long long);
        default:
            return va_arg(arguments, unsigned int);
    }
}

void formatInteger(std::u16string& out, const Directive& directive, char conversion,
                   unsigned long long magnitude, bool negative, bool isSigned) {
    unsigned base = 10;
    const char* digitSet = "0123456789abcdef";
    if (conversion == 'o') {
        base = 8;
    } else if (conversion == 'x') {
        base = 16;
    } else if (conversion == 'X' || conversion == 'p') {
        base = 16;
        digitSet = "0123456789ABCDEF";
    }
    std::u16string digits;
    for (unsigned long long rest = magnitude; rest != 0; rest /= base) {
        digits.insert(digits.begin(), static_cast<char16_t>(digitSet[rest % base]));
    }
    std::size_t minimum =
        directive.precision >= 0 ? static_cast<std::size_t>(directive.precision) : 1;
    if (digits.size() < minimum) {
        digits.insert(0, minimum - digits.size(), u'0');
    }
    if (directive.alternate && conversion == 'o' && (digits.empty() || digits.front() != u'0')) {
        digits.insert(digits.begin(), u'0');
    }
    std::u16string prefix;
    if (negative) {
        prefix = u"-";
    } else if (isSigned && directive.plus) {
        prefix = u"+";
    } else if (isSigned && directive.space) {
        prefix = u" ";
    }
    if (directive.alternate && magnitude != 0 && (conversion == 'x' || conversion == 'X')) {
        prefix += conversion == 'x' ? u"0x" : u"0X";
    }
    // A precision turns zero padding off for integers.
    appendPadded(out, directive, prefix + digits, prefix.size(), directive.precision < 0);
}

// Prints a number with the C library's formatter; `value` is double or long double.
template <class Number>
std::string printNumber(const char* pattern, int width, int precision, Number value) {
    int needed = std::snprintf(nullptr, 0, pattern, width, precision, value);
    if (needed < 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(needed) + 1, '\0');
    std::snprintf(text.data(), text.size(), pattern, width, precision, value);
    text.resize(static_cast<std::size_t>(needed));
    return text;
}

void formatFloating(std::u16string& out, const Directive& directive, char conversion,
                    va_list& arguments) {
    const bool longDouble = directive.size == Size::LongDouble;
    int precision = directive.precision;
    if (precision < 0) {
        // The Windows CRT prints every fraction digit of a double in hex form.
        precision = conversion == 'a' || conversion == 'A' ? 13 : 6;
    }
    char pattern[32];
    std::size_t at = 0;
    pattern[at++] = '%';
    if (directive.left)
        pattern[at++] = '-';
    if (directive.plus)
        pattern[at++] = '+';
    if (directive.space)
        pattern[at++] = ' ';
    if (directive.alternate)
        pattern[at++] = '#';
    if (directive.zero)
        pattern[at++] = '0';
    pattern[at++] = '*';
    pattern[at++] = '.';
    pattern[at++] = '*';
    if (longDouble)
        pattern[at++] = 'L';
    pattern[at++] = conversion;
    pattern[at] = '\0';
    std::string text =
        longDouble
            ? printNumber(pattern, directive.width, precision, va_arg(arguments, long double))
            : printNumber(pattern, directive.width, precision, va_arg(arguments, double));
    out += widenAscii(text.c_str());
}

void formatWideText(std::u16string& out, const Directive& directive, const char16_t* text) {
    if (text == nullptr) {
        text = u"(null)";
    }
    std::size_t length = 0;
    std::size_t limit = directive.precision >= 0 ? static_cast<std::size_t>(directive.precision)
                                                 : static_cast<std::size_t>(-1);
    while (length < limit && text[length] != 0) {
        ++length;
    }
    appendPadded(out, directive, std::u16string(text, length), 0, true);
}

// The UTF-16 of `length` bytes of UTF-8, converted by the system so that the
// formatter replaces ill-formed bytes as every other conversion does. Leaves
// the caller's last error as it was: formatting a trace line must not change it.
std::u16string widenUtf8(const char* text, std::size_t length) {
    if (length == 0 || length > static_cast<std::size_t>(INT_MAX)) {
        return {};
    }
    const os::DWORD saved = os::GetLastError();
    const int count = static_cast<int>(length);
    std::u16string wide;
    const int needed = os::MultiByteToWideChar(os::CP_UTF8, 0, text, count, nullptr, 0);
    if (needed > 0) {
        wide.resize(static_cast<std::size_t>(needed));
        const int written =
            os::MultiByteToWideChar(os::CP_UTF8, 0, text, count, wide.data(), needed);
        wide.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    os::SetLastError(saved);
    return wide;
}

void formatNarrowText(std::u16string& out, const Directive& directive, const char* text) {
    if (text == nullptr) {
        text = "(null)";
    }
    // A precision counts bytes of the narrow text, as the wide CRT counts it,
    // so a text that is not terminated is read no further than the precision.
    // A character the precision cuts in two is ill-formed and prints as U+FFFD.
    const std::size_t limit = directive.precision >= 0
                                  ? static_cast<std::size_t>(directive.precision)
                                  : static_cast<std::size_t>(-1);
    std::size_t length = 0;
    while (length < limit && text[length] != '\0') {
        ++length;
    }
    appendPadded(out, directive, widenUtf8(text, length), 0, true);
}

void formatCharacter(std::u16string& out, const Directive& directive, bool narrow,
                     va_list& arguments) {
    int value = va_arg(arguments, int);
    char16_t unit = static_cast<char16_t>(value);
    if (narrow) {
        // A byte on its own is a UTF-8 character only in ASCII.
        unsigned char byte = static_cast<unsigned char>(value);
        unit = byte < 0x80 ? static_cast<char16_t>(byte) : kReplacement;
    }
    appendPadded(out, directive, std::u16string(1, unit), 0, true);
}

// Reads a decimal number at `at`, or '*' from the arguments.
int readNumber(const char16_t*& at, va_list& arguments, bool* fromArgument) {
    *fromArgument = false;
    if (*at == u'*') {
        ++at;
        *fromArgument = true;
        return va_arg(arguments, int);
    }
    int value = 0;
    while (*at >= u'0' && *at <= u'9') {
        if (value < 100000000) {
            value = value * 10 + (*at - u'0');
        }
        ++at;
    }
    return value;
}

// Parses an optional size prefix and notes what it says about the argument.
void readSize(const char16_t*& at, Directive& directive) {
    switch (*at) {
        case u'h':
            ++at;
            if (*at == u'h') {
                ++at;
                directive.size = Size::Char;
            } else {
                directive.size = Size::Short;
            }
            directive.narrowText = true;
            return;
        case u'l':
            ++at;
            if (*at == u'l') {
                ++at;
                directive.size = Size::Long64;
            } else {
                directive.size = Size::Long32;
                directive.wideText = true;
            }
            return;
        case u'w':
            ++at;
            directive.wideText = true;
            return;
        case u'L':
            ++at;
            directive.size = Size::LongDouble;
            return;
        case u'z':
        case u'j':
        case u't':
            ++at;
            directive.size = Size::Long64;
            return;
        case u'I':
            ++at;
            if (at[0] == u'6' && at[1] == u'4') {
                at += 2;
                directive.size = Size::Long64;
            } else if (at[0] == u'3' && at[1] == u'2') {
                at += 2;
                directive.size = Size::Long32;
            } else {
                directive.size = Size::Long64;  // pointer-sized
            }
            return;
        default:
            return;
    }
}

}  // namespace

std::u16string formatWide(const char16_t* format, va_list arguments) {
    std::u16string out;
    if (format == nullptr) {
        return out;
    }
    va_list args;
    va_copy(args, arguments);
    const char16_t* at = format;
    while (*at != 0) {
        if (*at != u'%') {
            out.push_back(*at++);
            continue;
        }
        const char16_t* start = at++;
        Directive directive;
        for (bool flag = true; flag;) {
            switch (*at) {
                case u'-':
                    directive.left = true;
                    ++at;
                    break;
                case u'+':
                    directive.plus = true;
                    ++at;
                    break;
                case u' ':
                    directive.space = true;
                    ++at;
                    break;
                case u'#':
                    directive.alternate = true;
                    ++at;
                    break;
                case u'0':
                    directive.zero = true;
                    ++at;
                    break;
                default:
                    flag = false;
                    break;
            }
        }
        bool fromArgument = false;
        directive.width = readNumber(at, args, &fromArgument);
        if (fromArgument && directive.width < 0) {
            directive.left = true;
            directive.width = directive.width == -2147483647 - 1 ? 0 : -directive.width;
        }
        if (*at == u'.') {
            ++at;
            directive.precision = readNumber(at, args, &fromArgument);
            if (directive.precision < 0) {
                directive.precision = -1;
            }
        }
        readSize(at, directive);
        char16_t conversion = *at;
        if (conversion == 0) {
            out.append(start, at);
            break;
        }
        ++at;
        switch (conversion) {
            case u'%':
                out.push_back(u'%');
                break;
            case u'd':
            case u'i': {
                long long value = readSigned(args, directive.size);
                unsigned long long magnitude = value < 0
                                                   ? 0ull - static_cast<unsigned long long>(value)
                                                   : static_cast<unsigned long long>(value);
                formatInteger(out, directive, 'd', magnitude, value < 0, true);
                break;
            }
            case u'u':
            case u'o':
            case u'x':
            case u'X':
                formatInteger(out, directive, static_cast<char>(conversion),
                              readUnsigned(args, directive.size), false, false);
                break;
            case u'p': {
                Directive pointer = directive;
                pointer.precision = 16;
                pointer.alternate = false;
                auto value = reinterpret_cast<std::uintptr_t>(va_arg(args, void*));
                formatInteger(out, pointer, 'p', value, false, false);
                break;
            }
            case u'e':
            case u'E':
            case u'f':
            case u'F':
            case u'g':
            case u'G':
            case u'a':
            case u'A':
                formatFloating(out, directive, static_cast<char>(conversion), args);
                break;
            case u's':
                if (directive.narrowText) {
                    formatNarrowText(out, directive, va_arg(args, const char*));
                } else {
                    formatWideText(out, directive, va_arg(args, const char16_t*));
                }
                break;
            case u'S':
                if (directive.wideText) {
                    formatWideText(out, directive, va_arg(args, const char16_t*));
                } else {
                    formatNarrowText(out, directive, va_arg(args, const char*));
                }
                break;
            case u'c':
                formatCharacter(out, directive, directive.narrowText, args);
                break;
            case u'C':
                formatCharacter(out, directive, !directive.wideText, args);
                break;
            default:
                // %n and anything unknown: written as it stands.
                out.append(start, at);
                break;
        }
    }
    va_end(args);
    return out;
}

int countedFormatWide(char16_t* buffer, std::size_t count, const char16_t* format,
                      va_list arguments) {
    std::u16string text = formatWide(format, arguments);
    if (buffer == nullptr) {
        return count == 0 ? static_cast<int>(text.size()) : -1;
    }
    if (text.size() < count) {
        std::memcpy(buffer, text.data(), text.size() * sizeof(char16_t));
        buffer[text.size()] = 0;
        return static_cast<int>(text.size());
    }
    std::memcpy(buffer, text.data(), count * sizeof(char16_t));
    return text.size() == count ? static_cast<int>(count) : -1;
}

}  // namespace strings
