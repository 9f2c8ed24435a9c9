// Conversions between wide (UTF-16) and narrow text in a Windows code page.
// The product only ever passes CP_UTF8 (65001).
#ifndef PROVIDERS_INCLUDE_STRING_HELPER_H_
#define PROVIDERS_INCLUDE_STRING_HELPER_H_

#include <string>
#include <string_view>

#include "os/types.h"

// Invalid input follows the code page's own rules (an unpaired surrogate or an
// invalid byte sequence becomes U+FFFD). The internal consistency checks stop
// the process with a message naming this file and the line if they ever fail.
std::string toNarrow(std::u16string_view text, os::UINT codePage);
std::u16string toWide(std::string_view text, os::UINT codePage);

#endif  // PROVIDERS_INCLUDE_STRING_HELPER_H_
