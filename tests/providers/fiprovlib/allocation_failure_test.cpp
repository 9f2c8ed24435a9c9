// Tracing when memory runs out. This program replaces the non-throwing
// operator new and new[], which the log writer and the depth registry use, so
// that a test can make the next such allocations fail.
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

// The memory itself comes from the throwing operator of the same form, so
// that the delete or delete[] the caller uses later matches the allocation
// whatever allocator the program runs with (AddressSanitizer checks that the
// forms match, and malloc'ed memory freed with delete[] does not).
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

TEST(TracingOutOfMemoryTest, NewThreadWithoutRegistryEntryThrowsWin32Error) {
    LogCapture capture;
    bool thrown = false;
    std::uint32_t code = 0;
    std::u16string function;
    std::uint32_t line = 0;
    std::thread([&] {
        failingAllocations = 1;
        try {
            tarp_TraceMethod method(u"src", u"Op::first", 1);
        } catch (tarp_Win32Error& error) {
            thrown = true;
            code = error.code();
            function = error.function();
            line = error.line();
        }
        // The failed attempt left no entry behind: the next object makes one.
        tarp_TraceMethod method(u"src", u"Op::second", 2);
        EXPECT_EQ(method.depth(), 0u);
        EXPECT_TRUE(method.counted());
    }).join();
    ASSERT_TRUE(thrown);
    EXPECT_EQ(code, 13u + kWin32ErrorBase);
    EXPECT_EQ(function, u"tarp_TraceMethod::incThreadIndent");
    EXPECT_EQ(line, 223u);
    // Nothing was written for the object that failed.
    EXPECT_EQ(capture.messages().size(), 2u);
}

}  // namespace
