#include "node_fixture.h"

#include <filesystem>
#include <fstream>

#include <unicode/fmtable.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include "host/text.h"
#include "sim/clock.h"
#include "tarn/msgcatalog.h"

namespace nodetest {

std::u16string selectedSplit(const std::string& snapshotVolumeName,
                             const std::string& cacheFileName, std::uint32_t initialMB,
                             std::uint32_t maximumMB) {
    std::string text =
        "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> "
        "<SET_CONFIG_INFO key=snapshotVolumeName value=" +
        snapshotVolumeName + " /> <SET_CONFIG_INFO key=cacheFileName value=" + cacheFileName +
        " /> <SET_CONFIG_INFO key=initialCacheFileSize value=" + std::to_string(initialMB) +
        " /> <SET_CONFIG_INFO key=maximumCacheFileSize value=" + std::to_string(maximumMB) +
        " /> </SET_CONFIG_INFO_LIST>";
    return host::toUtf16(text);
}

std::u16string quiesceDocument(std::uint32_t wait, std::uint32_t timeout) {
    std::string text =
        "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=" + std::to_string(wait) +
        " /> <SET_CONFIG_INFO key=quiesceTimeout value=" + std::to_string(timeout) +
        " /> </SET_CONFIG_INFO_LIST>";
    return host::toUtf16(text);
}

std::u16string taggedVolume(int number) {
    std::u16string name = TempMachine::guidName(number);
    name.pop_back();
    return u"<kiv>" + name;
}

std::string catalogueText(const char* id, const std::vector<ReportArgument>& arguments) {
    std::vector<icu::Formattable> values;
    for (const ReportArgument& argument : arguments) {
        if (const auto* text = std::get_if<std::string>(&argument)) {
            std::u16string wide = host::toUtf16(*text);
            values.emplace_back(icu::UnicodeString(wide.data(), static_cast<int32_t>(wide.size())));
        } else {
            values.emplace_back(std::get<std::int32_t>(argument));
        }
    }
    // Opened and closed here: the plug-in cleans ICU up when it is unloaded,
    // which must not find a bundle of ours still open.
    tarp_MsgCatalog catalogue("libfikiv", nullptr, false);
    const char16_t* pattern = catalogue.getCachedMsg(id, false);
    if (pattern == nullptr) {
        return std::string("<no message ") + id + ">";
    }
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString result;
    icu::MessageFormat::format(icu::UnicodeString(pattern), values.data(),
                               static_cast<int32_t>(values.size()), result, status);
    if (U_FAILURE(status)) {
        return std::string("<cannot format ") + id + ">";
    }
    return host::toUtf8(
        std::u16string(result.getBuffer(), static_cast<std::size_t>(result.length())));
}

std::vector<std::string> expectedReports(const std::vector<Report>& reports,
                                         const std::map<std::string, std::string>& placeholders) {
    std::vector<std::string> texts;
    for (const Report& report : reports) {
        std::vector<ReportArgument> arguments;
        for (const ReportArgument& argument : report.arguments) {
            const auto* text = std::get_if<std::string>(&argument);
            if (text == nullptr) {
                arguments.push_back(argument);
                continue;
            }
            std::string filled = *text;
            for (const auto& [placeholder, value] : placeholders) {
                for (std::size_t at = filled.find(placeholder); at != std::string::npos;
                     at = filled.find(placeholder, at + value.size())) {
                    filled.replace(at, placeholder.size(), value);
                }
            }
            arguments.emplace_back(filled);
        }
        texts.push_back(catalogueText(report.id, arguments));
    }
    return texts;
}

std::vector<std::string> reportsOf(const std::vector<HostMessage>& messages) {
    std::vector<std::string> reports;
    for (const HostMessage& message : messages) {
        if (message.secondText.has_value()) {
            reports.push_back(*message.secondText);
        }
    }
    return reports;
}

std::vector<HostMessage> plainLinesOf(const std::vector<HostMessage>& messages) {
    std::vector<HostMessage> lines;
    for (const HostMessage& message : messages) {
        if (!message.secondText.has_value()) {
            lines.push_back(message);
        }
    }
    return lines;
}

void NodeTest::SetUp() {
    sim::clearFaults();
    sim::useVirtualClock(true);
    sim::clearRecordedSleeps();
}

void NodeTest::TearDown() {
    for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
        if ((*it)->providerData() != nullptr) {
            plugin_.deinit_node((*it)->record());
        }
    }
    records_.clear();
    sim::clearFaults();
    sim::useVirtualClock(false);
    CoordinatorTest::TearDown();
}

void NodeTest::start(const nlohmann::json& description) {
    startPlugin(description);
    ASSERT_EQ(init(), 0);
    records_.push_back(std::make_unique<HostNode>(u"kiv-cow-snapshot-group"));
    group_ = records_.back().get();
    ASSERT_EQ(plugin_.init_node(group_->record(), nullptr, 0, nullptr), 0);
    context_->takeMessages();
}

void NodeTest::preparePair() {
    start();
    HostNode& first = addVolume(taggedVolume(1));
    HostNode& second = addVolume(taggedVolume(6));
    ASSERT_EQ(configure(group_->record(), false, quiesceDocument(10, 30)), 0);
    ASSERT_EQ(configure(first.record(), true, kAutoSplit), 0);
    ASSERT_EQ(configure(second.record(), true, kAutoSplit), 0);
    preparedList_ = entriesOf({&first, &second});
    takeUserMessages();
    ASSERT_EQ(plugin_.prepare(preparedList_[0], nullptr, preparedList_.data(), 2, 0), 0);
    const std::string prefix = "\tSnapshotVolumeName:";
    snapshotNames_.clear();
    for (const HostMessage& line : plainLinesOf(takeUserMessages())) {
        if (line.text.has_value() && line.text->rfind(prefix, 0) == 0) {
            snapshotNames_.push_back(
                line.text->substr(prefix.size(), line.text->size() - prefix.size() - 1));
        }
    }
    ASSERT_EQ(snapshotNames_.size(), 2u);
    sim::clearFaults();
    sim::clearRecordedSleeps();
}

HostNode& NodeTest::addVolume(const std::u16string& name) {
    records_.push_back(std::make_unique<HostNode>(name));
    HostNode& volume = *records_.back();
    EXPECT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);
    return volume;
}

tarn_fi_entry* NodeTest::entryOf(HostNode& volume) {
    std::vector<tarn_fi_entry*> entries = volume.fiEntries();
    return entries.empty() ? nullptr : entries.front();
}

std::vector<tarn_fi_entry*> NodeTest::entriesOf(const std::vector<HostNode*>& volumes) {
    std::vector<tarn_fi_entry*> entries;
    for (HostNode* volume : volumes) {
        entries.push_back(entryOf(*volume));
    }
    return entries;
}

std::int32_t NodeTest::configure(tarn_node* record, bool split, const std::u16string& document) {
    std::u16string text = document;
    tarn_config_request request{};
    request.split_selector = split ? 1 : 0;
    request.quiesce_selector = split ? 0 : 1;
    request.text = text.data();
    return plugin_.config(record, 2, nullptr, &request);
}

std::int32_t NodeTest::make(tarn_fi_entry* entry, std::vector<tarn_fi_entry*> list,
                            std::vector<std::u16string>* names) {
    tarn_objid** identities = nullptr;
    std::uint32_t count = 0;
    std::int32_t status =
        plugin_.make(entry, nullptr, list.empty() ? nullptr : list.data(),
                     static_cast<std::uint32_t>(list.size()), &identities, &count);
    if (identities != nullptr) {
        for (std::uint32_t i = 0; i < count; ++i) {
            if (names != nullptr) {
                const tarn_objid* identity = identities[i];
                names->push_back(identity != nullptr && identity->name != nullptr
                                     ? std::u16string(identity->name)
                                     : std::u16string());
            }
        }
        tarn_free_buf(identities, std::uint64_t{count == 0 ? 1u : count} * sizeof(tarn_objid*));
    }
    return status;
}

HostNode& NodeTest::addSnapshotVolume(const std::u16string& name) {
    records_.push_back(std::make_unique<HostNode>(name));
    HostNode& snapshot = *records_.back();
    EXPECT_EQ(plugin_.init_altnode(snapshot.record(), nullptr, snapshot.record()), 0);
    return snapshot;
}

std::int32_t NodeTest::dispose(HostNode& snapshot) {
    return plugin_.dispose(nullptr, snapshot.record(), nullptr, 0);
}

std::vector<HostMessage> NodeTest::takeUserMessages() {
    return plugintest::userMessages(context_->takeMessages());
}

std::size_t NodeTest::descriptorsIntoMachine() const {
    const std::string root = std::filesystem::canonical(machine_->directory()).string();
    std::size_t count = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        std::error_code linkError;
        std::string target = std::filesystem::read_symlink(entry.path(), linkError).string();
        if (!linkError && target.rfind(root, 0) == 0 && std::filesystem::is_directory(target)) {
            ++count;
        }
    }
    return count;
}

std::vector<std::string> NodeTest::leftovers() const {
    std::vector<std::string> found;
    const std::filesystem::path& file = machine_->file();
    std::filesystem::path state =
        file.parent_path() / (file.stem().string() + ".state") / "driver" / "state.json";
    std::ifstream in(state);
    if (in) {
        nlohmann::json document = nlohmann::json::parse(in, nullptr, false);
        if (document.is_object() && document.contains("sets")) {
            for (const nlohmann::json& set : document["sets"]) {
                found.push_back("snapshot set " + set.value("id", nlohmann::json()).dump());
            }
        }
    }
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(machine_->directory(), error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        if (it->path().filename().string().find("_tarnKivCacheFile_") != std::string::npos) {
            found.push_back("cache file " + it->path().string());
        }
    }
    return found;
}

}  // namespace nodetest
