// An error made from an operating-system error code. Its code is the system
// code plus 4096; its text is the system message in English (United States).
#ifndef PROVIDERS_FIPROVLIB_WIN32ERROR_H_
#define PROVIDERS_FIPROVLIB_WIN32ERROR_H_

#include "fiprovlib/Error.h"

inline constexpr std::uint32_t kWin32ErrorBase = 0x1000;

class tarp_Win32Error : public tarp_Error {
  public:
    tarp_Win32Error(std::uint32_t systemCode, const char16_t* file, std::uint32_t line,
                    const char16_t* function);
    // A copy starts with its own (empty) text buffer.
    tarp_Win32Error(const tarp_Win32Error& other);
    tarp_Win32Error& operator=(const tarp_Win32Error&) = delete;
    ~tarp_Win32Error() override;

    // 0 -> 0, 8 -> 5, 127 -> 15, any other system code -> code().
    std::int32_t status() const override;
    // The system text, or "Unknown error".
    const char16_t* message() override;
    const char16_t* localizedMessage() override;
    const char16_t* kindName() const override;

  private:
    char16_t* systemText_ = nullptr;
};

#endif  // PROVIDERS_FIPROVLIB_WIN32ERROR_H_
