// Error objects: statuses, texts, the hand-over to the framework and the
// event-log report.
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

using testsupport::ascii;
using testsupport::LogCapture;

nlohmann::json smallMachine() {
    return {{"volumes", {testsupport::TempMachine::volume(1, {"C:\\"})}}};
}

TEST(Win32ErrorTest, CodesStatusesAndTexts) {
    struct Row {
        std::uint32_t systemCode;
        std::uint32_t expectedCode;
        std::int32_t expectedStatus;
        std::u16string expectedMessage;
    };
    const Row rows[] = {
        {0, 4096, 0, u"The operation completed successfully.\r\n"},
        {5, 4101, 4101, u"Access is denied.\r\n"},
        {8, 4104, 5, u"Not enough memory resources are available to process this command.\r\n"},
        {127, 4223, 15, u"The specified procedure could not be found.\r\n"},
        {2, 4098, 4098, u"The system cannot find the file specified.\r\n"},
        {13, 4109, 4109, u"The data is invalid.\r\n"},
        {99999, 4096 + 99999, 4096 + 99999, u"Unknown error"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.systemCode);
        tarp_Win32Error error(row.systemCode, u"providers\\kiv\\kivnode", 12, u"KivNode::make");
        EXPECT_EQ(error.code(), row.expectedCode);
        EXPECT_EQ(error.status(), row.expectedStatus);
        EXPECT_EQ(std::u16string(error.kindName()), u"Win32 Error Code");
        EXPECT_EQ(std::u16string(error.message()), row.expectedMessage);
        EXPECT_EQ(std::u16string(error.localizedMessage()), row.expectedMessage);
    }
}

TEST(Win32ErrorTest, CopyHasItsOwnText) {
    tarp_Win32Error original(5, u"f", 1, u"fn");
    const char16_t* originalText = original.message();
    tarp_Win32Error copy(original);
    EXPECT_EQ(copy.code(), original.code());
    EXPECT_EQ(copy.line(), 1u);
    const char16_t* copyText = copy.message();
    EXPECT_NE(copyText, originalText);
    EXPECT_EQ(std::u16string(copyText), std::u16string(originalText));
}

TEST(ErrorReportTest, EventTypeFollowsTheLevel) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;  // plug-in name "fikiv"
    struct Row {
        std::uint32_t level;
        std::uint16_t expectedType;
    };
    const Row rows[] = {
        {1, os::EVENTLOG_INFORMATION_TYPE}, {2, os::EVENTLOG_WARNING_TYPE},
        {3, os::EVENTLOG_ERROR_TYPE},       {4, os::EVENTLOG_INFORMATION_TYPE},
        {0, os::EVENTLOG_ERROR_TYPE},       {9, os::EVENTLOG_ERROR_TYPE},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.level);
        tarp_Win32Error(5, u"f", 7, u"fn").report(row.level);
        const std::vector<sim::EventRecord> records = sim::readEventLog();
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(records.back().type, row.expectedType);
    }
}

TEST(ErrorReportTest, WarningCarriesCodeAndLocation) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;
    sim::clearDebugOutput();
    os::SetLastError(0xDEADBEEF);
    tarp_Win32Error(5, u"f", 7, u"fn").report(kLogWarning);
    EXPECT_EQ(os::GetLastError(), 0xDEADBEEFu);

    const std::vector<sim::EventRecord> records = sim::readEventLog();
    ASSERT_EQ(records.size(), 1u);
    const sim::EventRecord& record = records[0];
    EXPECT_EQ(record.source, "fikiv");
    EXPECT_EQ(record.type, os::EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(record.category, 0);
    EXPECT_EQ(record.eventId, 0x1005u);
    EXPECT_EQ(record.strings, std::vector<std::string>{"Error: 0x00001005, in file f, line 7\n"});
    EXPECT_EQ(record.pid, ::getpid());
    EXPECT_EQ(sim::debugOutput(),
              std::vector<std::string>{"Error: 0x00001005, in file f, line 7\n"});
    // The event carries the code and place, never a text for the framework.
    EXPECT_TRUE(capture.messages().empty());
}

TEST(ErrorReportTest, NoEventSourceMeansNoOutputAtAll) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;
    sim::clearDebugOutput();
    sim::injectFault("RegisterEventSourceW", os::ERROR_ACCESS_DENIED);
    tarp_Win32Error(5, u"f", 7, u"fn").report(kLogError);
    EXPECT_TRUE(sim::readEventLog().empty());
    EXPECT_TRUE(sim::debugOutput().empty());
}

TEST(ErrorReportTest, LongFileNameIsCutToTheReportBuffer) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;
    const std::u16string file(400, u'p');
    tarp_Win32Error(2, file.c_str(), 1, u"fn").report(kLogError);
    const std::vector<sim::EventRecord> records = sim::readEventLog();
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].strings.size(), 1u);
    EXPECT_EQ(records[0].strings[0].size(), 255u);
    EXPECT_EQ(records[0].strings[0].rfind("Error: 0x00001002, in file ppp", 0), 0u);
}

TEST(LogErrorTest, HandsBothTextsToTheFrameworkAndReportsOnRequest) {
    testsupport::TempMachine machine(smallMachine());
    LogCapture capture;
    tarp_Win32Error error(5, u"providers\\kiv\\kivnode", 30, u"KivNode::dispose");

    logError(error, kLogError, /*report=*/false);
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(capture.messages()[0].text, u"Access is denied.\r\n");
    ASSERT_TRUE(capture.messages()[0].hasSecond);
    EXPECT_EQ(capture.messages()[0].second, u"Access is denied.\r\n");
    EXPECT_EQ(capture.messages()[0].level, kLogError);
    EXPECT_TRUE(sim::readEventLog().empty());

    logError(error, kLogWarning, /*report=*/true);
    EXPECT_EQ(capture.messages().size(), 2u);
    const std::vector<sim::EventRecord> records = sim::readEventLog();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, os::EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(records[0].eventId, 4101u);
}

}  // namespace
