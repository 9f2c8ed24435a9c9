// Error objects: statuses, texts, hand-over to the framework, event log.
#include "fiprovlib/Error.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fiprovlib/Win32Error.h"
#include "support/log_capture.h"
#include "os/error.h"
#include "os/eventlog.h"
#include "sim/eventlog.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace {

using testsupport::LogCapture;

nlohmann::json smallMachine() {
    return {{"volumes", {testsupport::TempMachine::volume(1, {"C:\\"})}}};
}

TEST(Win32ErrorTest, CodesStatusesTextsAndCopies) {
    // clang-format off
    struct Row { std::uint32_t systemCode; std::uint32_t expectedCode; std::int32_t expectedStatus; std::u16string expectedMessage; };
    const Row rows[] = {
        {0, 4096, 0, u"The operation completed successfully.\r\n"},
        {5, 4101, 4101, u"Access is denied.\r\n"},
        {8, 4104, 5, u"Not enough memory resources are available to process this command.\r\n"},
        {127, 4223, 15, u"The specified procedure could not be found.\r\n"},
        {99999, 4096 + 99999, 4096 + 99999, u"Unknown error"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.systemCode);
        tarp_Win32Error error(row.systemCode, u"providers\\kiv\\kivnode", 12, u"KivNode::make");
        EXPECT_EQ(error.code(), row.expectedCode);
        EXPECT_EQ(error.status(), row.expectedStatus);
        EXPECT_EQ(std::u16string(error.kindName()), u"Win32 Error Code");
        EXPECT_EQ(std::u16string(error.message()), row.expectedMessage);
        EXPECT_EQ(std::u16string(error.localizedMessage()), row.expectedMessage);
        // A copy takes the code and place, and asks the system for its own text.
        tarp_Win32Error copy(error);
        EXPECT_EQ(copy.code(), row.expectedCode);
        EXPECT_EQ(copy.line(), 12u);
        EXPECT_EQ(std::u16string(copy.message()), row.expectedMessage);
    }
}

// The event carries the code and place, never a framework text; the same
// text goes to the debug output, cut to 256 units. Without an event source
// nothing is written.
TEST(ErrorReportTest, EventOfEachLevel) {
    const std::string longFile = "Error: 0x00001002, in file " + std::string(400, 'p');
    // clang-format off
    struct Row { const char* name; std::uint32_t level; std::uint32_t systemCode; std::u16string file; bool eventSource; std::uint16_t expectedType; std::string expectedText; };
    const Row rows[] = {
        {"Information",   1, 5, u"f",                    true,  os::EVENTLOG_INFORMATION_TYPE, "Error: 0x00001005, in file f, line 7\n"},
        {"Warning",       2, 5, u"f",                    true,  os::EVENTLOG_WARNING_TYPE,     "Error: 0x00001005, in file f, line 7\n"},
        {"Trace",         4, 5, u"f",                    true,  os::EVENTLOG_INFORMATION_TYPE, "Error: 0x00001005, in file f, line 7\n"},
        {"LevelZero",     0, 5, u"f",                    true,  os::EVENTLOG_ERROR_TYPE,       "Error: 0x00001005, in file f, line 7\n"},
        {"LongFileIsCut", 3, 2, std::u16string(400, u'p'), true,  os::EVENTLOG_ERROR_TYPE,     longFile.substr(0, 255)},
        {"NoEventSource", 3, 5, u"f",                    false, 0,                             ""},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        testsupport::TempMachine machine(smallMachine());
        LogCapture capture;
        sim::clearDebugOutput();
        if (!row.eventSource) {
            sim::injectFault("RegisterEventSourceW", os::ERROR_ACCESS_DENIED);
        }
        os::SetLastError(0xDEADBEEF);
        tarp_Win32Error(row.systemCode, row.file.c_str(), 7, u"fn").report(row.level);
        EXPECT_EQ(os::GetLastError(), 0xDEADBEEFu);
        EXPECT_TRUE(capture.messages().empty());

        const std::vector<sim::EventRecord> records = sim::readEventLog();
        if (!row.eventSource) {
            EXPECT_TRUE(records.empty());
            EXPECT_TRUE(sim::debugOutput().empty());
            continue;
        }
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].source, "fikiv");
        EXPECT_EQ(records[0].type, row.expectedType);
        EXPECT_EQ(records[0].category, 0);
        EXPECT_EQ(records[0].eventId, 0x1000u + row.systemCode);
        EXPECT_EQ(records[0].strings, std::vector<std::string>{row.expectedText});
        EXPECT_EQ(records[0].pid, ::getpid());
        EXPECT_EQ(sim::debugOutput(), std::vector<std::string>{row.expectedText});
    }
}

// The coordinator's tests see the reported case; here, the hand-over alone.
TEST(LogErrorTest, HandsBothTextsToTheFrameworkWithoutReport) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;
    tarp_Win32Error error(5, u"f", 30, u"fn");
    logError(error, kLogError, /*report=*/false);
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(capture.messages()[0].text, u"Access is denied.\r\n");
    ASSERT_TRUE(capture.messages()[0].hasSecond);
    EXPECT_EQ(capture.messages()[0].second, u"Access is denied.\r\n");
    EXPECT_EQ(capture.messages()[0].level, kLogError);
    EXPECT_TRUE(sim::readEventLog().empty());
}

}  // namespace
