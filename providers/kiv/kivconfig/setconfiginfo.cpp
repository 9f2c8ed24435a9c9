// The settings document reader: a wide tokenizer that behaves as wcstok does
// on a private copy of the document, and the element grammar on top of it.
#include "kiv/kivconfig/setconfiginfo.h"

#include <new>
#include <string_view>
#include <utility>

#include "tarn/records.h"

namespace {

constexpr std::u16string_view kListStart = u"<SET_CONFIG_INFO_LIST>";
constexpr std::u16string_view kElementStart = u"<SET_CONFIG_INFO";
constexpr std::u16string_view kElementEnd = u"/>";
constexpr std::u16string_view kListEnd = u"</SET_CONFIG_INFO_LIST>";
constexpr std::u16string_view kNoValue = u";";
constexpr std::u16string_view kModeKey = u"cs_flags";

// The two delimiter sets the document is split with.
constexpr std::u16string_view kBlank = u" ";
constexpr std::u16string_view kEquals = u"=";

// Splits a writable NUL-terminated wide string into tokens the way wcstok
// does: each call skips the delimiters in front of the token, ends the token
// at the next delimiter (overwritten with NUL) or at the end of the text, and
// the next call continues behind it, possibly with another delimiter set.
class WideTokenizer final {
  public:
    explicit WideTokenizer(char16_t* text) : next_(text) {}

    // The next token, or an empty view (data() null) when only delimiters
    // remain; once exhausted, every later call answers the same.
    std::u16string_view take(std::u16string_view delimiters) {
        char16_t* cursor = next_;
        while (*cursor != u'\0' && isDelimiter(*cursor, delimiters)) {
            ++cursor;
        }
        if (*cursor == u'\0') {
            next_ = cursor;
            return {};
        }
        char16_t* start = cursor;
        while (*cursor != u'\0' && !isDelimiter(*cursor, delimiters)) {
            ++cursor;
        }
        std::u16string_view token(start, static_cast<std::size_t>(cursor - start));
        if (*cursor != u'\0') {
            *cursor = u'\0';
            ++cursor;
        }
        next_ = cursor;
        return token;
    }

  private:
    static bool isDelimiter(char16_t c, std::u16string_view delimiters) {
        return delimiters.find(c) != std::u16string_view::npos;
    }

    char16_t* next_;
};

bool present(std::u16string_view token) {
    return token.data() != nullptr;
}

// Reads the elements up to the list end into `entries`; 0 or 3.
std::int32_t readDocument(WideTokenizer& tokens, std::vector<std::u16string>& entries) {
    if (tokens.take(kBlank) != kListStart) {
        return kTarnInvalidRequest;
    }
    for (;;) {
        std::u16string_view current = tokens.take(kBlank);
        if (current == kListEnd) {
            return kTarnSuccess;  // whatever follows is not read
        }
        if (current != kElementStart) {
            return kTarnInvalidRequest;
        }
        // One element: pairs name=KEY name=VALUE until a token that begins
        // with the element end. A token that is neither starts another pair.
        for (;;) {
            if (!present(current)) {
                return kTarnInvalidRequest;
            }
            if (current.starts_with(kElementEnd)) {
                break;
            }
            std::u16string_view keyName = tokens.take(kEquals);
            std::u16string_view key = tokens.take(kBlank);
            std::u16string_view valueName = tokens.take(kEquals);
            std::u16string_view value = tokens.take(kBlank);
            if (keyName == kElementStart || key == kElementStart || valueName == kElementStart ||
                value == kElementStart) {
                return kTarnInvalidRequest;
            }
            if (!present(key) || !present(value)) {
                return kTarnInvalidRequest;
            }
            if (value != kNoValue) {
                std::u16string entry;
                entry.reserve(key.size() + 1 + value.size());
                entry.append(key).append(u"=").append(value);
                if (entry.find(kModeKey) == std::u16string::npos) {
                    entries.push_back(std::move(entry));
                }
            }
            current = tokens.take(kBlank);
            if (current == kElementStart) {
                return kTarnInvalidRequest;
            }
        }
    }
}

}  // namespace

std::int32_t parseSetConfigInfo(const char16_t* text, std::vector<std::u16string>& out) {
    if (text == nullptr) {
        return kTarnInvalidRequest;
    }
    try {
        // The tokenizer writes NULs into the text, so it works on a copy; the
        // entries are collected apart so that a rejected document adds nothing.
        std::u16string copy(text);
        WideTokenizer tokens(copy.data());
        std::vector<std::u16string> entries;
        std::int32_t result = readDocument(tokens, entries);
        if (result != kTarnSuccess) {
            return result;
        }
        out.reserve(out.size() + entries.size());
        for (std::u16string& entry : entries) {
            out.push_back(std::move(entry));
        }
        return kTarnSuccess;
    } catch (const std::bad_alloc&) {
        return kTarnInvalidRequest;
    }
}
