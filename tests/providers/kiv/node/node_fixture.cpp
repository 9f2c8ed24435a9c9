#include "node_fixture.h"

#include <algorithm>
#include <filesystem>

#include <unicode/fmtable.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include "sim/clock.h"
#include "support/leftovers.h"
#include "tarn/msgcatalog.h"

namespace nodetest {

std::u16string selectedSplit(const std::string& name) {
    return testsupport::utf16(
        "<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_SELECT_PREP /> "
        "<SET_CONFIG_INFO key=snapshotVolumeName value=\\\\?\\Snapshot" +
        name + " /> <SET_CONFIG_INFO key=cacheFileName value=E:\\selected_" + name +
        ".KIV /> <SET_CONFIG_INFO key=initialCacheFileSize value=64 /> "
        "<SET_CONFIG_INFO key=maximumCacheFileSize value=128 /> </SET_CONFIG_INFO_LIST>");
}

void injectFaults(const std::vector<Fault>& faults) {
    for (const Fault& fault : faults) {
        sim::injectFault(fault.function, fault.error, 0, fault.count);
    }
}

std::string catalogueText(const char* id, const std::vector<ReportArgument>& arguments) {
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
    return utf8(std::u16string_view(result.getBuffer(), static_cast<std::size_t>(result.length())));
}

std::vector<std::string> expectedReports(const std::vector<Report>& reports,
                                         const std::map<std::string, std::string>& placeholders) {
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
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(lines),
                 [](const HostMessage& message) { return !message.secondText.has_value(); });
    return lines;
}

void NodeTest::SetUp() {
    sim::clearFaults();
    sim::useVirtualClock(true);
    sim::clearRecordedSleeps();
}

void NodeTest::TearDown() {
    CoordinatorTest::TearDown();
    sim::clearFaults();
    sim::useVirtualClock(false);
}

void NodeTest::start() {
    startPlugin(plugintest::testMachine());
    ASSERT_EQ(init(), 0);
    group_ = &attach(plugintest::kGroupName);
    context_->takeMessages();
}

std::vector<tarn_fi_entry*> NodeTest::addSources(const std::vector<int>& numbers,
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

void NodeTest::preparePair() {
    start();
    preparedList_ = addSources({1, 6}, {kAutoSplit, kAutoSplit});
    ASSERT_EQ(configure(group_->record(), false, plugintest::kQuiesceSettings), 0);
    ASSERT_EQ(plugin_.prepare(preparedList_[0], nullptr, preparedList_.data(), 2, 0), 0);
    const std::vector<HostMessage> messages = takeUserMessages();
    ASSERT_EQ(reportsOf(messages), std::vector<std::string>{});
    const std::string prefix = "\tSnapshotVolumeName:";
    snapshotNames_.clear();
    for (const HostMessage& line : plainLinesOf(messages)) {
        if (line.text.has_value() && line.text->starts_with(prefix)) {
            snapshotNames_.push_back(
                line.text->substr(prefix.size(), line.text->size() - prefix.size() - 1));
        }
    }
    ASSERT_EQ(snapshotNames_.size(), 2u);
    ASSERT_EQ(sleeps(), std::vector<std::uint32_t>{});
}

std::int32_t NodeTest::make(tarn_fi_entry* entry, std::vector<tarn_fi_entry*> list,
                            std::vector<std::u16string>* names) {
    tarn_objid** identities = nullptr;
    std::uint32_t count = 0;
    std::int32_t status =
        plugin_.make(entry, nullptr, list.empty() ? nullptr : list.data(),
                     static_cast<std::uint32_t>(list.size()), &identities, &count);
    if (identities == nullptr) {
        return status;
    }
    for (std::uint32_t i = 0; names != nullptr && i < count; ++i) {
        const tarn_objid* identity = identities[i];
        names->push_back(identity != nullptr && identity->name != nullptr ? identity->name : u"");
    }
    tarn_free_buf(identities, std::uint64_t{count == 0 ? 1u : count} * sizeof(tarn_objid*));
    return status;
}

HostNode& NodeTest::addSnapshotVolume(const std::u16string& name) {
    records_.push_back(std::make_unique<HostNode>(name));
    HostNode& snapshot = *records_.back();
    EXPECT_EQ(plugin_.init_altnode(snapshot.record(), nullptr, snapshot.record()), 0);
    return snapshot;
}

std::size_t NodeTest::descriptorsIntoMachine() const {
    const std::string root = std::filesystem::canonical(machine_->directory()).string();
    std::size_t count = 0;
    for (const std::string& target : testsupport::openDescriptors()) {
        count += target.starts_with(root) && std::filesystem::is_directory(target) ? 1 : 0;
    }
    return count;
}

std::vector<std::string> NodeTest::leftoversAfterDetaching() {
    for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
        plugin_.deinit_node((*it)->record());
    }
    return testsupport::machineLeftovers(machine_->directory());
}

}  // namespace nodetest
