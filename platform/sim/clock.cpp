// Time of day, tick count and Sleep on the platform clock, and the timed-wait
// helper that lets waits run on the virtual clock (sim/clock.h).
#include "sim/clock.h"

#include <cerrno>
#include <ctime>

#include "os/time.h"
#include "os_call.h"
#include "sim/hooks.h"
#include "sim/observer.h"

namespace sim {

bool advanceOrWait(std::uint32_t timeoutMs,
                   const std::function<bool(const struct timespec* deadline)>& realWait) {
    constexpr std::uint32_t kInfinite = 0xFFFFFFFF;
    if (timeoutMs == 0) {
        return false;
    }
    if (timeoutMs != kInfinite && virtualClockOn()) {
        recordWait(timeoutMs);
        return false;
    }
    if (timeoutMs == kInfinite) {
        return realWait(nullptr);
    }
    struct timespec deadline {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    const std::int64_t nanoseconds = deadline.tv_nsec + std::int64_t{timeoutMs % 1000} * 1000000;
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000 + nanoseconds / 1000000000);
    deadline.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return realWait(&deadline);
}

}  // namespace sim

namespace os {
namespace {

void fill(SYSTEMTIME* out, const std::tm& parts, std::int64_t milliseconds) {
    out->wYear = static_cast<WORD>(parts.tm_year + 1900);
    out->wMonth = static_cast<WORD>(parts.tm_mon + 1);
    out->wDayOfWeek = static_cast<WORD>(parts.tm_wday);
    out->wDay = static_cast<WORD>(parts.tm_mday);
    out->wHour = static_cast<WORD>(parts.tm_hour);
    out->wMinute = static_cast<WORD>(parts.tm_min);
    // A leap second (60) is folded into 59, which SYSTEMTIME can hold.
    out->wSecond = static_cast<WORD>(parts.tm_sec > 59 ? 59 : parts.tm_sec);
    out->wMilliseconds = static_cast<WORD>(milliseconds);
}

void split(std::int64_t epochMs, std::time_t* seconds, std::int64_t* milliseconds) {
    std::int64_t whole = epochMs / 1000;
    std::int64_t rest = epochMs % 1000;
    if (rest < 0) {
        rest += 1000;
        whole -= 1;
    }
    *seconds = static_cast<std::time_t>(whole);
    *milliseconds = rest;
}

}  // namespace

void GetSystemTime(SYSTEMTIME* systemTime) {
    sim::faultOnEntry<"GetSystemTime">(nullptr);
    if (systemTime == nullptr) {
        return;
    }
    std::time_t seconds = 0;
    std::int64_t milliseconds = 0;
    split(sim::wallClockMs(), &seconds, &milliseconds);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    fill(systemTime, parts, milliseconds);
}

void GetLocalTime(SYSTEMTIME* systemTime) {
    sim::faultOnEntry<"GetLocalTime">(nullptr);
    if (systemTime == nullptr) {
        return;
    }
    std::time_t seconds = 0;
    std::int64_t milliseconds = 0;
    split(sim::wallClockMs(), &seconds, &milliseconds);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    fill(systemTime, parts, milliseconds);
}

ULONGLONG GetTickCount64() {
    sim::faultOnEntry<"GetTickCount64">(nullptr);
    return sim::nowMs();
}

void Sleep(DWORD milliseconds) {
    // Sleep cannot fail; a fault registered for it only counts the call.
    sim::faultOnEntry<"Sleep">(nullptr);
    sim::notifySleep(milliseconds);
    if (sim::virtualClockOn()) {
        sim::recordSleep(milliseconds);
        return;
    }
    struct timespec remaining {
        static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L
    };
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

}  // namespace os
