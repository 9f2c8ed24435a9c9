// The log writer and method tracing: layout, time stamp, buffer growth and
// cuts, line feeds, and the per-thread depth registry.
#include "fiprovlib/TraceMethod.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
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
#include "support/wide_text.h"

namespace {

using testsupport::ascii;
using testsupport::LogCapture;

const std::regex kLinePattern(
    "^fikiv:(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
    "([ 1-3][0-9]) ([0-9]{4}) ([0-9]{2}):([0-9]{2}):([0-9]{2})\\.([0-9]{3})000 ([^]*)$");

// The message part of each captured line, after checking prefix and stamp.
std::vector<std::string> messageTexts(LogCapture& capture) {
    std::vector<std::string> texts;
    for (const auto& message : capture.messages()) {
        std::smatch match;
        const std::string line = ascii(message.text);
        EXPECT_TRUE(std::regex_match(line, match, kLinePattern)) << "not a log line: " << line;
        texts.push_back(match.empty() ? line : match[9].str());
    }
    return texts;
}

// Without the host's context lines go nowhere; with it, entry and exit are
// traced, also through an exception, and the last error is left alone.
TEST(WriteLogTest, LinesNeedAContextAndLeaveLastErrorAlone) {
    setLogContext(nullptr);
    {
        tarp_TraceMethod early(u"providers\\kiv\\kivnode", u"KivNode::early", 10);
        early.traceFormat(u"dropped %d", 1);
        writeLog(kLogWarning, u"dropped too");
    }
    LogCapture capture;
    os::SetLastError(0xDEADBEEF);
    try {
        tarp_TraceMethod method(u"providers\\kiv\\kivconfig", u"KivConfig::set", 344);
        throw 7;
    } catch (int) {
    }
    EXPECT_EQ(os::GetLastError(), 0xDEADBEEFu);
    EXPECT_EQ(tarp_TraceMethod::currentThreadDepth(), 0u);
    EXPECT_EQ(messageTexts(capture),
              (std::vector<std::string>{
                  "Entering Function KivConfig::set[344, providers\\kiv\\kivconfig]\n",
                  "Exiting Function KivConfig::set[344, providers\\kiv\\kivconfig]\n"}));
    for (const auto& message : capture.messages()) {
        EXPECT_EQ(message.level, kLogTrace);
        EXPECT_FALSE(message.hasSecond);
    }
}

// Under the virtual clock 5.007 s past the minute stamps :05.007000.
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
    std::tm date{};  // the C library names the day and month
    date.tm_wday = now.wDayOfWeek;
    date.tm_mon = now.wMonth - 1;
    char names[16];
    std::strftime(names, sizeof(names), "%a %b", &date);
    char expected[64];
    std::snprintf(expected, sizeof(expected), "fikiv:%s %2d %04d %02d:%02d:05.007000 known\n",
                  names, now.wDay, now.wYear, now.wHour, now.wMinute);
    EXPECT_EQ(capture.texts(kLogInformation),
              std::vector<std::u16string>{testsupport::utf16(expected)});
}

// The buffer starts at 512 units and grows: any message arrives whole, with
// one line feed at its end.
TEST(WriteLogTest, LineFeedsLevelsAndLongMessages) {
    // clang-format off
    struct Row { const char* name; std::uint32_t level; std::u16string argument; std::string expected; };
    const Row rows[] = {
        {"LineFeedAppended",   kLogInformation, u"plain",                   "plain\n"},
        {"LineFeedKeptSingle", kLogWarning,     u"ends\n",                  "ends\n"},
        {"PercentInArgument",  kLogInformation, u"95% [%lu MB]",            "95% [%lu MB]\n"},
        {"EmptyMessage",       kLogTrace,       u"",                        "\n"},
        {"Long511",            kLogInformation, std::u16string(511, u'x'),  std::string(511, 'x') + "\n"},
        {"Long512",            kLogInformation, std::u16string(512, u'x'),  std::string(512, 'x') + "\n"},
        {"Long1024",           kLogInformation, std::u16string(1024, u'x'), std::string(1024, 'x') + "\n"},
        {"Long5000",           kLogInformation, std::u16string(5000, u'x'), std::string(5000, 'x') + "\n"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        writeLog(row.level, u"%s", row.argument.c_str());
        EXPECT_EQ(messageTexts(capture), std::vector<std::string>{row.expected});
        EXPECT_EQ(capture.texts(row.level).size(), 1u);
    }
}

// A traced text is cut to 511 units and gets a line feed when there is room,
// even after a format's own; the log writer adds one when still missing.
TEST(TraceFormatTest, CutsAndLineFeeds) {
    // clang-format off
    struct Row { const char* name; const char16_t* format; std::u16string argument; std::string expected; };
    const Row rows[] = {
        {"ShortGetsALineFeed",       u"%s",   u"hello",                    "hello\n"},
        {"Length510GetsALineFeed",   u"%s",   std::u16string(510, u'y'),   std::string(510, 'y') + "\n"},
        {"Length511HasNoRoomForOne", u"%s",   std::u16string(511, u'y'),   std::string(511, 'y') + "\n"},
        {"Length600IsCutTo511",      u"%s",   std::u16string(600, u'y'),   std::string(511, 'y') + "\n"},
        {"PercentSignUnchanged",     u"%s",   u"INFO: 95% [%lu MB]",       "INFO: 95% [%lu MB]\n"},
        {"FormatEndingInLineFeed",   u"%s\n", u"op==9 unrecognized",       "op==9 unrecognized\n\n"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        {
            tarp_TraceMethod message(u"providers\\kiv\\kivnode", u"KivNode::prepare", 77);
            message.traceFormat(row.format, row.argument.c_str());
        }
        const std::vector<std::string> texts = messageTexts(capture);
        ASSERT_EQ(texts.size(), 3u);
        EXPECT_EQ(texts[0], "Entering Function KivNode::prepare[77, providers\\kiv\\kivnode]\n");
        EXPECT_EQ(texts[1], row.expected);
        EXPECT_EQ(texts[2], "Exiting Function KivNode::prepare[77, providers\\kiv\\kivnode]\n");
    }
}

// Four threads nest 25 deep at once: each has its own depth, capped at twenty
// and unwound to zero, and every line of every thread reaches the host.
TEST(TraceMethodTest, EachThreadHasItsOwnCappedDepth) {
    constexpr int kThreads = 4;
    LogCapture capture;
    std::latch allDeep(kThreads + 1);
    std::latch release(1);
    tarp_TraceMethod outer(u"src", u"Main::outer", 1);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&] {
                std::vector<std::unique_ptr<tarp_TraceMethod>> stack;
                for (std::uint32_t i = 0; i < 25; ++i) {
                    stack.push_back(std::make_unique<tarp_TraceMethod>(u"src", u"Op::nest", 1));
                    EXPECT_EQ(stack.back()->depth(), std::min(i, kMaxTraceDepth)) << i;
                    EXPECT_EQ(stack.back()->counted(), i < kMaxTraceDepth) << i;
                }
                allDeep.count_down();
                release.wait();
                while (!stack.empty()) {
                    stack.pop_back();  // innermost first
                }
                EXPECT_EQ(tarp_TraceMethod::currentThreadDepth(), 0u);
            });
        }
        allDeep.arrive_and_wait();
        EXPECT_EQ(tarp_TraceMethod::currentThreadDepth(), 1u);  // the others are deep now
        release.count_down();
    }
    const std::vector<std::string> texts = messageTexts(capture);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "Entering Function Op::nest[1, src]\n"),
              kThreads * 25);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "Exiting Function Op::nest[1, src]\n"),
              kThreads * 25);
}

// Lines name the plug-in; a process that has not set a name yet says so.
FIKIV_CHILD_ROLE(freshPluginName) {
    testsupport::ChildChecks checks;
    FIKIV_CHILD_FAIL_IF(checks, pluginName() != u"<Plugin name not set>");
    return checks.failures();
}

TEST(PluginNameTest, StartsUnset) {
    EXPECT_EQ(testsupport::waitChild(testsupport::startChild("freshPluginName")), 0);
}

}  // namespace
