// The plug-in's start-up, claim, error texts and interposition, through the
// host library against the real libfikiv.so on a machine made for each test.
// Every test loads the plug-in afresh, so no state of an earlier test's
// coordinator can leak into the next.
#include <gtest/gtest.h>

#include "sim/eventlog.h"
#include "sim/hooks.h"
#include "plugin_fixture.h"

namespace plugintest {
namespace {

TEST_F(CoordinatorTest, InitWithoutVersionRecordAnswersSevenAndBuildsNothing) {
    startPlugin(testMachine());
    EXPECT_EQ(plugin_.init(context_->context(), nullptr), 7);
    EXPECT_TRUE(context_->messages().empty());
    // Still uninitialised: interposition takes nothing.
    HostNode volume(u"C:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 99;
    EXPECT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    EXPECT_EQ(count, 99u);
}

TEST_F(CoordinatorTest, InitWritesVersionAndStartsLogging) {
    startPlugin(testMachine());
    tarn_version version{};
    EXPECT_EQ(plugin_.init(context_->context(), &version), 0);
    EXPECT_EQ(version.words[0], 7);
    EXPECT_EQ(version.words[1], 0);
    EXPECT_EQ(version.words[2], 0);
    EXPECT_EQ(version.words[3], 0);

    const char16_t* text = nullptr;
    ASSERT_EQ(plugin_.errmsg(3, &text), 0);
    std::vector<HostMessage> messages = context_->messages();
    ASSERT_FALSE(messages.empty());
    // Log lines carry the plug-in name once init has run.
    EXPECT_TRUE(contains(messages.front().text, "fikiv:")) << messages.front().text.value_or("");
}

TEST_F(CoordinatorTest, InitWithNullContextAnswersZeroAndSendsNothing) {
    startPlugin(testMachine());
    tarn_version version{};
    EXPECT_EQ(plugin_.init(nullptr, &version), 0);
    EXPECT_EQ(version.words[0], 7);
    const char16_t* text = nullptr;
    EXPECT_EQ(plugin_.errmsg(3, &text), 0);
    EXPECT_TRUE(context_->messages().empty());
}

TEST_F(CoordinatorTest, MissingDriverLibraryLeavesProviderUninitialised) {
    startPlugin(testMachine({{{"missingLibrary", "kivapi.dll"}}}));
    EXPECT_EQ(init(), 0);

    HostNode volume(u"C:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 42;
    EXPECT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    EXPECT_EQ(identity, nullptr);
    EXPECT_EQ(groups, nullptr);
    EXPECT_EQ(count, 42u);

    std::uint32_t flag = 7;
    int argument = 0;
    EXPECT_EQ(plugin_.claim(volume.objid(), &argument, &flag), 0);
    EXPECT_EQ(flag, 7u);
}

TEST_F(CoordinatorTest, ClaimBeforeInitOrWithNullArgumentsAnswersZero) {
    startPlugin(testMachine());
    HostNode volume(TempMachine::guidName(5));
    std::uint32_t flag = 7;
    int argument = 0;
    EXPECT_EQ(plugin_.claim(volume.objid(), &argument, &flag), 0);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(plugin_.claim(nullptr, &argument, &flag), 0);
    EXPECT_EQ(plugin_.claim(volume.objid(), nullptr, &flag), 0);
    EXPECT_EQ(plugin_.claim(volume.objid(), &argument, nullptr), 0);
    EXPECT_EQ(flag, 7u);
}

TEST_F(CoordinatorTest, ClaimFollowsDriverAttributesAndTag) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    struct Row {
        const char* name;
        std::u16string object;
        std::int32_t expected;
        std::uint32_t expectedFlag;
    } rows[] = {
        {"claimed attribute", TempMachine::guidName(5), 1, 7},
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
    }
}

TEST_F(CoordinatorTest, CheckNodeExistenceReportsTheTag) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
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

TEST_F(CoordinatorTest, ErrMsgHandsTextToHostAndEventLog) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    for (std::uint32_t status : {0u, 3u, 4u, 5u, 6u, 7u, 15u}) {
        SCOPED_TRACE(status);
        context_->takeMessages();
        const char16_t* text = nullptr;
        EXPECT_EQ(plugin_.errmsg(status, &text), 0);
        ASSERT_NE(text, nullptr);
        std::string expected = host::toUtf8(text);
        EXPECT_FALSE(expected.empty());

        std::vector<HostMessage> errors;
        for (const HostMessage& message : context_->messages()) {
            if (message.level == 3) {
                errors.push_back(message);
            }
        }
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].text, expected);
        EXPECT_EQ(errors[0].secondText, expected);

        std::vector<sim::EventRecord> events = sim::readEventLog();
        ASSERT_FALSE(events.empty());
        const sim::EventRecord& event = events.back();
        EXPECT_EQ(event.source, "fikiv");
        EXPECT_EQ(event.type, 1);  // error
        EXPECT_EQ(event.eventId, status);
        ASSERT_EQ(event.strings.size(), 1u);
        EXPECT_NE(event.strings[0].find("providers\\kiv\\kivficoordinator"), std::string::npos)
            << event.strings[0];
    }
}

// One interposition case: the object the host names, what the plug-in answers
// and what it tells the host.
struct InterposeRow {
    const char* name;
    std::u16string object;
    std::uint32_t flags;
    std::int32_t expected;
    std::string expectedIdentity;           // when interposed
    std::vector<std::string> warningParts;  // level-2 log line must hold each
    std::size_t catalogueReports;           // reports of MSG_ERROR_KIVAPI
};

TEST_F(CoordinatorTest, InterposeAnswersAndExplains) {
    startPlugin(testMachine(), HostContextOptions{.locale = "de"});
    ASSERT_EQ(init(), 0);
    const InterposeRow rows[] = {
        {"GUID path used unchanged", TempMachine::guidName(1), 0, 1, "<kiv>" + guid(1), {}, 0},
        {"drive without backslash resolves to its GUID path",
         u"C:",
         0,
         1,
         "<kiv>" + guidWithoutBackslash(1),
         {},
         0},
        {"drive with backslash resolves too",
         u"C:\\",
         0,
         1,
         "<kiv>" + guidWithoutBackslash(1),
         {},
         0},
        {"snapshot attribute alone is a valid source",
         u"D:",
         0,
         1,
         "<kiv>" + guidWithoutBackslash(2),
         {},
         0},
        {"mount-point path", u"C:\\mnt\\data", 0, 1, "<kiv>" + guidWithoutBackslash(6), {}, 0},
        {"no attribute",
         u"E:",
         0,
         0,
         "",
         {"KIV_ATTRIBUTE_VALID_SOURCE not set for volume [" + guidWithoutBackslash(3) + "]"},
         0},
        {"active cache and disabled",
         u"F:",
         0,
         0,
         "",
         {guidWithoutBackslash(4) +
          " - KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE - KIV_ATTRIBUTE_DISABLED"},
         2},
        {"disabled", u"H:", 0, 0, "", {guidWithoutBackslash(7) + " - KIV_ATTRIBUTE_DISABLED"}, 1},
        {"unknown drive keeps its name",
         u"Q:",
         0,
         0,
         "",
         {"cant interpose due to open volume [Q:] failed"},
         0},
        {"unknown drive given with backslash reads without it",
         u"Q:\\",
         0,
         0,
         "",
         {"cant interpose due to open volume [Q:] failed"},
         0},
        {"declined by the host flag", TempMachine::guidName(1), 0x800, 0, "", {}, 0},
    };
    for (const InterposeRow& row : rows) {
        SCOPED_TRACE(row.name);
        context_->takeMessages();
        HostNode volume(row.object);
        volume.record()->flags = row.flags;
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        EXPECT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), row.expected);

        std::vector<HostMessage> seen = userMessages(context_->messages());
        if (row.expected == 1) {
            ASSERT_NE(identity, nullptr);
            EXPECT_EQ(host::toUtf8(std::u16string_view(identity->name, identity->length / 2 - 1)),
                      row.expectedIdentity);
            EXPECT_EQ(count, 1u);
            ASSERT_NE(groups, nullptr);
            EXPECT_EQ(host::toUtf8(groups[0]->name), "kiv-cow-snapshot-group");
        } else {
            EXPECT_EQ(identity, nullptr);
            EXPECT_EQ(groups, nullptr);
            EXPECT_EQ(count, 0u);
        }
        if (row.flags & 0x800) {
            EXPECT_TRUE(seen.empty());
            continue;
        }
        for (const std::string& part : row.warningParts) {
            bool found = std::any_of(seen.begin(), seen.end(), [&](const HostMessage& message) {
                return message.level == 2 && contains(message.text, part);
            });
            EXPECT_TRUE(found) << "no warning with: " << part;
        }
        std::size_t reports = std::count_if(seen.begin(), seen.end(), [](const HostMessage& m) {
            return m.level == 2 && m.secondText.has_value();
        });
        EXPECT_EQ(reports, row.catalogueReports);
    }
}

// Interpositions that end early or cannot hand their answer over: the host
// hears exactly the lines of the steps that ran, and the driver is asked
// whenever the name gets that far.
TEST_F(CoordinatorTest, InterposeEndingEarlySendsOnlyTheLinesOfItsSteps) {
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
        {"GUID path needs no lookup", TempMachine::guidName(1), false, true, 1, {"KivFiCoordinator::interpose [" + guid(1) + "] "}},
        {"empty name", u"", false, false, 0, {"KivFiCoordinator::interpose [] "}},
        {"valid source, nowhere to write the answer", u"C:", true, false, 1, {"KivFiCoordinator::interpose [C:] "}},
        {"disabled volume, nowhere to write the answer", u"H:", true, false, 1,
         {"KivFiCoordinator::interpose [H:] ", guidWithoutBackslash(7) + " - KIV_ATTRIBUTE_DISABLED",
          "KIV_ATTRIBUTE_VALID_SOURCE not set for volume [" + guidWithoutBackslash(7) + " - KIV_ATTRIBUTE_DISABLED]"}},
    };
    // clang-format on
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        context_->takeMessages();
        if (row.lookupUnbindable) {
            sim::makeUnbindable("kernel32.dll", "GetVolumeNameForVolumeMountPointW");
        }
        const std::uint64_t opensBefore = sim::callCount("KIV_Open");
        HostNode volume(row.object);
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        const bool interposed = row.object == TempMachine::guidName(1);
        std::int32_t answer = row.nullOutputs
                                  ? plugin_.interpose(volume.record(), nullptr, nullptr, nullptr)
                                  : plugin_.interpose(volume.record(), &identity, &groups, &count);
        const std::uint64_t opens = sim::callCount("KIV_Open") - opensBefore;
        sim::clearFaults();
        EXPECT_EQ(answer, interposed ? 1 : 0);
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

TEST_F(CoordinatorTest, CatalogueReportArrivesInLocaleAndRoot) {
    startPlugin(testMachine(), HostContextOptions{.locale = "de"});
    ASSERT_EQ(init(), 0);
    HostNode volume(u"H:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    std::vector<HostMessage> messages = context_->messages();
    auto report = std::find_if(messages.begin(), messages.end(),
                               [](const HostMessage& m) { return m.secondText.has_value(); });
    ASSERT_NE(report, messages.end());
    ASSERT_TRUE(report->text.has_value());
    EXPECT_NE(*report->text, *report->secondText);
    for (const std::string* text : {&*report->text, &*report->secondText}) {
        EXPECT_NE(
            text->find("Volume{00000000-0000-0000-0000-000000000007} - KIV_ATTRIBUTE_DISABLED"),
            std::string::npos)
            << *text;
    }
}

TEST_F(CoordinatorTest, CatalogueReportWithoutLocaleHasOnlyRootText) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    HostNode volume(u"H:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    std::vector<HostMessage> messages = context_->messages();
    auto report = std::find_if(messages.begin(), messages.end(),
                               [](const HostMessage& m) { return m.secondText.has_value(); });
    ASSERT_NE(report, messages.end());
    EXPECT_FALSE(report->text.has_value());
}

TEST_F(CoordinatorTest, InterposeGroupArrayIsTheSameEveryTime) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    HostNode first(u"C:");
    HostNode second(u"D:");
    tarn_objid* identity = nullptr;
    tarn_objid** firstGroups = nullptr;
    tarn_objid** secondGroups = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(plugin_.interpose(first.record(), &identity, &firstGroups, &count), 1);
    ASSERT_EQ(plugin_.interpose(second.record(), &identity, &secondGroups, &count), 1);
    EXPECT_EQ(firstGroups, secondGroups);
}

TEST_F(CoordinatorTest, InterposeTracesEntryAndExit) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    context_->takeMessages();
    HostNode volume(u"E:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    std::vector<std::string> traces;
    for (const HostMessage& message : context_->messages()) {
        if (message.level == 4 && message.text) {
            traces.push_back(*message.text);
        }
    }
    ASSERT_GE(traces.size(), 3u);
    EXPECT_TRUE(contains(traces.front(), "Entering Function KivFiCoordinator::interpose["));
    EXPECT_TRUE(contains(traces.back(), "Exiting Function KivFiCoordinator::interpose["));
    bool explained = std::any_of(traces.begin(), traces.end(), [](const std::string& line) {
        return line.find(
                   "KIV volume information does not have KIV_ATTRIBUTE_VALID_SOURCE set "
                   "for " +
                   guidWithoutBackslash(3)) != std::string::npos;
    });
    EXPECT_TRUE(explained);
}

TEST_F(CoordinatorTest, FixedAnswersNeedNoNode) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
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

TEST_F(CoordinatorTest, RecordsWithoutNodeAreInvalidRequests) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
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

TEST_F(CoordinatorTest, ReloadStartsUninitialisedAgain) {
    startPlugin(testMachine());
    ASSERT_EQ(init(), 0);
    HostNode volume(u"C:");
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 1);

    plugin_.unload();
    ASSERT_TRUE(plugin_.load(FIKIV_PLUGIN_PATH).isOk());
    identity = nullptr;
    EXPECT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 0);
    EXPECT_EQ(identity, nullptr);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(plugin_.interpose(volume.record(), &identity, &groups, &count), 1);
}

}  // namespace
}  // namespace plugintest
