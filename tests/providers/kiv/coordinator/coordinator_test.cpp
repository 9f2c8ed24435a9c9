// The plug-in's start-up, claim, error texts and interposition, through the
// host library against the real libfikiv.so, loaded afresh for each test.
#include <gtest/gtest.h>

#include "sim/eventlog.h"
#include "sim/hooks.h"
#include "plugin_fixture.h"

namespace plugintest {
namespace {

// What interpose answered and wrote; the outputs start as sentinels.
struct Interposition {
    std::int32_t answer = -1;
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
};

Interposition interpose(PluginHost& plugin, HostNode& volume, std::uint32_t count = 0) {
    Interposition result;
    result.count = count;
    result.answer =
        plugin.interpose(volume.record(), &result.identity, &result.groups, &result.count);
    return result;
}

// init with or without its context and version record, and a plug-in that
// cannot load the driver library: the answer, the version written, whether
// the log starts (an error text then reaches the host) and whether the
// provider takes volumes afterwards.
TEST_F(CoordinatorTest, InitAnswersByItsArgumentsAndTheDriver) {
    struct Row {
        const char* name;
        bool context;
        bool version;
        nlohmann::json faults;
        std::int32_t status;
        std::optional<bool> logs;  // unasked without the driver: no coordinator to answer
        bool takesVolumes;
    };
    // clang-format off
    const Row rows[] = {
        {"WithoutVersionRecordAnswersSevenAndBuildsNothing", true, false, nlohmann::json::array(), 7, false, false},
        {"WritesVersionAndStartsLogging", true, true, nlohmann::json::array(), 0, true, true},
        {"NullContextSendsNothing", false, true, nlohmann::json::array(), 0, false, true},
        {"MissingDriverLibraryLeavesProviderUninitialised", true, true, {{{"missingLibrary", "kivapi.dll"}}}, 0, std::nullopt, false},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        startPlugin(testMachine(row.faults));
        tarn_version version{};
        EXPECT_EQ(plugin_.init(row.context ? context_->context() : nullptr,
                               row.version ? &version : nullptr),
                  row.status);
        const std::vector<std::uint16_t> written(version.words, version.words + 4);
        EXPECT_EQ(written,
                  (std::vector<std::uint16_t>{std::uint16_t(row.version ? 7 : 0), 0, 0, 0}));
        if (row.logs.has_value()) {
            const char16_t* text = nullptr;
            EXPECT_EQ(plugin_.errmsg(3, &text), 0);
            std::vector<HostMessage> messages = context_->messages();
            ASSERT_EQ(!messages.empty(), *row.logs);
            // Log lines carry the plug-in name once init has run.
            EXPECT_TRUE(messages.empty() || contains(messages.front().text, "fikiv:"));
        }

        HostNode volume(u"C:");
        Interposition interposed = interpose(plugin_, volume, 42);
        EXPECT_EQ(interposed.answer, row.takesVolumes ? 1 : 0);
        if (!row.takesVolumes) {
            EXPECT_EQ(interposed.identity, nullptr);
            EXPECT_EQ(interposed.groups, nullptr);
            EXPECT_EQ(interposed.count, 42u);
        }
        // G: carries the claim attribute: only an initialised provider claims it.
        HostNode claimed(TempMachine::guidName(5));
        std::uint32_t flag = 7;
        int argument = 0;
        EXPECT_EQ(plugin_.claim(claimed.objid(), &argument, &flag), row.takesVolumes ? 1 : 0);
        EXPECT_EQ(flag, 7u);
        TearDown();
    }
}

TEST_F(StartedCoordinatorTest, ClaimAndNodeExistenceFollowTheTag) {
    struct Row {
        const char* name;
        std::u16string object;
        std::int32_t expected;
        std::uint32_t expectedFlag;
    } rows[] = {
        {"source without claim bit", TempMachine::guidName(1), 0, 7},
        {"tagged name the driver does not know", u"<kiv>Q:", 3, 0},
        {"untagged name the driver does not know", u"Q:", 0, 7},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        HostNode object(row.object);
        std::uint32_t flag = 7;
        int argument = 0;
        EXPECT_EQ(plugin_.claim(object.objid(), &argument, &flag), row.expected);
        EXPECT_EQ(flag, row.expectedFlag);
        // Any null argument: 0, nothing written.
        EXPECT_EQ(plugin_.claim(nullptr, &argument, &flag), 0);
        EXPECT_EQ(plugin_.claim(object.objid(), nullptr, &flag), 0);
        EXPECT_EQ(plugin_.claim(object.objid(), &argument, nullptr), 0);
        EXPECT_EQ(flag, row.expectedFlag);
    }
    // check_node_existence reports the tag alone.
    HostNode tagged(u"<kiv>" + TempMachine::guidName(1));
    HostNode plain(TempMachine::guidName(1));
    std::uint32_t exists = 7;
    EXPECT_EQ(plugin_.check_node_existence(tagged.record(), &exists), 0);
    EXPECT_EQ(exists, 1u);
    EXPECT_EQ(plugin_.check_node_existence(plain.record(), &exists), 0);
    EXPECT_EQ(exists, 0u);
    EXPECT_EQ(plugin_.check_node_existence(plain.record(), nullptr), 3);
    EXPECT_EQ(plugin_.check_node_existence(nullptr, &exists), 3);
}

// errmsg answers the framework catalogue's text for a status, hands it to the
// host as both texts at level 3 (when there is a callback) and writes an error
// event whose id is the status and whose text names where it was raised.
TEST_F(CoordinatorTest, ErrMsgHandsTextToHostAndEventLog) {
    struct Row {
        const char* name;
        std::uint32_t status;
        std::optional<std::string> text;
        bool callback;
    };
    const Row rows[] = {
        {"InvalidRequest", 3, "The request is invalid.", true},
        {"UnknownStatus", 42, std::nullopt, true},
        {"NoCallback", 5, "Not enough memory to complete the operation.", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        startPlugin(testMachine(), HostContextOptions{row.callback, "de", false});
        ASSERT_EQ(init(), 0);
        context_->takeMessages();

        const char16_t* text = u"untouched";
        EXPECT_EQ(plugin_.errmsg(row.status, &text), 0);
        EXPECT_EQ(text != nullptr ? std::optional<std::string>(utf8(text)) : std::nullopt,
                  row.text);

        const std::vector<HostMessage> errors = messagesAt(context_->messages(), 3);
        ASSERT_EQ(errors.size(), row.callback ? 1u : 0u);
        for (const HostMessage& error : errors) {
            EXPECT_EQ(error.text, row.text);
            EXPECT_EQ(error.secondText, row.text);
        }

        std::vector<sim::EventRecord> events = sim::readEventLog();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].source, "fikiv");
        EXPECT_EQ(events[0].type, 1);  // error
        EXPECT_EQ(events[0].eventId, row.status);
        ASSERT_EQ(events[0].strings.size(), 1u);
        EXPECT_NE(events[0].strings[0].find("providers\\kiv\\kivficoordinator"), std::string::npos)
            << events[0].strings[0];
        TearDown();
    }
}

struct InterposeRow {
    const char* name;
    std::u16string object;
    std::uint32_t flags;
    std::string identity;          // when interposed
    std::string warning;           // a level-2 line must hold it, when set
    std::size_t catalogueReports;  // reports of MSG_ERROR_KIVAPI, each naming the volume
};

// Every case runs once with a locale, whose catalogue texts then come with
// each report, and once without, where a report has only its root text.
TEST_F(CoordinatorTest, InterposeAnswersAndExplains) {
    // clang-format off
    const InterposeRow rows[] = {
        {"GUID path used unchanged", TempMachine::guidName(1), 0, "<kiv>" + guid(1), "", 0},
        {"drive without backslash resolves to its GUID path", u"C:", 0, "<kiv>" + guidWithoutBackslash(1), "", 0},
        {"drive with backslash resolves too", u"C:\\", 0, "<kiv>" + guidWithoutBackslash(1), "", 0},
        {"snapshot attribute alone is a valid source", u"D:", 0, "<kiv>" + guidWithoutBackslash(2), "", 0},
        {"no attribute", u"E:", 0, "", "KIV_ATTRIBUTE_VALID_SOURCE not set for volume [" + guidWithoutBackslash(3) + "]", 0},
        {"active cache and disabled", u"F:", 0, "",
         guidWithoutBackslash(4) + " - KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE - KIV_ATTRIBUTE_DISABLED", 2},
        {"unknown drive keeps its name", u"Q:", 0, "", "cant interpose due to open volume [Q:] failed", 0},
        {"unknown drive given with backslash reads without it", u"Q:\\", 0, "", "cant interpose due to open volume [Q:] failed", 0},
        {"declined by the host flag", TempMachine::guidName(1), 0x800, "", "", 0},
    };
    // clang-format on
    for (std::optional<std::string> locale :
         {std::optional<std::string>("de"), std::optional<std::string>()}) {
        SCOPED_TRACE(locale.value_or("no locale"));
        startPlugin(testMachine(), HostContextOptions{true, locale, false});
        ASSERT_EQ(init(), 0);
        tarn_objid** firstGroups = nullptr;
        for (const InterposeRow& row : rows) {
            SCOPED_TRACE(row.name);
            context_->takeMessages();
            HostNode volume(row.object);
            volume.record()->flags = row.flags;
            const Interposition out = interpose(plugin_, volume);
            const bool taken = !row.identity.empty();
            EXPECT_EQ(out.answer, taken ? 1 : 0);
            EXPECT_EQ(out.count, taken ? 1u : 0u);
            EXPECT_EQ(out.identity != nullptr, taken);
            EXPECT_EQ(out.groups != nullptr, taken);
            if (out.identity != nullptr && out.groups != nullptr) {
                EXPECT_EQ(
                    utf8(std::u16string_view(out.identity->name, out.identity->length / 2 - 1)),
                    row.identity);
                EXPECT_EQ(utf8(out.groups[0]->name), utf8(kGroupName));
                // One group array serves every interposition.
                firstGroups = firstGroups == nullptr ? out.groups : firstGroups;
                EXPECT_EQ(out.groups, firstGroups);
            }
            std::vector<HostMessage> warnings = messagesAt(context_->messages(), 2);
            EXPECT_EQ(warnings.empty(), row.warning.empty() && row.catalogueReports == 0);
            EXPECT_TRUE(row.warning.empty() || anyContains(warnings, row.warning)) << row.warning;
            std::size_t reports = 0;
            for (const HostMessage& message : warnings) {
                if (!message.secondText.has_value()) {
                    continue;
                }
                ++reports;
                // The rows with reports name the volume first in their warning.
                EXPECT_TRUE(contains(message.secondText,
                                     row.warning.substr(0, guidWithoutBackslash(1).size())))
                    << *message.secondText;
                EXPECT_EQ(message.text.has_value(), locale.has_value());
                if (message.text.has_value()) {
                    EXPECT_NE(*message.text, *message.secondText) << "not the locale's text";
                }
            }
            EXPECT_EQ(reports, row.catalogueReports);
        }
        TearDown();
    }
}

// Interpositions that end early or cannot hand their answer over answer 0:
// the host hears exactly the lines of the steps that ran, and the driver is
// asked whenever the name gets that far.
TEST_F(StartedCoordinatorTest, InterposeEndingEarlySendsOnlyTheLinesOfItsSteps) {
    struct Row {
        const char* name;
        std::u16string object;
        bool nullOutputs;
        bool lookupUnbindable;
        std::uint64_t driverOpens;
        std::vector<std::string> lines;  // each user-level line, in order, by a part of it
    };
    // clang-format off
    const Row rows[] = {
        // First: the lookup is bound on first need and kept for the process.
        {"mount-point lookup cannot be bound", u"C:", false, true, 0, {"KivFiCoordinator::interpose [C:] "}},
        {"empty name", u"", false, false, 0, {"KivFiCoordinator::interpose [] "}},
        {"valid source, nowhere to write the answer", u"C:", true, false, 1, {"KivFiCoordinator::interpose [C:] "}},
        {"disabled volume, nowhere to write the answer", u"H:", true, false, 1,
         {"KivFiCoordinator::interpose [H:] ", guidWithoutBackslash(7) + " - KIV_ATTRIBUTE_DISABLED",
          "KIV_ATTRIBUTE_VALID_SOURCE not set for volume [" + guidWithoutBackslash(7) + " - KIV_ATTRIBUTE_DISABLED]"}},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        context_->takeMessages();
        if (row.lookupUnbindable) {
            sim::makeUnbindable("kernel32.dll", "GetVolumeNameForVolumeMountPointW");
        }
        const std::uint64_t opensBefore = sim::callCount("KIV_Open");
        HostNode volume(row.object);
        std::int32_t answer = row.nullOutputs
                                  ? plugin_.interpose(volume.record(), nullptr, nullptr, nullptr)
                                  : interpose(plugin_, volume).answer;
        const std::uint64_t opens = sim::callCount("KIV_Open") - opensBefore;
        sim::clearFaults();
        EXPECT_EQ(answer, 0);
        EXPECT_EQ(opens, row.driverOpens);

        std::vector<HostMessage> seen = userMessages(context_->messages());
        EXPECT_EQ(seen.size(), row.lines.size());
        for (std::size_t i = 0; i < std::min(seen.size(), row.lines.size()); ++i) {
            const std::optional<std::string>& text =
                seen[i].text.has_value() ? seen[i].text : seen[i].secondText;
            EXPECT_TRUE(contains(text, row.lines[i])) << i << ": " << text.value_or("(null)");
        }
    }
}

TEST_F(StartedCoordinatorTest, FixedAnswersNeedNoNode) {
    int a = 0;
    int b = 0;
    tarn_tree_record emptyTree{};
    tarn_tree_record fullTree{};
    fullTree.count = 2;
    tarn_list_node* list = reinterpret_cast<tarn_list_node*>(&a);

    EXPECT_EQ(plugin_.getattr(&a, &b, nullptr, nullptr), 4);
    EXPECT_EQ(plugin_.import_tree(&a, &b, nullptr, 1), 4);
    EXPECT_EQ(plugin_.init_remnode(&a, &b, nullptr), 4);
    EXPECT_EQ(plugin_.pre_prepare(&a), 0);
    EXPECT_EQ(plugin_.deport_tree(&a, nullptr, &emptyTree), 0);
    EXPECT_EQ(plugin_.deport_tree(&a, &b, &emptyTree), 4);
    EXPECT_EQ(plugin_.deport_tree(&a, nullptr, &fullTree), 4);
    EXPECT_EQ(plugin_.deport_tree(&a, nullptr, nullptr), 4);
    EXPECT_EQ(plugin_.isvalid_node_association(&a, &b), 4);
    EXPECT_EQ(plugin_.isvalid_node_association(nullptr, &b), 3);
    EXPECT_EQ(plugin_.enumerate_nodes(nullptr, nullptr, 0, nullptr), 3);
    EXPECT_EQ(plugin_.enumerate_nodes(&list, nullptr, 0, nullptr), 0);
    EXPECT_EQ(list, nullptr);
    list = reinterpret_cast<tarn_list_node*>(&a);
    EXPECT_EQ(plugin_.enumerate_group_nodes(&list), 0);
    EXPECT_EQ(list, nullptr);
    list = reinterpret_cast<tarn_list_node*>(&a);
    EXPECT_EQ(plugin_.enumerate_associations(&list), 0);
    EXPECT_EQ(list, nullptr);
    list = reinterpret_cast<tarn_list_node*>(&a);
    EXPECT_EQ(plugin_.get_associated_nodes(&a, &list), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(plugin_.get_associated_nodes(nullptr, &list), 3);
    EXPECT_EQ(plugin_.restore(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr), 4);
    EXPECT_EQ(plugin_.resync(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr), 0);
    EXPECT_EQ(plugin_.get_status(nullptr, nullptr, 0, nullptr, 0, nullptr), 0);
    EXPECT_EQ(plugin_.query_valid_secondaries(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(plugin_.objctl(nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(StartedCoordinatorTest, RecordsWithoutNodeAreInvalidRequests) {
    HostNode bare(u"C:");
    tarn_fi_entry entry{"kiv-cow-snapshot", bare.record(), nullptr};
    tarn_access_record access{bare.record()};
    int list = 0;
    int count = 0;

    EXPECT_EQ(plugin_.subobj_list(nullptr, &list, &count), 3);
    EXPECT_EQ(plugin_.subobj_list(bare.record(), &list, &count), 3);
    EXPECT_EQ(plugin_.supports_fitype(bare.record(), "any"), 3);
    EXPECT_EQ(plugin_.config(bare.record(), 1, nullptr, nullptr), 3);
    EXPECT_EQ(plugin_.quiesce(&entry, nullptr, 0, nullptr), 3);
    EXPECT_EQ(plugin_.prepare(&entry, nullptr, nullptr, 0, 0), 3);
    EXPECT_EQ(plugin_.select(&entry, nullptr, nullptr, 0), 3);
    EXPECT_EQ(bare.record()->status & 0x4, 0u);
    EXPECT_EQ(plugin_.isready(nullptr, nullptr, nullptr, 0), 3);
    EXPECT_EQ(plugin_.dispose(nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(plugin_.dispose(nullptr, bare.record(), nullptr, 0), 3);
    EXPECT_EQ(plugin_.enable_access(&access, 0, 0, 1), 0);
    EXPECT_EQ(plugin_.enable_access(&access, 0, 0, 0), 3);
    EXPECT_EQ(plugin_.disable_access(&access, 0), 3);
    EXPECT_EQ(plugin_.cache_disable(bare.record()), 3);
    EXPECT_EQ(plugin_.unquiesce(nullptr, nullptr, 0), 0);
    EXPECT_EQ(plugin_.cache_enable(bare.record()), 0);
    EXPECT_EQ(plugin_.deinit_node(bare.record()), 0);
    EXPECT_EQ(bare.record()->fi_list, nullptr);
}

TEST_F(StartedCoordinatorTest, ReloadStartsUninitialisedAgain) {
    HostNode volume(u"C:");
    ASSERT_EQ(interpose(plugin_, volume).answer, 1);

    plugin_.unload();
    ASSERT_TRUE(plugin_.load(FIKIV_PLUGIN_PATH).isOk());
    const Interposition before = interpose(plugin_, volume);
    EXPECT_EQ(before.answer, 0);
    EXPECT_EQ(before.identity, nullptr);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(interpose(plugin_, volume).answer, 1);
}

}  // namespace
}  // namespace plugintest
