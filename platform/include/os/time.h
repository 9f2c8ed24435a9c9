// Clock: local and UTC time, tick count and Sleep. Every wait of the product
// (Sleep, mutex time-outs) is measured by this clock.
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

// The current date and time in the machine's time zone.
void GetLocalTime(SYSTEMTIME* systemTime);
// The current date and time in UTC.
void GetSystemTime(SYSTEMTIME* systemTime);
// Milliseconds since the system started.
ULONGLONG GetTickCount64();
// Suspends the calling thread for `milliseconds`; 0 gives up the rest of its
// time slice.
void Sleep(DWORD milliseconds);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_TIME_H_
