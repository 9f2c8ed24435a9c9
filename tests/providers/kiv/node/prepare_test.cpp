// Snapshot preparation: what each failure reports and returns, and which
// sources automatic configuration places caches for.
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <thread>

#include "node_fixture.h"
#include "os/handle.h"
#include "os/sync.h"
#include "support/row_name.h"

namespace nodetest {
namespace {

using plugintest::guidWithoutBackslash;

constexpr std::int32_t kInvalidParameter = 87;

// The machine-wide provider mutex, held by another thread for as long as the
// object lives, or left abandoned by a thread that ended holding it (the
// handle stays open: a mutex whose last handle is closed no longer exists).
enum class Holder { kNone, kHolding, kAbandoned };

class MutexHolder {
  public:
    explicit MutexHolder(Holder kind) : abandon_(kind == Holder::kAbandoned) {
        taken_.get_future().wait();
        if (abandon_) {
            thread_.join();
        }
    }
    ~MutexHolder() {
        if (!abandon_) {
            release_.set_value();
            thread_.join();
        }
        os::CloseHandle(handle_);
    }

  private:
    const bool abandon_;
    os::HANDLE handle_ = nullptr;
    std::promise<void> taken_;
    std::promise<void> release_;
    std::thread thread_{[this] {
        handle_ = os::CreateMutexW(nullptr, os::FALSE, u"Global\\tarn_kiv_mutex");
        os::WaitForSingleObject(handle_, os::INFINITE);
        taken_.set_value();
        if (!abandon_) {
            release_.get_future().wait();
            os::ReleaseMutex(handle_);
        }
    }};
};

enum class Split { Automatic, Selected };

const std::string kRequestText =
    "\tTargets\n\t\t<first>\n\t\t<second>\n\tHints\n\t\texcludedVolumes = \n"
    "\t\tpreferredVolumes = \n\t\tinitialCacheFileSizeMB = 0\n\t\tmaxCacheFileSizeMB = 0\n"
    "\t\tinitialCacheFileSizePct = 0\n\t\tmaxCacheFileSizePct = 0\n";

struct PrepareCase {
    const char* name;
    Split split;
    std::uint32_t mode;
    std::vector<Fault> faults;
    const char* unbindable;  // a kernel32 function that cannot be bound, or null
    Holder mutex;            // another thread's hold on the provider mutex
    std::int32_t status;
    std::vector<Report> reports;
    // The last line the host received without a catalogue: the dump's end,
    // the warning, or none at all. Every dump begins with the element count.
    const char* lastPlainLine;
    std::uint32_t lastPlainLevel;
};
FIKIV_PRINT_ROW_NAME(PrepareCase)

const char kDumpEnd[] = "\tQuiesceTimeout:30\n";
const Report kPrepareInvalid = {"MSG_ERROR_KIVAPI",
                                {"KIV_Prepare", kInvalidParameter, "KIV_Prepare"}};
const Report kNameFailed = {"MSG_ERROR_KIVAPI_2", {"KIV_generateVolumeName", 31}};
const Report kNotPlaced = {"MSG_ERROR_AUTOCONFIG", {kRequestText}};

// clang-format off
const PrepareCase kPrepareCases[] = {
    {"ModeTwoIsRefusedBeforeAnythingElse", Split::Automatic, 2, {}, nullptr, Holder::kNone, 3, {{"MSG_ERROR_INVAL", {"KIV_Prepare", "KIV_INVAL_ARGS"}}}, nullptr, 0},
    {"DriverRefusesThePreparation", Split::Automatic, 0, {{"KIV_Prepare", 112}}, nullptr, Holder::kNone, 3, {{"MSG_ERROR_KIVAPI", {"KIV_Prepare", 112, "KIV_Prepare"}}}, kDumpEnd, 1},
    {"SourceThatCannotBeOpenedIsStillHandedOn", Split::Selected, 0, {{"KIV_Open", 2}}, nullptr, Holder::kNone, 3, {{"MSG_ERROR_KIVAPI", {"KIV_Open", 2, "<first>"}}, {"MSG_ERROR_KIVAPI", {"KIV_Prepare", kInvalidHandle, "KIV_Prepare"}}}, kDumpEnd, 1},
    {"NameGenerationFailing", Split::Automatic, 0, {{"KIV_GenerateVolumeName", 31, sim::kAlways}}, nullptr, Holder::kNone, 3, {kNameFailed, kNameFailed, kPrepareInvalid}, kDumpEnd, 1},
    {"MutexHeldByAnotherOwner", Split::Automatic, 0, {}, nullptr, Holder::kHolding, 3, {kNotPlaced, kPrepareInvalid}, kDumpEnd, 1},
    {"MutexAbandonedByItsOwner", Split::Automatic, 0, {}, nullptr, Holder::kAbandoned, 3, {kNotPlaced, kPrepareInvalid}, kDumpEnd, 1},
    {"MutexCannotBeCreated", Split::Automatic, 0, {{"CreateMutexW", 5}}, nullptr, Holder::kNone, 3, {{"MSG_ERROR_AUTOCONFIG", {"Error occured in CreateMutex, GetLastError() is: 5"}}, kPrepareInvalid}, kDumpEnd, 1},
    {"DumpCannotNameAVolumePath", Split::Selected, 0, {}, "GetVolumeNameForVolumeMountPointW", Holder::kNone, 6, {}, "WARNING: caught unhandled exception in KIV prepare", 2},
};
// clang-format on

class PrepareFailureTest : public NodeTest, public ::testing::WithParamInterface<PrepareCase> {};

TEST_P(PrepareFailureTest, ReportsAndAnswersAsDocumented) {
    const PrepareCase& row = GetParam();
    start();
    std::vector<tarn_fi_entry*> list =
        row.split == Split::Automatic
            ? addSources({1, 6}, {kAutoSplit, kAutoSplit})
            : addSources({1, 6}, {selectedSplit("A"), selectedSplit("B")});
    ASSERT_EQ(configure(group_->record(), false, plugintest::kQuiesceSettings), 0);
    takeUserMessages();
    std::optional<MutexHolder> holder;
    if (row.mutex != Holder::kNone) {
        holder.emplace(row.mutex);
    }
    sim::clearFaults();
    injectFaults(row.faults);
    if (row.unbindable != nullptr) {
        sim::makeUnbindable("kernel32.dll", row.unbindable);
    }

    sim::clearRecordedWaits();
    EXPECT_EQ(plugin_.prepare(list[0], nullptr, list.data(), 2, row.mode), row.status);
    // A held mutex is waited for 10 seconds; an abandoned one is taken at once.
    EXPECT_EQ(sim::recordedWaits(), row.mutex == Holder::kHolding
                                        ? std::vector<std::uint32_t>{10000}
                                        : std::vector<std::uint32_t>{});

    std::vector<HostMessage> messages = takeUserMessages();
    const std::vector<std::string> expected = expectedReports(
        row.reports, {{"<first>", guidWithoutBackslash(1)}, {"<second>", guidWithoutBackslash(6)}});
    EXPECT_EQ(reportsOf(messages), expected);
    std::vector<HostMessage> lines = plainLinesOf(messages);
    if (row.lastPlainLine == nullptr) {
        EXPECT_TRUE(lines.empty());
        EXPECT_EQ(sim::callCount("KIV_Prepare"), 0u);
        EXPECT_EQ(sim::callCount("CreateMutexW"), 0u);
    } else {
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front().text, "KIV_Prepare: KivSnapshotParameters has 2 elements\n");
        EXPECT_EQ(lines.back().text, row.lastPlainLine);
        EXPECT_EQ(lines.back().level, row.lastPlainLevel);
    }
    EXPECT_TRUE(sleeps().empty());

    sim::clearFaults();
    holder.reset();
    EXPECT_EQ(leftoversAfterDetaching(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Failures, PrepareFailureTest, ::testing::ValuesIn(kPrepareCases),
                         ::testing::PrintToStringParamName());

TEST_F(NodeTest, OnlySourcesAskingForAutomaticPreparationGetPlacedCaches) {
    start();
    std::vector<tarn_fi_entry*> list =
        addSources({1, 6, 3}, {kAutoSplit, selectedSplit("B"), kAutoSplit});

    ASSERT_EQ(plugin_.prepare(list[0], nullptr, list.data(), 3, 0), 0);
    std::vector<std::string> caches = dumpValues(takeUserMessages(), "CacheFileName");
    ASSERT_EQ(caches.size(), 3u);
    // Two targets were placed: the first and third sources get the first and
    // second cache file, numbered in placement order; the second keeps its own.
    EXPECT_TRUE(caches[0].ends_with("_tarnKivCacheFile_0.KIV")) << caches[0];
    EXPECT_EQ(caches[1], "E:\\selected_B.KIV");
    EXPECT_TRUE(caches[2].ends_with("_tarnKivCacheFile_1.KIV")) << caches[2];
    EXPECT_EQ(sim::callCount("CreateMutexW"), 1u);
}

TEST_F(NodeTest, ListWithCountZeroPreparesTheEntryAlone) {
    start();
    std::vector<tarn_fi_entry*> list = addSources({1, 6}, {selectedSplit("A"), kAutoSplit});

    ASSERT_EQ(plugin_.prepare(list[0], nullptr, list.data(), 0, 0), 0);
    std::vector<HostMessage> lines = plainLinesOf(takeUserMessages());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().text, "KIV_Prepare: KivSnapshotParameters has 1 elements\n");
    // The first source selected its own cache: nothing to place, no mutex.
    EXPECT_EQ(sim::callCount("CreateMutexW"), 0u);
}

}  // namespace
}  // namespace nodetest
