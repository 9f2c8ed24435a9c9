// Snapshot creation: registration of each snapshot volume with the backup
// agent, its retry budget, and what each failure reports.
#include <gtest/gtest.h>

#include "node_fixture.h"
#include "support/row_name.h"

namespace nodetest {
namespace {

// The agent's answers `before`, then `times` busy ones.
std::vector<std::uint32_t> busy(std::size_t times, std::vector<std::uint32_t> before = {}) {
    before.insert(before.end(), times, kBusy);
    return before;
}

struct RegistrationCase {
    const char* name;
    std::vector<std::uint32_t> agentStatuses;
    const char* failingFunction;  // fails its first call with error 2, or null
    std::vector<Report> reports;
    std::size_t firstRequests;   // register requests for the first volume, then
    std::size_t secondRequests;  // for the second
    std::size_t waits;           // one-second waits
};
FIKIV_PRINT_ROW_NAME(RegistrationCase)

// clang-format off
const RegistrationCase kRegistrationCases[] = {
    {"EachVolumeRegisteredAndWaitedFor", {}, nullptr, {}, 1, 1, 2},
    {"AgentErrorIsReportedWithoutWaiting", {5}, nullptr, {{"MSG_ERROR_KIVAPI", {"KIV_ORB_Registervolume", 5, "<first>"}}}, 1, 1, 1},
    {"SecondVolumeGetsAFullBudgetOfItsOwn", busy(31, {kBusy, kBusy, 0}), nullptr, {{"MSG_ERROR_KIVORBHANDLE", {"KIV_ORB_Registervolume", 231, kBusyText, "<second>"}}}, 3, 31, 34},
    {"SnapshotVolumeThatCannotBeOpenedIsNotRegistered", {}, "KIV_Open", {{"MSG_ERROR_KIVAPI_STR", {"Make", "KIV_Open", "<first>"}}}, 0, 1, 1},
};
// clang-format on

class MakeRegistrationTest : public NodeTest,
                             public ::testing::WithParamInterface<RegistrationCase> {};

TEST_P(MakeRegistrationTest, ReportsWaitsAndIdentities) {
    const RegistrationCase& row = GetParam();
    preparePair();
    ScriptedPipeServer agent;
    for (std::uint32_t status : row.agentStatuses) {
        agent.scriptStatuses({status});
    }
    const std::size_t descriptors = descriptorsIntoMachine();
    if (row.failingFunction != nullptr) {
        sim::injectFault(row.failingFunction, 2);
    }

    std::vector<std::u16string> identities;
    ASSERT_EQ(make(2, identities), 0);

    // Every volume gets its identity and its made bit, whatever happened at
    // the agent.
    EXPECT_EQ(identities, (std::vector<std::u16string>{testsupport::utf16(snapshotNames_[0]),
                                                       testsupport::utf16(snapshotNames_[1])}));
    for (tarn_fi_entry* entry : preparedList_) {
        EXPECT_EQ(entry->node->status & 0x1, 0x1u);
    }
    const std::vector<HostMessage> messages = takeUserMessages();
    EXPECT_EQ(reportsOf(messages), expectedReports(row.reports, {{"<first>", snapshotNames_[0]},
                                                                 {"<second>", snapshotNames_[1]}}));
    EXPECT_EQ(plainLinesOf(messages).size(), 0u);
    EXPECT_EQ(sleeps(), seconds(row.waits));
    std::vector<std::string> names(row.firstRequests, snapshotNames_[0]);
    names.insert(names.end(), row.secondRequests, snapshotNames_[1]);
    EXPECT_EQ(agent.names(), names);
    EXPECT_EQ(agent.codes(), std::vector<std::uint32_t>(names.size(), 2));
    for (const orbhandle::Request& request : agent.requests()) {
        EXPECT_NE(request.handle, 0u);
    }
    // The provider's copies of the snapshot volumes' handles are closed after
    // the exchange, also after a failure: only the agent may hold them.
    EXPECT_EQ(descriptorsIntoMachine(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Agent, MakeRegistrationTest, ::testing::ValuesIn(kRegistrationCases),
                         ::testing::PrintToStringParamName());

// make refused before any volume is registered: by the driver, leaving the
// host's outputs as they were, or for want of memory for the identities.
TEST_F(NodeTest, MakeRefusedRegistersNothing) {
    struct Row {
        const char* name;
        const char* fault;
        std::int32_t status;
        std::vector<std::string> reports;
        std::uint32_t count;  // what the count reads afterwards
    };
    // clang-format off
    const Row rows[] = {
        {"DriverRefusesCreation", "KIV_Create", 3, {catalogueText("MSG_ERROR_KIVAPI", {"KIV_Create", 21, "KIV_Create"})}, 77},
        {"NoRoomForTheIdentities", nullptr, 5, {}, 0},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TearDown();  // a fresh plug-in on a fresh machine for each row
        SetUp();
        preparePair();
        ScriptedPipeServer agent;
        if (row.fault != nullptr) {
            sim::injectFault(row.fault, 21);
        } else {
            tarn_test_fail_alloc(0, 1);
        }
        tarn_objid* sentinel[1] = {};
        tarn_objid** identities = sentinel;
        std::uint32_t count = 77;
        EXPECT_EQ(
            plugin_.make(preparedList_[0], nullptr, preparedList_.data(), 2, &identities, &count),
            row.status);
        tarn_test_fail_alloc(0, 0);
        EXPECT_EQ(identities, row.count == 0 ? nullptr : sentinel);
        EXPECT_EQ(count, row.count);
        EXPECT_EQ(reportsOf(takeUserMessages()), row.reports);
        EXPECT_EQ(agent.codes(), std::vector<std::uint32_t>{});
        EXPECT_EQ(sleeps(), std::vector<std::uint32_t>{});
    }
}

TEST_F(NodeTest, ListWithCountZeroMakesTheEntrysVolumeAlone) {
    preparePair();
    ScriptedPipeServer agent;
    std::vector<std::u16string> names;
    ASSERT_EQ(make(0, names), 0);
    EXPECT_EQ(names, std::vector<std::u16string>{testsupport::utf16(snapshotNames_[0])});
    EXPECT_EQ(agent.names(), std::vector<std::string>{snapshotNames_[0]});
    EXPECT_EQ(preparedList_[1]->node->status & 0x1, 0u);
}

}  // namespace
}  // namespace nodetest
