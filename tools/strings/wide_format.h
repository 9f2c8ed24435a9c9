// The counted wide formatter behind boundedFormatWide: printf over UTF-16 with
// the conventions of the Windows wide CRT, so that format strings written for
// Windows mean the same here.
//
// Conversions and their arguments (LLP64 sizes, as on 64-bit Windows):
//   %s %ls %ws      const char16_t*  UTF-16 text; null prints "(null)"
//   %hs %S          const char*      UTF-8 text, converted by MultiByteToWideChar
//                                    (ill-formed bytes print as U+FFFD); null
//                                    prints "(null)"; a precision counts bytes
//   %c %lc %wc      int              one UTF-16 unit
//   %hc %C          int              one narrow character (ASCII; others U+FFFD)
//   %d %i           int; with h short, hh signed char, l 32-bit (long is 32-bit
//                   on Windows), ll/I64 64-bit, I32 32-bit, I/z/t/j 64-bit
//   %u %o %x %X     the unsigned forms of the same sizes
//   %p              void*, 16 upper-case hex digits without prefix
//   %e %E %f %F %g %G %a %A   double (long double with L); %a defaults to
//                   13 fraction digits
//   %%              a percent sign
// Flags - + space # 0, width and precision (either may be '*', read from an
// int argument before the value; a negative '*' width left-justifies, a
// negative '*' precision counts as none). The 0 flag also pads strings and
// characters with zeros, as the Windows CRT does. %n and unknown conversions
// are written out literally and consume no argument.
//
// No state; safe on any thread.
#ifndef TOOLS_STRINGS_WIDE_FORMAT_H_
#define TOOLS_STRINGS_WIDE_FORMAT_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace strings {

// Formats into `buffer` of `count` units with the counted-formatter rules:
// returns the length when the text is shorter than `count` (and terminates
// it), `count` when the text is exactly `count` units long (no terminator is
// written), and -1 when it is longer (the first `count` units are written, no
// terminator). Nothing is ever written at or past buffer[count]. With a null
// buffer and a count of 0, returns the length the text needs.
int countedFormatWide(char16_t* buffer, std::size_t count, const char16_t* format,
                      va_list arguments);

// The whole formatted text.
std::u16string formatWide(const char16_t* format, va_list arguments);

}  // namespace strings

#endif  // TOOLS_STRINGS_WIDE_FORMAT_H_
