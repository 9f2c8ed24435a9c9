// Fuzzes the wide formatter (strings::formatWide, countedFormatWide and
// boundedFormatWide) with format strings and the arguments they ask for.
//
// The input is read as a list of pieces: literal text, or a directive built
// from flags, a width and a precision (digits or '*'), a size prefix and a
// conversion (a known one or any other unit). Alongside, the target lays out
// the arguments each directive takes by the rules of strings/wide_format.h:
// an int for each '*', then one value of the conversion's type (integers,
// pointers, doubles, long doubles, wide or narrow texts; none for %%, %n and
// unknown conversions). Texts are null, terminated, or - under a precision -
// exactly as long as the precision with no terminator.
//
// The arguments are handed over in a va_list built here: on x86-64 a va_list
// whose register areas are marked used reads every argument, in order, from
// one memory area. That area is an allocation of exactly the arguments'
// size, so a formatter that reads one argument more than the rules say reads
// past it and AddressSanitizer stops the run. Checks:
//   - the counted and bounded forms keep their buffer rules for any count;
//   - integer directives without a Windows-only size prefix print what the C
//     library prints for the same directive and argument.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "strings/bounded_string.h"
#include "strings/wide_format.h"

#if !defined(__x86_64__)
#error "fuzz_wide_format builds its va_list for the x86-64 calling convention"
#endif

namespace {

using fuzzsupport::check;

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    std::uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint64_t bytes(int count) {
        std::uint64_t value = 0;
        for (int i = 0; i < count; ++i) {
            value |= static_cast<std::uint64_t>(byte()) << (8 * i);
        }
        return value;
    }
    char16_t unit() { return static_cast<char16_t>(bytes(2)); }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// The argument area: 8-byte slots; a long double takes two, 16-aligned.
class Arguments {
  public:
    void add(std::uint64_t value) { slots_.push_back(value); }
    void addLongDouble(const std::uint8_t (&bytes)[10]) {
        if (slots_.size() % 2 != 0) {
            slots_.push_back(0);
        }
        std::uint64_t pair[2] = {};
        std::memcpy(pair, bytes, sizeof(bytes));
        slots_.push_back(pair[0]);
        slots_.push_back(pair[1]);
    }
    std::size_t size() const { return slots_.size(); }

    // Copies the slots from `first` on into an allocation of exactly their
    // size (16-aligned, as operator new[] gives), kept until the next call.
    std::uint64_t* exactCopy(std::size_t first) {
        const std::size_t count = slots_.size() - first;
        area_.reset(new std::uint64_t[count]);
        std::copy(slots_.begin() + static_cast<std::ptrdiff_t>(first), slots_.end(), area_.get());
        return area_.get();
    }

  private:
    std::vector<std::uint64_t> slots_;
    std::unique_ptr<std::uint64_t[]> area_;
};

// A va_list that reads everything from `area`.
struct VaListTag {
    unsigned gpOffset;
    unsigned fpOffset;
    void* overflowArea;
    void* registerArea;
};
static_assert(sizeof(va_list) == sizeof(VaListTag), "x86-64 va_list layout");

void pointAt(va_list& list, void* area) {
    // 6 general and 8 vector registers, all taken.
    const VaListTag tag{6 * 8, 6 * 8 + 8 * 16, area, nullptr};
    std::memcpy(&list, &tag, sizeof(tag));
}

enum class Kind { None, Integer, Double, LongDouble, WideText, NarrowText };

// The type of the value a conversion takes, by the formatter's documented
// rules.
Kind kindOf(std::string_view prefix, char16_t conversion) {
    switch (conversion) {
        case u'd':
        case u'i':
        case u'u':
        case u'o':
        case u'x':
        case u'X':
        case u'c':
        case u'C':
        case u'p':
            return Kind::Integer;
        case u'e':
        case u'E':
        case u'f':
        case u'F':
        case u'g':
        case u'G':
        case u'a':
        case u'A':
            return prefix == "L" ? Kind::LongDouble : Kind::Double;
        case u's':
            return prefix == "h" || prefix == "hh" ? Kind::NarrowText : Kind::WideText;
        case u'S':
            return prefix == "l" || prefix == "w" ? Kind::WideText : Kind::NarrowText;
        default:
            return Kind::None;  // %%, %n and unknown conversions
    }
}

constexpr const char* kPrefixes[] = {"",  "",  "",  "h", "hh", "l",   "ll", "w",
                                     "L", "z", "j", "t", "I",  "I32", "I64"};
constexpr char16_t kConversions[] = u"diuoxXpeEfFgGaAsSCc%n";
// Units that would be read as part of the directive rather than as its
// conversion.
constexpr std::u16string_view kDirectiveUnits = u"0123456789.*-+ #hlwLzjtI";

// Texts handed to %s and %hs, each in an allocation of exactly its size.
class Texts {
  public:
    const char16_t* wide(Input& input, int precision) {
        const std::size_t length = input.byte() % 24;
        const bool terminated = precision < 0 || length < static_cast<std::size_t>(precision) ||
                                (input.byte() & 1) == 0;
        const std::size_t units = terminated ? length : static_cast<std::size_t>(precision);
        auto& text = wide_.emplace_back(new char16_t[units + (terminated ? 1 : 0)]);
        for (std::size_t i = 0; i < units; ++i) {
            text[i] = input.unit();
            if (text[i] == 0) {
                text[i] = u'?';
            }
        }
        if (terminated) {
            text[units] = 0;
        }
        return text.get();
    }
    const char* narrow(Input& input, int precision) {
        const std::size_t length = input.byte() % 24;
        const bool terminated = precision < 0 || length < static_cast<std::size_t>(precision) ||
                                (input.byte() & 1) == 0;
        const std::size_t bytes = terminated ? length : static_cast<std::size_t>(precision);
        auto& text = narrow_.emplace_back(new char[bytes + (terminated ? 1 : 0)]);
        for (std::size_t i = 0; i < bytes; ++i) {
            text[i] = static_cast<char>(input.byte());
            if (text[i] == '\0') {
                text[i] = '?';
            }
        }
        if (terminated) {
            text[bytes] = '\0';
        }
        return text.get();
    }

  private:
    std::vector<std::unique_ptr<char16_t[]>> wide_;
    std::vector<std::unique_ptr<char[]>> narrow_;
};

// An integer directive that means the same to the C library, kept for the
// comparison: its narrow text and its first argument slot.
struct Comparable {
    std::string format;
    std::size_t firstSlot;
};

// A '*' argument: mostly small, sometimes the most negative int.
int starValue(Input& input) {
    const std::uint8_t choice = input.byte();
    if (choice == 0xFF) {
        return INT_MIN;
    }
    return static_cast<std::int8_t>(input.byte()) * 4;
}

std::string decimal(unsigned value) {
    return std::to_string(value);
}

// Appends one directive to `format` and its arguments to `arguments`.
// Returns false when it ended the format (a directive with no conversion).
bool addDirective(Input& input, std::u16string& format, Arguments& arguments, Texts& texts,
                  std::vector<Comparable>& comparable) {
    const std::size_t firstSlot = arguments.size();
    std::string text = "%";
    bool exotic = false;  // something the C library reads differently
    const std::uint8_t flags = input.byte();
    for (int bit = 0; bit < 5; ++bit) {
        if ((flags & (1u << bit)) != 0) {
            text += "-+ #0"[bit];
        }
    }
    switch (input.byte() % 3) {
        case 1:
            text += decimal(1 + input.byte() % 200);
            break;
        case 2: {
            text += '*';
            const int width = starValue(input);
            exotic = exotic || width == INT_MIN;
            arguments.add(static_cast<std::uint64_t>(static_cast<std::int64_t>(width)));
            break;
        }
        default:
            break;
    }
    int precision = -1;  // in effect, as the formatter will see it
    switch (input.byte() % 4) {
        case 1:
            text += '.';
            precision = 0;
            break;
        case 2:
            precision = input.byte() % 200;
            text += "." + decimal(static_cast<unsigned>(precision));
            break;
        case 3: {
            text += ".*";
            const int value = starValue(input);
            precision = value < 0 ? -1 : value;
            arguments.add(static_cast<std::uint64_t>(static_cast<std::int64_t>(value)));
            break;
        }
        default:
            break;
    }
    const std::string_view prefix = kPrefixes[input.byte() % std::size(kPrefixes)];
    text += prefix;
    const std::uint8_t choice = input.byte();
    char16_t conversion = 0;
    if (choice < 200) {
        conversion = kConversions[choice % (std::size(kConversions) - 1)];
    } else if (choice < 250) {
        conversion = input.unit();
        if (conversion == 0 || kDirectiveUnits.find(conversion) != std::u16string_view::npos) {
            conversion = u'y';
        }
    } else {
        // The format ends inside the directive.
        format.append(text.begin(), text.end());
        return false;
    }
    switch (kindOf(prefix, conversion)) {
        case Kind::Integer:
            arguments.add(input.bytes(8));
            break;
        case Kind::Double:
            arguments.add(input.bytes(8));
            break;
        case Kind::LongDouble: {
            std::uint8_t bytes[10];
            for (std::uint8_t& byte : bytes) {
                byte = input.byte();
            }
            arguments.addLongDouble(bytes);
            break;
        }
        case Kind::WideText: {
            const char16_t* value =
                (input.byte() % 8) == 0 ? nullptr : texts.wide(input, precision);
            arguments.add(reinterpret_cast<std::uintptr_t>(value));
            break;
        }
        case Kind::NarrowText: {
            const char* value = (input.byte() % 8) == 0 ? nullptr : texts.narrow(input, precision);
            arguments.add(reinterpret_cast<std::uintptr_t>(value));
            break;
        }
        case Kind::None:
            break;
    }
    format.append(text.begin(), text.end());
    format.push_back(conversion);
    const bool portablePrefix = prefix.empty() || prefix == "h" || prefix == "hh" || prefix == "ll";
    if (!exotic && portablePrefix && conversion < 0x80 &&
        std::string_view("diuoxX").find(static_cast<char>(conversion)) != std::string_view::npos) {
        comparable.push_back({text + static_cast<char>(conversion), firstSlot});
    }
    return true;
}

std::u16string formatWith(const std::u16string& format, Arguments& arguments, std::size_t first) {
    va_list list;
    pointAt(list, arguments.exactCopy(first));
    return strings::formatWide(format.c_str(), list);
}

// The counted formatter's rules for a buffer of `count` units.
void checkCounted(const std::u16string& format, Arguments& arguments, const std::u16string& text,
                  std::size_t count) {
    va_list list;
    pointAt(list, arguments.exactCopy(0));
    check(strings::countedFormatWide(nullptr, 0, format.c_str(), list) ==
              static_cast<int>(text.size()),
          "a size query gives the text's length");

    std::unique_ptr<char16_t[]> buffer(new char16_t[count == 0 ? 1 : count]);
    pointAt(list, arguments.exactCopy(0));
    const int result = strings::countedFormatWide(buffer.get(), count, format.c_str(), list);
    if (text.size() < count) {
        check(result == static_cast<int>(text.size()), "a text that fits gives its length");
        check(std::u16string_view(buffer.get(), text.size() + 1) ==
                  std::u16string_view(text.c_str(), text.size() + 1),
              "a text that fits is written with its terminator");
    } else {
        check(result == (text.size() == count ? static_cast<int>(count) : -1),
              "a text that does not fit gives the count or -1");
        check(
            std::u16string_view(buffer.get(), count) == std::u16string_view(text).substr(0, count),
            "a text that does not fit fills the buffer");
    }

    if (count == 0) {
        return;
    }
    std::unique_ptr<char16_t[]> bounded(new char16_t[count]);
    pointAt(list, arguments.exactCopy(0));
    check(boundedFormatWide(bounded.get(), count, format.c_str(), list) == result,
          "the bounded formatter answers what the counted one does");
    std::u16string_view expected = std::u16string_view(text).substr(0, count - 1);
    expected = expected.substr(0, std::min(expected.size(), expected.find(u'\0')));
    check(std::u16string_view(bounded.get()) == expected,
          "the bounded formatter leaves a terminated prefix of the text");
}

// An integer directive prints what the C library prints.
void checkAgainstC(const Comparable& directive, Arguments& arguments) {
    const std::u16string wideFormat(directive.format.begin(), directive.format.end());
    const std::u16string ours = formatWith(wideFormat, arguments, directive.firstSlot);
    va_list list;
    pointAt(list, arguments.exactCopy(directive.firstSlot));
    char theirs[1024];
    const int length = std::vsnprintf(theirs, sizeof(theirs), directive.format.c_str(), list);
    check(length >= 0 && static_cast<std::size_t>(length) < sizeof(theirs),
          "the C library formats");
    check(ours == std::u16string(theirs, theirs + length),
          "an integer directive prints as the C library prints it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::u16string format;
    Arguments arguments;
    Texts texts;
    std::vector<Comparable> comparable;
    for (int piece = 0; piece < 16 && !input.empty(); ++piece) {
        const std::uint8_t kind = input.byte();
        if (kind % 3 != 0) {
            if (!addDirective(input, format, arguments, texts, comparable)) {
                break;
            }
            continue;
        }
        // Literal text: any units but the terminator and '%'.
        for (int length = input.byte() % 12; length > 0; --length) {
            char16_t unit = input.unit();
            format.push_back(unit == 0 || unit == u'%' ? u'.' : unit);
        }
    }
    const std::u16string text = formatWith(format, arguments, 0);
    checkCounted(format, arguments, text, input.byte() % (text.size() + 2));
    for (const Comparable& directive : comparable) {
        checkAgainstC(directive, arguments);
    }
    return 0;
}
