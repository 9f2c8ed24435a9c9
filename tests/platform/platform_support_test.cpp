// The platform calls the support library stands on: system message texts,
// debug output and the machine's event log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "os/debug.h"
#include "os/error.h"
#include "os/eventlog.h"
#include "platform_test_util.h"
#include "sim/eventlog.h"
#include "sim/hooks.h"
#include "support/child_process.h"
#include "support/temp_machine.h"

namespace {

using platformtest::kUntouched;

TEST(SystemTextTest, FormatMessageAndDebugOutput) {
    constexpr os::DWORD kFlags = os::FORMAT_MESSAGE_FROM_SYSTEM |
                                 os::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                 os::FORMAT_MESSAGE_IGNORE_INSERTS;
    struct Row {
        const char* name;
        os::DWORD flags;
        os::DWORD code;
        os::DWORD language;
        std::u16string expectedText;  // empty: the call fails
        os::DWORD expectedError;
    };
    // clang-format off
    const Row rows[] = {
        {"without allocate", os::FORMAT_MESSAGE_FROM_SYSTEM | os::FORMAT_MESSAGE_IGNORE_INSERTS, 5, 1033, u"", os::ERROR_INVALID_PARAMETER},
        {"from string", os::FORMAT_MESSAGE_FROM_STRING | os::FORMAT_MESSAGE_ALLOCATE_BUFFER, 5, 1033, u"", os::ERROR_INVALID_PARAMETER},
        {"unknown code", kFlags, 0xFFFF, 1033, u"", os::ERROR_MR_MID_NOT_FOUND},
        {"other language", kFlags, 5, 1031, u"", 15100},
        {"access denied", kFlags, 5, 1033, u"Access is denied.\r\n", kUntouched},
        {"neutral language", kFlags, 87, 0, u"The parameter is incorrect.\r\n", kUntouched},
        {"inserts left as they are", kFlags, 317, 1033, u"The system cannot find message text for message number 0x%1 in the message file for " u"%2.\r\n", kUntouched},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        char16_t* text = nullptr;
        os::SetLastError(kUntouched);
        os::DWORD length = os::FormatMessageW(row.flags, nullptr, row.code, row.language,
                                              reinterpret_cast<os::LPWSTR>(&text), 0, nullptr);
        EXPECT_EQ(os::GetLastError(), row.expectedError);
        if (row.expectedText.empty()) {
            EXPECT_EQ(length, 0u);
            EXPECT_EQ(text, nullptr);
            continue;
        }
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(length, row.expectedText.size());
        EXPECT_EQ(std::u16string(text), row.expectedText);
        EXPECT_EQ(os::LocalFree(text), nullptr);
    }

    // Debug output is recorded as UTF-8; a null text is ignored; the last
    // error stays.
    sim::clearDebugOutput();
    os::SetLastError(kUntouched);
    os::OutputDebugStringW(u"caf\u00E9 \U0001F600");
    os::OutputDebugStringW(nullptr);
    EXPECT_EQ(os::GetLastError(), kUntouched);
    EXPECT_EQ(sim::debugOutput(), std::vector<std::string>{"caf\xC3\xA9 \xF0\x9F\x98\x80"});
}

TEST(EventLogTest, ArgumentsHandlesAndRecordsReadBackInOrder) {
    testsupport::TempMachine machine(platformtest::smallMachine());
    const auto fails = [](auto call, os::DWORD error) {
        const auto [result, lastError] = platformtest::answer(call);
        return !result && lastError == error;
    };
    const char16_t* text[] = {u"x"};
    const auto report = [&text](os::HANDLE source) {
        return os::ReportEventW(source, os::EVENTLOG_ERROR_TYPE, 0, 1, nullptr, 1, 0, text,
                                nullptr);
    };
    constexpr os::DWORD kInvalid = os::ERROR_INVALID_PARAMETER;
    EXPECT_TRUE(fails([] { return os::RegisterEventSourceW(nullptr, u""); }, kInvalid));
    EXPECT_TRUE(fails([] { return os::RegisterEventSourceW(nullptr, nullptr); }, kInvalid));
    EXPECT_TRUE(
        fails([] { return os::RegisterEventSourceW(u"\\\\elsewhere", u"fikiv"); }, kInvalid));
    EXPECT_TRUE(fails([&] { return report(nullptr); }, os::ERROR_INVALID_HANDLE));

    os::HANDLE source = os::RegisterEventSourceW(nullptr, u"fikiv");
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(os::DeregisterEventSource(source), os::TRUE);
    EXPECT_TRUE(fails([&] { return report(source); }, os::ERROR_INVALID_HANDLE));
    EXPECT_EQ(os::DeregisterEventSource(source), os::FALSE);
    EXPECT_TRUE(sim::readEventLog().empty());

    // What is reported reads back in order.
    source = os::RegisterEventSourceW(nullptr, u"fikiv \u00E9");
    ASSERT_NE(source, nullptr);
    const char16_t* two[] = {u"first \"quoted\"\n", u"second"};
    EXPECT_EQ(
        os::ReportEventW(source, os::EVENTLOG_WARNING_TYPE, 3, 0x1005, nullptr, 2, 0, two, nullptr),
        os::TRUE);
    EXPECT_EQ(os::ReportEventW(source, os::EVENTLOG_INFORMATION_TYPE, 0, 7, nullptr, 0, 0, nullptr,
                               nullptr),
              os::TRUE);
    os::DeregisterEventSource(source);

    const std::vector<sim::EventRecord> records = sim::readEventLog();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].source, "fikiv \xC3\xA9");
    EXPECT_EQ(records[0].type, os::EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(records[0].category, 3);
    EXPECT_EQ(records[0].eventId, 0x1005u);
    EXPECT_EQ(records[0].strings, (std::vector<std::string>{"first \"quoted\"\n", "second"}));
    EXPECT_EQ(records[0].pid, ::getpid());
    EXPECT_EQ(records[0].time.size(), 24u) << records[0].time;
    EXPECT_EQ(records[1].eventId, 7u);
    EXPECT_TRUE(records[1].strings.empty());
}

constexpr int kEventsPerWriter = 200;

FIKIV_CHILD_ROLE(eventWriter) {
    os::HANDLE source = os::RegisterEventSourceW(nullptr, u"writer");
    if (source == nullptr) {
        return 1;
    }
    const std::u16string text(300, u'w');
    const char16_t* strings[] = {text.c_str()};
    testsupport::ChildChecks checks;
    for (int i = 0; i < kEventsPerWriter; ++i) {
        FIKIV_CHILD_FAIL_IF(checks, os::ReportEventW(source, os::EVENTLOG_INFORMATION_TYPE, 0,
                                                     static_cast<os::DWORD>(i), nullptr, 1, 0,
                                                     strings, nullptr) != os::TRUE);
    }
    os::DeregisterEventSource(source);
    return checks.failures();
}

TEST(EventLogTest, SeveralProcessesAppendWholeRecords) {
    testsupport::TempMachine machine(platformtest::smallMachine());
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(testsupport::startChild("eventWriter"));
    }
    for (pid_t child : children) {
        EXPECT_EQ(testsupport::waitChild(child), 0);
    }
    const std::vector<sim::EventRecord> records = sim::readEventLog();
    ASSERT_EQ(records.size(), static_cast<std::size_t>(3 * kEventsPerWriter));
    std::set<std::int64_t> writers;
    for (const sim::EventRecord& record : records) {
        writers.insert(record.pid);
        ASSERT_EQ(record.strings.size(), 1u);
        EXPECT_EQ(record.strings[0], std::string(300, 'w'));
    }
    EXPECT_EQ(writers.size(), 3u);
}

}  // namespace
