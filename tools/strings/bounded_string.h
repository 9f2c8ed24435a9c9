// Bounded formatting, copying and appending into fixed buffers.
//
// None of these routines writes past the capacity it is given (counted in
// characters of the buffer's own width), and every routine that writes leaves
// a terminated string. Truncation is reported through the result. No state;
// safe on any thread.
#ifndef TOOLS_STRINGS_BOUNDED_STRING_H_
#define TOOLS_STRINGS_BOUNDED_STRING_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// printf into a narrow buffer, with the C library's own formatter and sizes
// (the compiler checks the arguments). Returns the characters written when
// the text fits (n < capacity); otherwise terminates at the last position and
// returns capacity - 1. A null buffer or a capacity of 0 gives -1 and writes
// nothing.
std::int32_t boundedFormat(char* buffer, std::size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Wide printf with the semantics of the Windows counted wide formatter: %s and
// %ls are UTF-16 strings, %hs and %S narrow (UTF-8) strings, %c a UTF-16 unit,
// %hc/%C a narrow character, plus the integer, pointer and floating
// conversions with flags, width, precision ('*' too) and the size prefixes h,
// hh, l, ll, I64, I32, I, z, j, t (strings/wide_format.h lists them all).
// Sizes follow 64-bit Windows (LLP64), not Linux: long is 32 bits, so %lu and
// %ld read a 32-bit argument; pass 64-bit values with %llu or %I64u.
// Returns the count written when the text fits, the capacity when it fills the
// buffer exactly (its last character is then lost to the terminator), and -1
// when it is longer; the buffer always holds a terminated prefix of the text.
// Capacity 0 gives -1; so does a failed allocation of the scratch space, which
// leaves the buffer unchanged.
std::int32_t boundedFormatWide(char16_t* buffer, std::size_t capacity, const char16_t* format,
                               va_list arguments);
std::int32_t boundedFormatWide(char16_t* buffer, std::size_t capacity, const char16_t* format, ...);

// Copies at most capacity - 1 characters of `source` and terminates. Returns
// the characters copied; 0 (nothing written) for capacity 0 or a null pointer.
std::size_t boundedCopy(char16_t* destination, const char16_t* source, std::size_t capacity);

// Appends `source` to the terminated string in `destination` (capacity counts
// the whole destination). Appends only when more than one character of room
// is left; returns the characters appended.
std::size_t boundedAppend(char16_t* destination, const char16_t* source, std::size_t capacity);

// Sets *length to 0, then to the position of the terminator within `capacity`
// characters. Returns 0, or -1 for a null string or no terminator in range.
std::int32_t boundedLength(const char16_t* string, std::size_t capacity, std::size_t* length);

#endif  // TOOLS_STRINGS_BOUNDED_STRING_H_
