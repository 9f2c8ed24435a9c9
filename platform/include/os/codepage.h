// Code-page conversion. Only CP_UTF8 (65001) is supported.
#ifndef PLATFORM_INCLUDE_OS_CODEPAGE_H_
#define PLATFORM_INCLUDE_OS_CODEPAGE_H_

#include "os/types.h"

namespace os {

constexpr UINT CP_UTF8 = 65001;
constexpr DWORD MB_ERR_INVALID_CHARS = 0x00000008;
constexpr DWORD WC_ERR_INVALID_CHARS = 0x00000080;

// UTF-16 to UTF-8 with the Windows rules: `wideCount` -1 means up to and
// including the terminator; `multiByteCount` 0 asks for the size needed. An
// unpaired surrogate becomes U+FFFD (EF BF BD) unless WC_ERR_INVALID_CHARS is
// given, then 0 with ERROR_NO_UNICODE_TRANSLATION. A buffer too small gives 0
// with ERROR_INSUFFICIENT_BUFFER. Other code pages: 0, ERROR_INVALID_PARAMETER.
// `defaultChar` and `usedDefaultChar` must be null for UTF-8.
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wideString, int wideCount,
                        LPSTR multiByteString, int multiByteCount, LPCSTR defaultChar,
                        BOOL* usedDefaultChar);
// UTF-8 to UTF-16 with the Windows rules: each invalid byte sequence becomes
// U+FFFD unless MB_ERR_INVALID_CHARS is given, then 0 with
// ERROR_NO_UNICODE_TRANSLATION.
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR multiByteString, int multiByteCount,
                        LPWSTR wideString, int wideCount);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_CODEPAGE_H_
