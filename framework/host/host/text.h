// Conversions between the plug-in's UTF-16 texts and the host's UTF-8.
#ifndef FRAMEWORK_HOST_HOST_TEXT_H_
#define FRAMEWORK_HOST_HOST_TEXT_H_

#include <string>
#include <string_view>

namespace host {

// UTF-8 of a NUL-terminated UTF-16 text; empty for null. An unpaired
// surrogate becomes U+FFFD.
std::string toUtf8(const char16_t* text);
std::string toUtf8(std::u16string_view text);
// UTF-16 of UTF-8 text; ill-formed bytes become U+FFFD, one for each maximal
// subpart (sim/text.h).
std::u16string toUtf16(std::string_view text);

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_TEXT_H_
