// UTF-8 <-> UTF-16 conversion with the Windows rules for CP_UTF8: ill-formed
// input becomes U+FFFD (one per maximal subpart, see sim/text.h) or, with the
// error flag, fails with ERROR_NO_UNICODE_TRANSLATION; a count of -1 includes
// the terminator; an output size of 0 asks for the size needed.
#include "os/codepage.h"

#include <algorithm>
#include <string_view>

#include "os/error.h"
#include "sim/errors.h"
#include "sim/text.h"

namespace os {

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wideString, int wideCount,
                        LPSTR multiByteString, int multiByteCount, LPCSTR defaultChar,
                        BOOL* usedDefaultChar) {
    if (wideString == nullptr || wideCount == 0 || multiByteCount < 0 ||
        (multiByteString == nullptr && multiByteCount > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if (codePage != CP_UTF8) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if ((flags & ~WC_ERR_INVALID_CHARS) != 0) {
        return sim::fail(ERROR_INVALID_FLAGS, 0);
    }
    if (defaultChar != nullptr || usedDefaultChar != nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    std::size_t count = 0;
    if (wideCount < 0) {
        while (wideString[count] != 0) {
            ++count;
        }
        ++count;  // the terminator is converted too
    } else {
        count = static_cast<std::size_t>(wideCount);
    }
    std::u16string_view rest(wideString, count);
    std::size_t written = 0;
    char bytes[4];
    while (!rest.empty()) {
        const sim::Decoded one = sim::decodeUtf16(rest);
        if (!one.valid && (flags & WC_ERR_INVALID_CHARS) != 0) {
            return sim::fail(ERROR_NO_UNICODE_TRANSLATION, 0);
        }
        rest.remove_prefix(one.length);
        const std::size_t length = sim::encodeUtf8(one.value, bytes);
        if (multiByteCount > 0) {
            if (written + length > static_cast<std::size_t>(multiByteCount)) {
                return sim::fail(ERROR_INSUFFICIENT_BUFFER, 0);
            }
            std::copy(bytes, bytes + length, multiByteString + written);
        }
        written += length;
    }
    return static_cast<int>(written);
}

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR multiByteString, int multiByteCount,
                        LPWSTR wideString, int wideCount) {
    if (multiByteString == nullptr || multiByteCount == 0 || wideCount < 0 ||
        (wideString == nullptr && wideCount > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if (codePage != CP_UTF8) {
        return sim::fail(ERROR_INVALID_PARAMETER, 0);
    }
    if ((flags & ~MB_ERR_INVALID_CHARS) != 0) {
        return sim::fail(ERROR_INVALID_FLAGS, 0);
    }
    std::size_t count = 0;
    if (multiByteCount < 0) {
        while (multiByteString[count] != '\0') {
            ++count;
        }
        ++count;
    } else {
        count = static_cast<std::size_t>(multiByteCount);
    }
    std::string_view rest(multiByteString, count);
    std::size_t written = 0;
    char16_t units[2];
    while (!rest.empty()) {
        const sim::Decoded one = sim::decodeUtf8(rest);
        if (!one.valid && (flags & MB_ERR_INVALID_CHARS) != 0) {
            return sim::fail(ERROR_NO_UNICODE_TRANSLATION, 0);
        }
        rest.remove_prefix(one.length);
        const std::size_t length = sim::encodeUtf16(one.value, units);
        if (wideCount > 0) {
            if (written + length > static_cast<std::size_t>(wideCount)) {
                return sim::fail(ERROR_INSUFFICIENT_BUFFER, 0);
            }
            std::copy(units, units + length, wideString + written);
        }
        written += length;
    }
    return static_cast<int>(written);
}

}  // namespace os
