// Tracing when memory runs out: the non-throwing operator new and new[] (used
// by the log writer and the depth registry) fail when a test asks.
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <thread>

#include "fiprovlib/TraceMethod.h"
#include "fiprovlib/Win32Error.h"
#include "support/log_capture.h"

namespace {

std::atomic<int> failingAllocations{0};

// True when this allocation is one of those a test asked to fail.
bool failThisAllocation() {
    for (int left = failingAllocations.load(); left > 0;) {
        if (failingAllocations.compare_exchange_weak(left, left - 1)) {
            return true;
        }
    }
    return false;
}

}  // namespace

// The memory comes from the throwing operator of the same form, so that the
// caller's later delete or delete[] matches (AddressSanitizer checks forms).
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (failThisAllocation()) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (failThisAllocation()) {
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace {

using testsupport::LogCapture;

TEST(TracingOutOfMemoryTest, LineIsDroppedWhenItsBufferCannotBeHad) {
    LogCapture capture;
    failingAllocations = 1;
    writeLog(kLogWarning, u"lost");
    EXPECT_EQ(failingAllocations.load(), 0);
    writeLog(kLogWarning, u"kept");
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_NE(capture.messages()[0].text.find(u"kept"), std::u16string::npos);
}

// Without a registry entry a thread's first trace object throws before it
// writes anything, and leaves nothing behind.
TEST(TracingOutOfMemoryTest, NewThreadWithoutRegistryEntryThrowsWin32Error) {
    LogCapture capture;
    std::thread([] {
        failingAllocations = 1;
        try {
            tarp_TraceMethod method(u"src", u"Op::first", 1);
            ADD_FAILURE() << "no error for the missing registry entry";
        } catch (tarp_Win32Error& error) {
            EXPECT_EQ(error.code(), 13u + kWin32ErrorBase);
            EXPECT_EQ(std::u16string(error.function()), u"tarp_TraceMethod::incThreadIndent");
            EXPECT_EQ(error.line(), 223u);
        }
        tarp_TraceMethod method(u"src", u"Op::second", 2);
        EXPECT_EQ(method.depth(), 0u);
        EXPECT_TRUE(method.counted());
    }).join();
    EXPECT_EQ(capture.messages().size(), 2u);  // Op::second's entry and exit
}

}  // namespace
