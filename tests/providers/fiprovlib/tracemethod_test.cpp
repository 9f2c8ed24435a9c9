// The log writer and method tracing: line layout and time stamp, buffer
// growth and cuts, line feeds, and the per-thread depth registry.
#include "fiprovlib/TraceMethod.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <latch>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "os/error.h"
#include "os/time.h"
#include "sim/clock.h"
#include "sim/hooks.h"
#include "support/child_process.h"
#include "support/log_capture.h"

namespace {

using testsupport::ascii;
using testsupport::LogCapture;

const std::regex kLinePattern(
    "^fikiv:(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
    "([ 1-3][0-9]) ([0-9]{4}) ([0-9]{2}):([0-9]{2}):([0-9]{2})\\.([0-9]{3})000 ([^]*)$");

// The message part of a log line after checking the prefix and time stamp.
::testing::AssertionResult messageOf(const std::u16string& line, std::string* message) {
    std::smatch match;
    const std::string text = ascii(line);
    if (!std::regex_match(text, match, kLinePattern)) {
        return ::testing::AssertionFailure() << "not a log line: \"" << text << "\"";
    }
    *message = match[9];
    return ::testing::AssertionSuccess();
}

std::vector<std::string> messageTexts(LogCapture& capture) {
    std::vector<std::string> texts;
    for (const auto& message : capture.messages()) {
        std::string text;
        EXPECT_TRUE(messageOf(message.text, &text));
        texts.push_back(text);
    }
    return texts;
}

TEST(WriteLogTest, LinesBeforeTheContextIsSetAreDropped) {
    setLogContext(nullptr);
    {
        tarp_TraceMethod early(u"providers\\kiv\\kivnode", u"KivNode::early", 10);
        early.traceFormat(u"dropped %d", 1);
        writeLog(kLogWarning, u"dropped too");
    }
    LogCapture capture;
    { tarp_TraceMethod method(u"providers\\kiv\\kivconfig", u"KivConfig::set", 344); }
    EXPECT_EQ(messageTexts(capture),
              (std::vector<std::string>{
                  "Entering Function KivConfig::set[344, providers\\kiv\\kivconfig]\n",
                  "Exiting Function KivConfig::set[344, providers\\kiv\\kivconfig]\n"}));
    for (const auto& message : capture.messages()) {
        EXPECT_EQ(message.level, kLogTrace);
        EXPECT_FALSE(message.hasSecond);
    }
}

// Under the virtual clock time stands still, so the stamp can be predicted
// exactly: 5 seconds and 7 milliseconds past the minute end in :05.007000.
TEST(WriteLogTest, TimeStampOfAKnownTime) {
    sim::useVirtualClock(true);
    os::SYSTEMTIME now{};
    os::GetLocalTime(&now);
    const int intoMinute = now.wSecond * 1000 + now.wMilliseconds;
    sim::advanceVirtualClock(static_cast<std::uint64_t>((5007 - intoMinute + 60000) % 60000));
    os::GetLocalTime(&now);
    LogCapture capture;
    writeLog(kLogInformation, u"known");
    sim::useVirtualClock(false);

    ASSERT_EQ(now.wSecond, 5);
    ASSERT_EQ(now.wMilliseconds, 7);
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char expected[64];
    std::snprintf(expected, sizeof(expected), "fikiv:%s %s %2d %04d %02d:%02d:05.007000 known\n",
                  kDays[now.wDayOfWeek], kMonths[now.wMonth - 1], now.wDay, now.wYear, now.wHour,
                  now.wMinute);
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(ascii(capture.messages()[0].text), expected);
}

TEST(WriteLogTest, LineFeedsAndLevels) {
    struct Row {
        const char* name;
        std::uint32_t level;
        const char16_t* format;
        const char16_t* argument;
        std::string expected;
    };
    const Row rows[] = {
        {"line feed appended", kLogInformation, u"%s", u"plain", "plain\n"},
        {"line feed kept single", kLogWarning, u"%s", u"ends\n", "ends\n"},
        {"percent in argument", kLogInformation, u"%s", u"95% [%lu MB]", "95% [%lu MB]\n"},
        {"empty message", kLogTrace, u"%s", u"", "\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        writeLog(row.level, row.format, row.argument);
        ASSERT_EQ(capture.messages().size(), 1u);
        std::string message;
        ASSERT_TRUE(messageOf(capture.messages()[0].text, &message));
        EXPECT_EQ(message, row.expected);
        EXPECT_EQ(capture.messages()[0].level, row.level);
    }
}

TEST(WriteLogTest, LongMessagesArriveWhole) {
    for (std::size_t length : {510u, 511u, 512u, 600u, 1023u, 1024u, 5000u}) {
        SCOPED_TRACE(length);
        LogCapture capture;
        const std::u16string text(length, u'x');
        writeLog(kLogInformation, u"%s", text.c_str());
        ASSERT_EQ(capture.messages().size(), 1u);
        std::string message;
        ASSERT_TRUE(messageOf(capture.messages()[0].text, &message));
        EXPECT_EQ(message, std::string(length, 'x') + "\n");
    }
}

TEST(WriteLogTest, LastErrorIsLeftAlone) {
    LogCapture capture;
    os::SetLastError(0xDEADBEEF);
    {
        tarp_TraceMethod method(u"src", u"Op::run", 1);
        method.traceFormat(u"x");
    }
    EXPECT_EQ(os::GetLastError(), 0xDEADBEEFu);
}

TEST(TraceFormatTest, CutsAndLineFeeds) {
    struct Row {
        const char* name;
        std::u16string argument;
        std::string expected;
    };
    const Row rows[] = {
        {"short gets a line feed", u"hello", "hello\n"},
        {"510 gets a line feed", std::u16string(510, u'y'), std::string(510, 'y') + "\n"},
        {"511 has no room for one", std::u16string(511, u'y'), std::string(511, 'y') + "\n"},
        {"600 is cut to 511", std::u16string(600, u'y'), std::string(511, 'y') + "\n"},
        {"2000 is cut to 511", std::u16string(2000, u'y'), std::string(511, 'y') + "\n"},
        {"percent sign unchanged", u"INFO: 95% [%lu MB]", "INFO: 95% [%lu MB]\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        {
            tarp_TraceMethod message(u"providers\\kiv\\kivnode", u"KivNode::prepare", 77);
            message.traceFormat(u"%s", row.argument.c_str());
        }
        const std::vector<std::string> texts = messageTexts(capture);
        ASSERT_EQ(texts.size(), 3u);
        EXPECT_EQ(texts[0], "Entering Function KivNode::prepare[77, providers\\kiv\\kivnode]\n");
        EXPECT_EQ(texts[1], row.expected);
        EXPECT_EQ(texts[2], "Exiting Function KivNode::prepare[77, providers\\kiv\\kivnode]\n");
    }
}

TEST(TraceFormatTest, FormatEndingInLineFeedGivesTwo) {
    LogCapture capture;
    {
        tarp_TraceMethod message(u"providers\\kiv\\kivnode", u"KivNode::queryOperation", 5);
        message.traceFormat(u"%s( op==%i ) unrecognized operation\n", u"KivNode::queryOperation",
                            9);
    }
    const std::vector<std::string> texts = messageTexts(capture);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[1], "KivNode::queryOperation( op==9 ) unrecognized operation\n\n");
}

TEST(TraceMethodTest, ExitLineIsWrittenWhenAnExceptionLeaves) {
    LogCapture capture;
    try {
        tarp_TraceMethod method(u"src", u"Op::fail", 3);
        throw 7;
    } catch (int) {
    }
    const std::vector<std::string> texts = messageTexts(capture);
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[1], "Exiting Function Op::fail[3, src]\n");
    EXPECT_EQ(tarp_TraceMethod::currentThreadDepth(), 0u);
}

struct NestedDepths {
    std::array<std::uint32_t, 25> depths{};
    std::array<bool, 25> counted{};
    std::uint32_t deepest = 0;
    std::uint32_t afterwards = 99;
};

// Opens 25 nested trace objects on the calling thread; `atDepth` runs while
// all of them are alive.
NestedDepths nestTwentyFive(const std::function<void()>& atDepth = [] {}) {
    NestedDepths result;
    {
        std::vector<std::unique_ptr<tarp_TraceMethod>> stack;
        for (std::size_t i = 0; i < result.depths.size(); ++i) {
            stack.push_back(std::make_unique<tarp_TraceMethod>(u"src", u"Op::nest", 1));
            result.depths[i] = stack.back()->depth();
            result.counted[i] = stack.back()->counted();
        }
        result.deepest = tarp_TraceMethod::currentThreadDepth();
        atDepth();
        while (!stack.empty()) {
            stack.pop_back();
        }
    }
    result.afterwards = tarp_TraceMethod::currentThreadDepth();
    return result;
}

void expectCappedNesting(const NestedDepths& result) {
    for (std::size_t i = 0; i < result.depths.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(result.depths[i], std::min<std::uint32_t>(i, kMaxTraceDepth));
        EXPECT_EQ(result.counted[i], i < kMaxTraceDepth);
    }
    EXPECT_EQ(result.deepest, kMaxTraceDepth);
    EXPECT_EQ(result.afterwards, 0u);
}

TEST(TraceMethodTest, DepthIsCappedAtTwentyAndUnwindsToZero) {
    expectCappedNesting(nestTwentyFive());
}

TEST(TraceMethodTest, EachThreadHasItsOwnDepth) {
    constexpr int kThreads = 4;
    std::latch allDeep(kThreads + 1);
    std::latch release(1);
    std::vector<NestedDepths> results(kThreads);
    std::vector<std::thread> threads;
    tarp_TraceMethod outer(u"src", u"Main::outer", 1);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            results[i] = nestTwentyFive([&] {
                allDeep.count_down();
                release.wait();
            });
        });
    }
    allDeep.count_down();
    allDeep.wait();
    // Every thread is 25 deep now; this one is still one deep.
    EXPECT_EQ(tarp_TraceMethod::currentThreadDepth(), 1u);
    release.count_down();
    for (auto& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < kThreads; ++i) {
        SCOPED_TRACE(i);
        expectCappedNesting(results[i]);
    }
}

TEST(TraceMethodTest, ConcurrentTracingReachesTheSink) {
    LogCapture capture;
    constexpr int kThreads = 4;
    constexpr int kCalls = 50;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int call = 0; call < kCalls; ++call) {
                tarp_TraceMethod method(u"src", u"Op::busy", 2);
                method.traceFormat(u"call %d", call);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> texts = messageTexts(capture);
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kCalls * 3));
}

FIKIV_CHILD_ROLE(freshPluginName) {
    testsupport::ChildChecks checks;
    FIKIV_CHILD_FAIL_IF(checks, pluginName() != u"<Plugin name not set>");
    LogCapture capture;  // sets "fikiv"
    setPluginName(u"other");
    writeLog(kLogInformation, u"named");
    const auto messages = capture.messages();
    FIKIV_CHILD_FAIL_IF(checks,
                        messages.size() != 1 || ascii(messages[0].text).rfind("other:", 0) != 0);
    return checks.failures();
}

TEST(PluginNameTest, StartsUnsetAndCanBeReplaced) {
    EXPECT_EQ(testsupport::waitChild(testsupport::startChild("freshPluginName")), 0);
}

}  // namespace
