// Debugger output and system message texts.
#ifndef PLATFORM_INCLUDE_OS_DEBUG_H_
#define PLATFORM_INCLUDE_OS_DEBUG_H_

#include "os/types.h"

namespace os {

constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
constexpr DWORD LANG_ENGLISH_US = 1033;

// Sends a line to the debugger, if one listens; never fails and leaves last
// error alone.
void OutputDebugStringW(LPCWSTR outputString);
// The system's text for the error code `messageId`. With
// FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ALLOCATE_BUFFER (the form this
// product uses), `buffer` is really an LPWSTR* that receives a LocalAlloc'ed
// text ending in "\r\n". Returns its length in characters, or 0 with
// ERROR_MR_MID_NOT_FOUND for a code without a text.
DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer,
                     DWORD size, void* arguments);
// Frees memory from FormatMessageW; returns NULL on success.
HLOCAL LocalFree(HLOCAL memory);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_DEBUG_H_
