// The snapshot node's driver work through the real plug-in in this process,
// on the virtual clock, with a scripted backup agent where a test wants one.
#ifndef TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_
#define TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include <unicode/fmtable.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include "../coordinator/plugin_fixture.h"
#include "sim/clock.h"
#include "sim/hooks.h"
#include "support/leftovers.h"
#include "support/scripted_pipe_server.h"
#include "tarn/msgcatalog.h"

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
inline std::u16string selectedSplit(const std::string& name) {
    return testsupport::utf16(
        "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> "
        "<SET_CONFIG_INFO key=snapshotVolumeName value=\\\\?\\Snapshot" +
        name + " /> <SET_CONFIG_INFO key=cacheFileName value=E:\\selected_" + name +
        ".KIV /> <SET_CONFIG_INFO key=initialCacheFileSize value=64 /> "
        "<SET_CONFIG_INFO key=maximumCacheFileSize value=128 /> </SET_CONFIG_INFO_LIST>");
}

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
inline void injectFaults(const std::vector<Fault>& faults) {
    for (const Fault& fault : faults) {
        sim::injectFault(fault.function, fault.error, 0, fault.count);
    }
}

// n waits of one second.
inline std::vector<std::uint32_t> seconds(std::size_t n) {
    return std::vector<std::uint32_t>(n, 1000);
}

// The root text of catalogue message `id` formatted with `arguments`.
using ReportArgument = std::variant<std::string, std::int32_t>;
inline std::string catalogueText(const char* id, const std::vector<ReportArgument>& arguments) {
    std::vector<icu::Formattable> values;
    for (const ReportArgument& argument : arguments) {
        if (const auto* text = std::get_if<std::string>(&argument)) {
            std::u16string wide = testsupport::utf16(*text);
            values.emplace_back(icu::UnicodeString(wide.data(), static_cast<int32_t>(wide.size())));
        } else {
            values.emplace_back(std::get<std::int32_t>(argument));
        }
    }
    // Opened and closed here: the plug-in cleans ICU up when it is unloaded,
    // which must not find a bundle of ours still open.
    tarp_MsgCatalog catalogue("libfikiv", nullptr, false);
    const char16_t* pattern = catalogue.getCachedMsg(id, false);
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString result;
    icu::MessageFormat::format(icu::UnicodeString(pattern != nullptr ? pattern : u""),
                               values.data(), static_cast<int32_t>(values.size()), result, status);
    if (pattern == nullptr || U_FAILURE(status)) {
        return std::string("<no catalogue text for ") + id + ">";
    }
    return utf8(std::u16string_view(result.getBuffer(), static_cast<std::size_t>(result.length())));
}

// A catalogue report a test expects. In a text argument, each key of
// `placeholders` stands for a value known only at run time (a volume's name).
struct Report {
    const char* id;
    std::vector<ReportArgument> arguments;
};
inline std::vector<std::string> expectedReports(
    const std::vector<Report>& reports, const std::map<std::string, std::string>& placeholders) {
    std::vector<std::string> texts;
    for (const Report& report : reports) {
        std::vector<ReportArgument> arguments = report.arguments;
        for (ReportArgument& argument : arguments) {
            auto* text = std::get_if<std::string>(&argument);
            for (const auto& [placeholder, value] : placeholders) {
                for (std::size_t at = text != nullptr ? text->find(placeholder) : std::string::npos;
                     at != std::string::npos; at = text->find(placeholder, at + value.size())) {
                    text->replace(at, placeholder.size(), value);
                }
            }
        }
        texts.push_back(catalogueText(report.id, arguments));
    }
    return texts;
}

// The root texts of the catalogue reports among `messages`, and the lines
// sent without a catalogue (the parameter dump and its warning).
inline std::vector<std::string> reportsOf(const std::vector<HostMessage>& messages) {
    std::vector<std::string> reports;
    for (const HostMessage& message : messages) {
        if (message.secondText.has_value()) {
            reports.push_back(*message.secondText);
        }
    }
    return reports;
}

inline std::vector<HostMessage> plainLinesOf(const std::vector<HostMessage>& messages) {
    std::vector<HostMessage> lines;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(lines),
                 [](const HostMessage& message) { return !message.secondText.has_value(); });
    return lines;
}

// The values of the parameter dump's lines "\t<key>:<value>", in order.
inline std::vector<std::string> dumpValues(const std::vector<HostMessage>& messages,
                                           const std::string& key) {
    std::vector<std::string> values;
    const std::string prefix = "\t" + key + ":";
    for (const HostMessage& line : plainLinesOf(messages)) {
        if (line.text.has_value() && line.text->starts_with(prefix) && line.text->ends_with("\n")) {
            values.push_back(
                line.text->substr(prefix.size(), line.text->size() - prefix.size() - 1));
        }
    }
    return values;
}

class NodeTest : public CoordinatorTest {
  protected:
    void SetUp() override {
        sim::clearFaults();
        sim::useVirtualClock(true);
        sim::clearRecordedSleeps();
    }
    void TearDown() override {
        CoordinatorTest::TearDown();
        sim::clearFaults();
        sim::useVirtualClock(false);
    }

    // Starts the plug-in on the coordinator tests' machine, with the group node.
    void start() {
        startPlugin(plugintest::testMachine());
        ASSERT_EQ(init(), 0);
        group_ = &attach(plugintest::kGroupName);
        context_->takeMessages();
    }

    // Attaches a node for each volume `numbers[i]` as interposition names it,
    // configured with `splits[i]`; their fi entries.
    std::vector<tarn_fi_entry*> addSources(const std::vector<int>& numbers,
                                           const std::vector<std::u16string>& splits) {
        std::vector<tarn_fi_entry*> entries;
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            std::u16string name = TempMachine::guidName(numbers[i]);
            name.pop_back();
            HostNode& volume = attach(u"<kiv>" + name);
            EXPECT_EQ(configure(volume.record(), true, splits[i]), 0);
            std::vector<tarn_fi_entry*> own = volume.fiEntries();
            entries.push_back(own.empty() ? nullptr : own.front());
        }
        takeUserMessages();
        return entries;
    }

    // Volumes C: (1) and C:\mnt\data (6) prepared with automatically placed
    // caches and quiesce settings 10/30, without a wait or a report; their
    // entries and snapshot volume names in `preparedList_`, `snapshotNames_`.
    void preparePair() {
        start();
        preparedList_ = addSources({1, 6}, {kAutoSplit, kAutoSplit});
        ASSERT_EQ(configure(group_->record(), false, plugintest::kQuiesceSettings), 0);
        ASSERT_EQ(plugin_.prepare(preparedList_[0], nullptr, preparedList_.data(), 2, 0), 0);
        const std::vector<HostMessage> messages = takeUserMessages();
        ASSERT_EQ(reportsOf(messages), std::vector<std::string>{});
        snapshotNames_ = dumpValues(messages, "SnapshotVolumeName");
        ASSERT_EQ(snapshotNames_.size(), 2u);
        ASSERT_EQ(sleeps(), std::vector<std::uint32_t>{});
    }

    // make for the prepared pair's first entry, with `count` entries of the
    // list; the names of the identities it hands back (their buffer freed).
    std::int32_t make(std::uint32_t count, std::vector<std::u16string>& names) {
        tarn_objid** identities = nullptr;
        std::uint32_t made = 0;
        std::int32_t status = plugin_.make(preparedList_[0], nullptr, preparedList_.data(), count,
                                           &identities, &made);
        for (std::uint32_t i = 0; identities != nullptr && i < made; ++i) {
            const tarn_objid* identity = identities[i];
            names.push_back(identity != nullptr && identity->name != nullptr ? identity->name
                                                                             : u"");
        }
        if (identities != nullptr) {
            tarn_free_buf(identities, std::uint64_t{made == 0 ? 1u : made} * sizeof(tarn_objid*));
        }
        return status;
    }

    // A record for the snapshot volume `name` with an alternate node on it.
    HostNode& addSnapshotVolume(const std::u16string& name) {
        records_.push_back(std::make_unique<HostNode>(name));
        HostNode& snapshot = *records_.back();
        EXPECT_EQ(plugin_.init_altnode(snapshot.record(), nullptr, snapshot.record()), 0);
        return snapshot;
    }
    std::int32_t dispose(HostNode& snapshot) {
        return plugin_.dispose(nullptr, snapshot.record(), nullptr, 0);
    }

    // Catalogue reports and dump lines the host received since the last call.
    std::vector<HostMessage> takeUserMessages() {
        return plugintest::userMessages(context_->takeMessages());
    }
    std::vector<std::uint32_t> sleeps() const { return sim::recordedSleeps(); }

    // The driver's volume, snapshot and set handles this process holds open.
    std::size_t descriptorsIntoMachine() const {
        const std::string root = std::filesystem::canonical(machine_->directory()).string();
        std::size_t count = 0;
        for (const std::string& target : testsupport::openDescriptors()) {
            count += target.starts_with(root) && std::filesystem::is_directory(target) ? 1 : 0;
        }
        return count;
    }

    // Detaches every node; then the sets, cache files and holds left behind.
    std::vector<std::string> leftoversAfterDetaching() {
        for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
            plugin_.deinit_node((*it)->record());
        }
        return testsupport::machineLeftovers(machine_->directory());
    }

    std::vector<tarn_fi_entry*> preparedList_;
    std::vector<std::string> snapshotNames_;
    HostNode* group_ = nullptr;
};

}  // namespace nodetest

#endif  // TESTS_PROVIDERS_KIV_NODE_NODE_FIXTURE_H_
