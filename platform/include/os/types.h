// Win32 base types and constants used by the plug-in, the driver and the agent.
//
// Wide text is UTF-16 (char16_t) everywhere, never wchar_t. Handles are opaque
// pointer-sized values; NULL and INVALID_HANDLE_VALUE both mean "no handle".
#ifndef PLATFORM_INCLUDE_OS_TYPES_H_
#define PLATFORM_INCLUDE_OS_TYPES_H_

#include <cstdint>

namespace os {

using BOOL = int;
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using ULONGLONG = std::uint64_t;
using DWORD_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using WCHAR = char16_t;
using LPWSTR = char16_t*;
using LPCWSTR = const char16_t*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPVOID = void*;
using LPCVOID = const void*;
using HANDLE = void*;
using HLOCAL = void*;

struct HINSTANCE__;
using HMODULE = HINSTANCE__*;
using FARPROC = void (*)();

constexpr BOOL TRUE = 1;
constexpr BOOL FALSE = 0;
constexpr DWORD MAX_PATH = 260;

// INVALID_HANDLE_VALUE cannot be constexpr (it is a pointer made from an integer).
inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};
using PULARGE_INTEGER = ULARGE_INTEGER*;

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_TYPES_H_
