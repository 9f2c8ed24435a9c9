// Snapshot creation: registration of each snapshot volume with the backup
// agent, its retry budget, and what each failure reports.
#include <gtest/gtest.h>

#include <optional>

#include "node_fixture.h"
#include "support/row_name.h"

namespace nodetest {
namespace {

using testsupport::ScriptedPipeServer;

constexpr std::uint32_t kBusy = 231;
constexpr std::int32_t kFileNotFound = 2;
const char kBusyText[] = "Retrived handle after every second for 30 times";

std::vector<std::uint32_t> repeated(std::uint32_t status, std::size_t times) {
    return std::vector<std::uint32_t>(times, status);
}

std::vector<std::uint32_t> joined(std::initializer_list<std::vector<std::uint32_t>> parts) {
    std::vector<std::uint32_t> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

enum class Agent { Scripted, Absent };

struct RegistrationCase {
    const char* name;
    Agent agent;
    std::vector<std::uint32_t> agentStatuses;
    std::vector<std::pair<const char*, std::uint32_t>> faults;  // function, error (first call)
    std::vector<Report> reports;
    std::size_t registrations;  // register requests the agent received
    std::size_t waits;          // one-second waits
};
FIKIV_PRINT_ROW_NAME(RegistrationCase)

// clang-format off
const RegistrationCase kRegistrationCases[] = {
    {"EachVolumeRegisteredAndWaitedFor", Agent::Scripted, {}, {}, {}, 2, 2},
    {"AgentErrorIsReportedWithoutWaiting", Agent::Scripted, {5}, {},
     {{"MSG_ERROR_KIVAPI", {"KIV_ORB_Registervolume", 5, "<first>"}}}, 2, 1},
    {"AgentBusyThroughTheWholeBudget", Agent::Scripted, repeated(kBusy, 31), {},
     {{"MSG_ERROR_KIVORBHANDLE", {"KIV_ORB_Registervolume", 231, kBusyText, "<first>"}}}, 32, 32},
    {"SecondVolumeGetsAFullBudgetOfItsOwn", Agent::Scripted,
     joined({{kBusy, kBusy, 0}, repeated(kBusy, 31)}), {},
     {{"MSG_ERROR_KIVORBHANDLE", {"KIV_ORB_Registervolume", 231, kBusyText, "<second>"}}}, 34, 34},
    {"AgentAbsent", Agent::Absent, {}, {},
     {{"MSG_ERROR_KIVAPI", {"KIV_ORB_Registervolume", kFileNotFound, "<first>"}},
      {"MSG_ERROR_KIVAPI", {"KIV_ORB_Registervolume", kFileNotFound, "<second>"}}}, 0, 0},
    {"SnapshotVolumeThatCannotBeOpenedIsNotRegistered", Agent::Scripted, {}, {{"KIV_Open", 2}},
     {{"MSG_ERROR_KIVAPI_STR", {"Make", "KIV_Open", "<first>"}}}, 1, 1},
};
// clang-format on

class MakeRegistrationTest : public NodeTest,
                             public ::testing::WithParamInterface<RegistrationCase> {};

TEST_P(MakeRegistrationTest, ReportsWaitsAndIdentities) {
    const RegistrationCase& row = GetParam();
    preparePair();
    std::optional<ScriptedPipeServer> agent;
    if (row.agent == Agent::Scripted) {
        agent.emplace();
        for (std::uint32_t status : row.agentStatuses) {
            agent->scriptStatuses({status});
        }
    }
    const std::size_t descriptors = descriptorsIntoMachine();
    for (const auto& [function, error] : row.faults) {
        sim::injectFault(function, error);
    }

    std::vector<std::u16string> identities;
    ASSERT_EQ(make(preparedList_[0], preparedList_, &identities), 0);

    // Every volume gets its identity and its made bit, whatever happened at
    // the agent.
    ASSERT_EQ(identities.size(), 2u);
    EXPECT_EQ(plugintest::utf8(identities[0]), snapshotNames_[0]);
    EXPECT_EQ(plugintest::utf8(identities[1]), snapshotNames_[1]);
    for (tarn_fi_entry* entry : preparedList_) {
        EXPECT_EQ(entry->node->status & 0x1, 0x1u);
    }
    const std::vector<std::string> expected = expectedReports(
        row.reports, {{"<first>", snapshotNames_[0]}, {"<second>", snapshotNames_[1]}});
    EXPECT_EQ(reportsOf(takeUserMessages()), expected);
    EXPECT_EQ(sleeps(), seconds(row.waits));
    if (agent) {
        EXPECT_EQ(agent->codes(), std::vector<std::uint32_t>(row.registrations, 2));
        for (const orbhandle::Request& request : agent->requests()) {
            EXPECT_NE(request.handle, 0u);
        }
    }
    // The provider's copies of the snapshot volumes' handles are closed after
    // the exchange, also after a failure: only the agent may hold them.
    EXPECT_EQ(descriptorsIntoMachine(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Agent, MakeRegistrationTest, ::testing::ValuesIn(kRegistrationCases),
                         [](const ::testing::TestParamInfo<RegistrationCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(NodeTest, DriverRefusingCreationLeavesTheOutputsUntouched) {
    preparePair();
    ScriptedPipeServer agent;
    sim::injectFault("KIV_Create", 21);
    tarn_objid* sentinel[1] = {};
    tarn_objid** identities = sentinel;
    std::uint32_t count = 77;

    EXPECT_EQ(plugin_.make(preparedList_[0], nullptr, preparedList_.data(), 2, &identities, &count),
              3);
    EXPECT_EQ(identities, sentinel);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(reportsOf(takeUserMessages()),
              (std::vector<std::string>{
                  catalogueText("MSG_ERROR_KIVAPI", {"KIV_Create", 21, "KIV_Create"})}));
    EXPECT_TRUE(agent.codes().empty());
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(NodeTest, NoRoomForTheIdentitiesAnswersOutOfMemory) {
    preparePair();
    ScriptedPipeServer agent;
    tarn_test_fail_alloc(0, 1);
    tarn_objid** identities = nullptr;
    std::uint32_t count = 77;

    EXPECT_EQ(plugin_.make(preparedList_[0], nullptr, preparedList_.data(), 2, &identities, &count),
              5);
    tarn_test_fail_alloc(0, 0);
    EXPECT_EQ(identities, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(agent.codes().empty());
}

TEST_F(NodeTest, ListWithCountZeroMakesTheEntrysVolumeAlone) {
    preparePair();
    ScriptedPipeServer agent;
    tarn_objid** array = nullptr;
    std::uint32_t count = 0;

    ASSERT_EQ(plugin_.make(preparedList_[0], nullptr, preparedList_.data(), 0, &array, &count), 0);
    ASSERT_EQ(count, 1u);
    ASSERT_NE(array[0], nullptr);
    EXPECT_EQ(plugintest::utf8(array[0]->name), snapshotNames_[0]);
    tarn_free_buf(array, sizeof(tarn_objid*));
    EXPECT_EQ(agent.names(), std::vector<std::string>{snapshotNames_[0]});
    EXPECT_EQ(preparedList_[1]->node->status & 0x1, 0u);
}

}  // namespace
}  // namespace nodetest
