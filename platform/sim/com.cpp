// The COM thread number: each thread gets the next number the first time it
// asks, so numbers are unique for the life of the process and never reused
// (unlike Linux thread ids, which a later thread may get again).
#include "os/com.h"

#include <atomic>

namespace os {

DWORD CoGetCurrentProcess() {
    static std::atomic<DWORD> next{1};
    thread_local DWORD number = 0;
    if (number == 0) {
        number = next.fetch_add(1, std::memory_order_relaxed);
    }
    return number;
}

}  // namespace os
