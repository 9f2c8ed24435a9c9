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
// A split document that names the snapshot volume "\\?\Snapshot<name>" and
// the cache file "E:\selected_<name>.KIV" itself, 64 MB to 128 MB.
std::u16string selectedSplit(const std::string& name);

// The agent's answer while it cannot hand a handle over yet, and the text a
// report gives when it said so through a whole budget of retries.
inline constexpr std::uint32_t kBusy = 231;
inline constexpr char kBusyText[] = "Retrived handle after every second for 30 times";
inline constexpr std::int32_t kInvalidHandle = 6;

// `function` fails its next `count` calls with `error`.
struct Fault {
    const char* function;
    std::uint32_t error;
    std::uint32_t count = 1;
};
void injectFaults(const std::vector<Fault>& faults);

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

    // make; the identities it handed back go to `names`, their buffer is freed.
    std::int32_t make(tarn_fi_entry* entry, std::vector<tarn_fi_entry*> list,
                      std::vector<std::u16string>* names = nullptr);

    // A record for the snapshot volume `name` with an alternate node on it.
    HostNode& addSnapshotVolume(const std::u16string& name);
    std::int32_t dispose(HostNode& snapshot) {
        return plugin_.dispose(nullptr, snapshot.record(), nullptr, 0);
    }

    // Catalogue reports and dump lines the host received since the last call.
    std::vector<HostMessage> takeUserMessages() {
        return plugintest::userMessages(context_->takeMessages());
    }
    std::vector<std::uint32_t> sleeps() const { return sim::recordedSleeps(); }

    // The driver's volume, snapshot and set handles this process holds open.
    std::size_t descriptorsIntoMachine() const;

    // Detaches every node; then the snapshot sets, cache files and agent
    // holds left on the machine.
    std::vector<std::string> leftoversAfterDetaching();

    // Volumes C: (1) and C:\mnt\data (6) prepared with automatically placed
    // caches and quiesce settings 10/30, without a wait or a report; their
    // entries and snapshot volume names in `preparedList_`, `snapshotNames_`.
    void preparePair();

    std::vector<tarn_fi_entry*> preparedList_;
    std::vector<std::string> snapshotNames_;
    HostNode* group_ = nullptr;
};

// The root text of catalogue message `id` formatted with `arguments`.
using ReportArgument = std::variant<std::string, std::int32_t>;
std::string catalogueText(const char* id, const std::vector<ReportArgument>& arguments);

// A catalogue report a test expects. In a text argument, each key of
// `placeholders` stands for a value known only at run time (a volume's name).
struct Report {
    const char* id;
    std::vector<ReportArgument> arguments;
};
std::vector<std::string> expectedReports(const std::vector<Report>& reports,
                                         const std::map<std::string, std::string>& placeholders);

// The root texts of the catalogue reports among `messages`, and the lines
// sent without a catalogue (the parameter dump and its warning).
std::vector<std::string> reportsOf(const std::vector<HostMessage>& messages);
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
