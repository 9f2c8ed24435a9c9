// Bounded formatting, copying and appending.
#include "strings/bounded_string.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "strings/wide_format.h"

std::int32_t boundedFormat(char* buffer, std::size_t capacity, const char* format, ...) {
    if (buffer == nullptr || capacity == 0) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    int written = std::vsnprintf(buffer, capacity, format, arguments);
    va_end(arguments);
    if (written >= 0 && static_cast<std::size_t>(written) < capacity) {
        return written;
    }
    buffer[capacity - 1] = '\0';
    return static_cast<std::int32_t>(capacity - 1);
}

std::int32_t boundedFormatWide(char16_t* buffer, std::size_t capacity, const char16_t* format,
                               va_list arguments) {
    if (capacity == 0) {
        return -1;
    }
    // The counted formatter may leave its last unit unterminated, so it works
    // in a scratch array and only a terminated prefix reaches the caller.
    char16_t* scratch = new (std::nothrow) char16_t[capacity];
    if (scratch == nullptr) {
        return -1;
    }
    int result = strings::countedFormatWide(scratch, capacity, format, arguments);
    scratch[capacity - 1] = 0;
    boundedCopy(buffer, scratch, capacity);
    delete[] scratch;
    return result;
}

std::int32_t boundedFormatWide(char16_t* buffer, std::size_t capacity, const char16_t* format,
                               ...) {
    va_list arguments;
    va_start(arguments, format);
    std::int32_t result = boundedFormatWide(buffer, capacity, format, arguments);
    va_end(arguments);
    return result;
}

std::size_t boundedCopy(char16_t* destination, const char16_t* source, std::size_t capacity) {
    if (capacity == 0 || destination == nullptr || source == nullptr) {
        return 0;
    }
    std::size_t length = 0;
    if (boundedLength(source, capacity, &length) != 0) {
        length = capacity - 1;
    }
    if (length > capacity - 1) {
        length = capacity - 1;
    }
    std::memmove(destination, source, length * sizeof(char16_t));
    destination[length] = 0;
    return length;
}

std::size_t boundedAppend(char16_t* destination, const char16_t* source, std::size_t capacity) {
    if (capacity == 0 || destination == nullptr || source == nullptr) {
        return 0;
    }
    std::size_t length = 0;
    std::size_t room = 0;
    if (boundedLength(destination, capacity, &length) == 0) {
        room = capacity - length;
    }
    if (room <= 1) {
        return 0;
    }
    return boundedCopy(destination + length, source, room);
}

std::int32_t boundedLength(const char16_t* string, std::size_t capacity, std::size_t* length) {
    *length = 0;
    if (string == nullptr) {
        return -1;
    }
    for (std::size_t at = 0; at < capacity; ++at) {
        if (string[at] == 0) {
            *length = at;
            return 0;
        }
    }
    return -1;
}
