// Operating-system errors: status mapping and the system's English text.
#include "fiprovlib/Win32Error.h"

#include "os/debug.h"
#include "os/error.h"

tarp_Win32Error::tarp_Win32Error(std::uint32_t systemCode, const char16_t* file, std::uint32_t line,
                                 const char16_t* function)
    : tarp_Error(systemCode + kWin32ErrorBase, file, line, function) {}

tarp_Win32Error::tarp_Win32Error(const tarp_Win32Error& other) : tarp_Error(other) {}

tarp_Win32Error::~tarp_Win32Error() {
    if (systemText_ != nullptr) {
        os::LocalFree(systemText_);
    }
}

std::int32_t tarp_Win32Error::status() const {
    switch (code() - kWin32ErrorBase) {
        case os::ERROR_SUCCESS:
            return 0;
        case os::ERROR_NOT_ENOUGH_MEMORY:
            return 5;
        case os::ERROR_PROC_NOT_FOUND:
            return 15;
        default:
            return static_cast<std::int32_t>(code());
    }
}

const char16_t* tarp_Win32Error::message() {
    if (systemText_ != nullptr) {
        return systemText_;
    }
    constexpr os::DWORD kFlags = os::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                 os::FORMAT_MESSAGE_IGNORE_INSERTS | os::FORMAT_MESSAGE_FROM_SYSTEM;
    char16_t* text = nullptr;
    os::DWORD length = os::FormatMessageW(kFlags, /*source=*/nullptr, code() - kWin32ErrorBase,
                                          os::LANG_ENGLISH_US, reinterpret_cast<os::LPWSTR>(&text),
                                          /*size=*/0, /*arguments=*/nullptr);
    if (length == 0 || text == nullptr) {
        return u"Unknown error";
    }
    systemText_ = text;
    return systemText_;
}

const char16_t* tarp_Win32Error::localizedMessage() {
    return message();
}

const char16_t* tarp_Win32Error::kindName() const {
    return u"Win32 Error Code";
}
