// Disposal of a snapshot volume: the handle from the agent when the provider
// cannot open the volume, the release, the destroy attempts, and what each
// failure reports.
#include <gtest/gtest.h>

#include "node_fixture.h"
#include "support/row_name.h"

namespace nodetest {
namespace {

using testsupport::ScriptedPipeServer;

constexpr std::uint32_t kBusy = 231;
constexpr std::int32_t kInvalidHandle = 6;
const char kBusyText[] = "Retrived handle after every second for 30 times";
const char kName[] = "<name>";  // the disposed snapshot volume's name

struct DisposeCase {
    const char* name;
    bool providerCannotOpen;
    std::vector<std::uint32_t> agentStatuses;
    std::vector<std::tuple<const char*, std::uint32_t, std::uint32_t>>
        faults;  // function, error, count
    std::int32_t status;
    std::vector<Report> reports;
    std::vector<std::uint32_t> agentCodes;
    std::size_t waits;
    std::uint64_t destroyCalls;
};
FIKIV_PRINT_ROW_NAME(DisposeCase)

// clang-format off
const DisposeCase kDisposeCases[] = {
    {"ProviderOpensTheVolumeAndOnlyReleases", false, {}, {}, 0, {}, {4}, 1, 1},
    {"RetrieveRefused", true, {2}, {}, 3,
     {{"MSG_ERROR_KIVAPI", {"ORB::RetrieveHandle", 2, kName}}}, {3}, 0, 0},
    // The scripted agent names handle 0 of this process: no handle to copy.
    {"RetrieveNamesAHandleThatCannotBeDuplicated", true, {}, {}, 3,
     {{"MSG_ERROR_KIVAPI", {"ORB::RetrieveHandle", kInvalidHandle, kName}}}, {3}, 0, 0},
    {"RetrieveBusyThroughTheWholeBudget", true, std::vector<std::uint32_t>(31, kBusy), {}, 3,
     {{"MSG_ERROR_KIVORBHANDLE", {"ORB::RetrieveHandle", 231, kBusyText, kName}}},
     std::vector<std::uint32_t>(31, 3), 31, 0},
    {"ReleaseRefusedStillDestroys", false, {5}, {}, 0,
     {{"MSG_ERROR_KIVAPI", {"ORB::ReleaseVolumeHandle", 5, kName}}}, {4}, 0, 1},
    {"ReleaseBusyThroughTheWholeBudgetStillDestroys", false, std::vector<std::uint32_t>(31, kBusy), {}, 0,
     {{"MSG_ERROR_KIVORBHANDLE", {"ORB::ReleaseVolumeHandle", 231, kBusyText, kName}}},
     std::vector<std::uint32_t>(31, 4), 31, 1},
    {"DestroyBusyThreeTimesThenDone", false, {}, {{"KIV_Destroy", 5, 3}}, 0, {}, {4}, 4, 4},
    {"DestroyBusyForAllHundredAttempts", false, {}, {{"KIV_Destroy", 5, sim::kAlways}}, 3,
     {{"MSG_ERROR_KIVAPI", {"KIV_Destroy", 5, kName}}}, {4}, 101, 100},
    {"DestroyRefused", false, {}, {{"KIV_Destroy", 21, 1}}, 3,
     {{"MSG_ERROR_KIVAPI", {"KIV_Destroy", 21, kName}}}, {4}, 1, 1},
};
// clang-format on

class DisposeTest : public NodeTest, public ::testing::WithParamInterface<DisposeCase> {};

TEST_P(DisposeTest, ReportsWaitsAndDestroyAttempts) {
    const DisposeCase& row = GetParam();
    preparePair();
    ScriptedPipeServer agent;
    std::vector<std::u16string> names;
    ASSERT_EQ(make(preparedList_[0], preparedList_, &names), 0);
    ASSERT_EQ(names.size(), 2u);
    HostNode& first = addSnapshotVolume(names[0]);
    HostNode& second = addSnapshotVolume(names[1]);
    const std::size_t registrations = agent.codes().size();
    const std::size_t descriptors = descriptorsIntoMachine();
    takeUserMessages();
    sim::clearRecordedSleeps();
    sim::clearFaults();
    if (row.providerCannotOpen) {
        sim::injectFault("KIV_Open", 2);
    }
    for (const auto& [function, error, count] : row.faults) {
        sim::injectFault(function, error, 0, count);
    }
    for (std::uint32_t status : row.agentStatuses) {
        agent.scriptStatuses({status});
    }

    EXPECT_EQ(dispose(first), row.status);

    const std::vector<std::string> expected =
        expectedReports(row.reports, {{kName, plugintest::utf8(names[0])}});
    EXPECT_EQ(reportsOf(takeUserMessages()), expected);
    std::vector<std::uint32_t> codes = agent.codes();
    codes.erase(codes.begin(), codes.begin() + static_cast<std::ptrdiff_t>(registrations));
    EXPECT_EQ(codes, row.agentCodes);
    std::vector<std::string> requestNames = agent.names();
    requestNames.erase(requestNames.begin(),
                       requestNames.begin() + static_cast<std::ptrdiff_t>(registrations));
    EXPECT_EQ(requestNames, std::vector<std::string>(codes.size(), plugintest::utf8(names[0])));
    EXPECT_EQ(sleeps(), seconds(row.waits));
    EXPECT_EQ(sim::callCount("KIV_Destroy"), row.destroyCalls);
    EXPECT_EQ(descriptorsIntoMachine(), descriptors);

    // A failed disposal can be repeated once the fault is gone; afterwards
    // nothing of the snapshot is left.
    sim::clearFaults();
    if (row.status != 0) {
        EXPECT_EQ(dispose(first), 0);
    }
    EXPECT_EQ(dispose(second), 0);
    for (auto& record : records_) {
        plugin_.deinit_node(record->record());
    }
    EXPECT_TRUE(leftovers().empty()) << ::testing::PrintToString(leftovers());
}

INSTANTIATE_TEST_SUITE_P(Failures, DisposeTest, ::testing::ValuesIn(kDisposeCases),
                         [](const ::testing::TestParamInfo<DisposeCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(NodeTest, DisposeOfNoRecordDoesNothing) {
    start();
    ScriptedPipeServer agent;
    EXPECT_EQ(plugin_.dispose(nullptr, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(agent.codes().empty());
    EXPECT_EQ(sim::callCount("KIV_Open"), 0u);
}

}  // namespace
}  // namespace nodetest
