// The snapshot node's driver work through the real plug-in, loaded in this
// process on a machine made for the test, with the virtual clock on and a
// scripted stand-in for the backup agent where a test wants one.
#ifndef TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_
#define TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "../coordinator/plugin_fixture.h"
#include "sim/hooks.h"
#include "support/scripted_pipe_server.h"

namespace nodetest {

using plugintest::CoordinatorTest;
using plugintest::HostMessage;
using plugintest::HostNode;
using plugintest::TempMachine;
using plugintest::utf8;
using testsupport::ScriptedPipeServer;

inline const std::u16string kAutoSplit =
    u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_AUTO_PREP /> "
    u"</SET_CONFIG_INFO_LIST>";
// A split document that names the snapshot volume "\\?\Snapshot<WHICH>" and
// the cache file "E:\selected_<which>.KIV" itself, 64 MB to 128 MB.
std::u16string selectedSplit(char which);

// The agent's answer while it cannot hand a handle over yet, and the text a
// report gives when it said so through a whole budget of retries.
inline constexpr std::uint32_t kBusy = 231;
inline constexpr char kBusyText[] = "Retrived handle after every second for 30 times";

class NodeTest : public CoordinatorTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the plug-in on the coordinator tests' machine and attaches the
    // group node.
    void start();

    // Attaches a node for each volume `numbers[i]` as interposition names it,
    // configured with `splits[i]`; their fi entries.
    std::vector<tarn_fi_entry*> addSources(const std::vector<int>& numbers,
                                           const std::vector<std::u16string>& splits);

    // make: the identities it handed back (the buffer freed here).
    std::int32_t make(tarn_fi_entry* entry, std::vector<tarn_fi_entry*> list,
                      std::vector<std::u16string>* names = nullptr);

    // A record for the snapshot volume `name` with an alternate node on it.
    HostNode& addSnapshotVolume(const std::u16string& name);
    std::int32_t dispose(HostNode& snapshot) {
        return plugin_.dispose(nullptr, snapshot.record(), nullptr, 0);
    }

    // Catalogue messages and dump lines the host received since the last call.
    std::vector<HostMessage> takeUserMessages() {
        return plugintest::userMessages(context_->takeMessages());
    }
    std::vector<std::uint32_t> sleeps() const { return sim::recordedSleeps(); }

    // Descriptors of this process open on directories of the test's
    // machine: the driver's volume, snapshot and set handles (not the state
    // file the driver keeps open).
    std::size_t descriptorsIntoMachine() const;

    // Detaches every node; then the driver's snapshot sets, cache files and
    // agent holds left on the machine: what a leak would leave behind.
    std::vector<std::string> leftoversAfterDetaching();

    // Volumes C: (1) and C:\mnt\data (6) prepared with automatically placed
    // caches and the group's quiesce settings 10/30; their entries, and the
    // snapshot volume names the dump gave, in `preparedList_` and
    // `snapshotNames_`. No wait, no report: the dump alone.
    void preparePair();

    std::vector<tarn_fi_entry*> preparedList_;
    std::vector<std::string> snapshotNames_;
    HostNode* group_ = nullptr;
};

// A catalogue report as the host receives it: the root text of message `id`
// formatted with `arguments` (texts or 32-bit numbers), as UTF-8.
using ReportArgument = std::variant<std::string, std::int32_t>;
std::string catalogueText(const char* id, const std::vector<ReportArgument>& arguments);

// A catalogue report a test expects: its message id and its arguments. In a
// text argument, each key of the placeholders given to expectedReports
// stands for a value the test learns only when it runs (a volume's name).
struct Report {
    const char* id;
    std::vector<ReportArgument> arguments;
};
std::vector<std::string> expectedReports(const std::vector<Report>& reports,
                                         const std::map<std::string, std::string>& placeholders);

// The root texts of the catalogue reports among `messages`.
std::vector<std::string> reportsOf(const std::vector<HostMessage>& messages);
// The lines handed to the host without a catalogue (the parameter dump and
// its warning), with their levels.
std::vector<HostMessage> plainLinesOf(const std::vector<HostMessage>& messages);

// n waits of one second.
inline std::vector<std::uint32_t> seconds(std::size_t n) {
    return std::vector<std::uint32_t>(n, 1000);
}

// Test names of a table's rows.
template <typename Row>
std::string rowName(const ::testing::TestParamInfo<Row>& info) {
    return info.param.name;
}

}  // namespace nodetest

#endif  // TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_
