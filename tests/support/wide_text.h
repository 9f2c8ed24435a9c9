// UTF-16 ⇄ UTF-8 for tests: what a test writes as a narrow literal and what
// the code under test takes and gives as wide text. Conversion is ICU's, so a
// test never checks the product's own converters against themselves.
#ifndef TESTS_SUPPORT_WIDE_TEXT_H_
#define TESTS_SUPPORT_WIDE_TEXT_H_

#include <string>
#include <string_view>

namespace testsupport {

// Ill-formed input becomes U+FFFD, as ICU replaces it.
std::string utf8(std::u16string_view text);
std::u16string utf16(std::string_view text);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_WIDE_TEXT_H_
