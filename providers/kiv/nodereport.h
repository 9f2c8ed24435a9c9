// Catalogue messages of the node operations: a message id and its arguments
// (texts and 32-bit numbers), reported through the coordinator at level 2.
#ifndef PROVIDERS_KIV_NODEREPORT_H_
#define PROVIDERS_KIV_NODEREPORT_H_

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <unicode/fmtable.h>
#include <unicode/unistr.h>

inline icu::Formattable textArgument(const std::u16string& text) {
    return icu::Formattable(
        icu::UnicodeString(text.data(), static_cast<std::int32_t>(text.size())));
}

inline icu::Formattable textArgument(const char16_t* text) {
    return icu::Formattable(icu::UnicodeString(text));
}

inline icu::Formattable numberArgument(std::uint32_t number) {
    return icu::Formattable(static_cast<std::int32_t>(number));
}

// Reports `key` with `arguments` at level 2 (warning).
void reportNodeMessage(const char* key, std::initializer_list<icu::Formattable> arguments);

#endif  // PROVIDERS_KIV_NODEREPORT_H_
