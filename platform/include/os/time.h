// Clock: local and UTC time, tick count and Sleep.
//
// Every wait of the product (Sleep, mutex time-outs) runs on the platform
// clock, which tests replace by a virtual one (sim/hooks.h).
#ifndef PLATFORM_INCLUDE_OS_TIME_H_
#define PLATFORM_INCLUDE_OS_TIME_H_

#include "os/types.h"

namespace os {

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;      // 1 = January
    WORD wDayOfWeek;  // 0 = Sunday
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

void GetLocalTime(SYSTEMTIME* systemTime);
void GetSystemTime(SYSTEMTIME* systemTime);
ULONGLONG GetTickCount64();
void Sleep(DWORD milliseconds);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_TIME_H_
