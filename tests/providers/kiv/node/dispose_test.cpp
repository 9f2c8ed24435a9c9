// Disposal of a snapshot volume: the agent's handle when the provider cannot
// open it, the release, the destroy attempts, and what each failure reports.
#include <gtest/gtest.h>

#include "node_fixture.h"
#include "support/row_name.h"

namespace nodetest {
namespace {

const char kName[] = "<name>";  // the disposed snapshot volume's name

struct DisposeCase {
    const char* name;
    std::vector<std::uint32_t> agentStatuses;
    std::vector<Fault> faults;
    std::int32_t status;
    std::vector<Report> reports;
    std::vector<std::uint32_t> agentCodes;
    std::size_t waits;
    std::uint64_t destroyCalls;
};
FIKIV_PRINT_ROW_NAME(DisposeCase)

const std::vector<std::uint32_t> kBusyBudget(31, kBusy);
// The provider cannot open the volume itself and asks the agent for a handle.
const std::vector<Fault> kCannotOpen = {{"KIV_Open", 2}};

// clang-format off
const DisposeCase kDisposeCases[] = {
    {"ProviderOpensTheVolumeAndOnlyReleases", {}, {}, 0, {}, {4}, 1, 1},
    {"RetrieveRefused", {2}, kCannotOpen, 3, {{"MSG_ERROR_KIVAPI", {"ORB::RetrieveHandle", 2, kName}}}, {3}, 0, 0},
    // The scripted agent names handle 0 of this process: no handle to copy.
    {"RetrieveNamesAHandleThatCannotBeDuplicated", {}, kCannotOpen, 3, {{"MSG_ERROR_KIVAPI", {"ORB::RetrieveHandle", kInvalidHandle, kName}}}, {3}, 0, 0},
    {"RetrieveBusyThroughTheWholeBudget", kBusyBudget, kCannotOpen, 3, {{"MSG_ERROR_KIVORBHANDLE", {"ORB::RetrieveHandle", 231, kBusyText, kName}}}, std::vector<std::uint32_t>(31, 3), 31, 0},
    {"ReleaseRefusedStillDestroys", {5}, {}, 0, {{"MSG_ERROR_KIVAPI", {"ORB::ReleaseVolumeHandle", 5, kName}}}, {4}, 0, 1},
    {"ReleaseBusyThroughTheWholeBudgetStillDestroys", kBusyBudget, {}, 0, {{"MSG_ERROR_KIVORBHANDLE", {"ORB::ReleaseVolumeHandle", 231, kBusyText, kName}}}, std::vector<std::uint32_t>(31, 4), 31, 1},
    {"DestroyBusyThreeTimesThenDone", {}, {{"KIV_Destroy", 5, 3}}, 0, {}, {4}, 4, 4},
    {"DestroyBusyForAllHundredAttempts", {}, {{"KIV_Destroy", 5, sim::kAlways}}, 3, {{"MSG_ERROR_KIVAPI", {"KIV_Destroy", 5, kName}}}, {4}, 101, 100},
    {"DestroyRefused", {}, {{"KIV_Destroy", 21}}, 3, {{"MSG_ERROR_KIVAPI", {"KIV_Destroy", 21, kName}}}, {4}, 1, 1},
};
// clang-format on

class DisposeTest : public NodeTest, public ::testing::WithParamInterface<DisposeCase> {};

TEST_P(DisposeTest, ReportsWaitsAndDestroyAttempts) {
    const DisposeCase& row = GetParam();
    preparePair();
    ScriptedPipeServer agent;
    std::vector<std::u16string> names;
    ASSERT_EQ(make(2, names), 0);
    ASSERT_EQ(names.size(), 2u);
    HostNode& first = addSnapshotVolume(names[0]);
    HostNode& second = addSnapshotVolume(names[1]);
    const auto registrations = static_cast<std::ptrdiff_t>(agent.codes().size());
    const std::size_t descriptors = descriptorsIntoMachine();
    takeUserMessages();
    sim::clearRecordedSleeps();
    sim::clearFaults();
    injectFaults(row.faults);
    for (std::uint32_t status : row.agentStatuses) {
        agent.scriptStatuses({status});
    }

    EXPECT_EQ(dispose(first), row.status);

    EXPECT_EQ(reportsOf(takeUserMessages()),
              expectedReports(row.reports, {{kName, utf8(names[0])}}));
    const std::vector<std::uint32_t> codes = agent.codes();
    const std::vector<std::string> requestNames = agent.names();
    EXPECT_EQ(std::vector<std::uint32_t>(codes.begin() + registrations, codes.end()),
              row.agentCodes);
    EXPECT_EQ(std::vector<std::string>(requestNames.begin() + registrations, requestNames.end()),
              std::vector<std::string>(row.agentCodes.size(), utf8(names[0])));
    EXPECT_EQ(sleeps(), seconds(row.waits));
    EXPECT_EQ(sim::callCount("KIV_Destroy"), row.destroyCalls);
    EXPECT_EQ(descriptorsIntoMachine(), descriptors);

    // A failed disposal can be repeated once the fault is gone, silently;
    // afterwards nothing of the snapshot is left. The other volume only
    // releases its own snapshot volume.
    sim::clearFaults();
    if (row.status != 0) {
        EXPECT_EQ(dispose(first), 0);
    }
    const std::size_t exchanges = agent.codes().size();
    EXPECT_EQ(dispose(second), 0);
    EXPECT_EQ(agent.codes().size(), exchanges + 1);
    EXPECT_EQ(agent.codes().back(), 4u);
    EXPECT_EQ(takeUserMessages().size(), 0u);
    EXPECT_EQ(leftoversAfterDetaching(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Failures, DisposeTest, ::testing::ValuesIn(kDisposeCases),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace nodetest
