// Nodes on the host's records, their fi entries, the group's settings, and
// select's and isready's marks, through the real plug-in.
#include <gtest/gtest.h>

#include "plugin_fixture.h"

namespace plugintest {
namespace {

const std::u16string kAutomatic = u"TARN_CFS_AUTO_PREP";

using NodeRegistryTest = StartedCoordinatorTest;

// A volume's node carries two fi entries, an alternate node none; neither
// has an alternate tree or sub-objects. Detaching keeps the flag bits. The
// group object has one node at a time.
TEST_F(NodeRegistryTest, InitNodeAttachesNodeAndBuildsFiList) {
    HostNode& volume = attach(u"<kiv>C:");
    HostNode& group = attach(kGroupName);
    HostNode& later = attach(u"<kiv>D:");

    EXPECT_NE(volume.providerData(), nullptr);
    EXPECT_EQ(volume.record()->flags & 0x1002u, 0x1002u);
    EXPECT_EQ(volume.record()->object_name, volume.objid()->name);
    std::vector<tarn_fi_entry*> entries = volume.fiEntries();
    ASSERT_EQ(entries.size(), 2u);
    for (tarn_fi_entry* entry : entries) {
        EXPECT_STREQ(entry->fi_type, "kiv-cow-snapshot");
        EXPECT_EQ(entry->node, volume.record());
        EXPECT_EQ(entry->group_node, nullptr);  // built before the group record came
    }
    ASSERT_EQ(later.fiEntries().size(), 2u);
    EXPECT_EQ(later.fiEntries().back()->group_node, group.record());
    EXPECT_EQ(plugin_.build_alttree(volume.record(), nullptr, nullptr, nullptr, 0, nullptr), 3);
    void* list = &entries;
    std::uint32_t count = 5;
    EXPECT_EQ(plugin_.subobj_list(volume.record(), &list, &count), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0u);

    records_.push_back(std::make_unique<HostNode>(u"alternate"));
    HostNode& alternate = *records_.back();
    alternate.record()->fi_list = reinterpret_cast<tarn_fi_link*>(0x10);
    ASSERT_EQ(plugin_.init_altnode(volume.record(), nullptr, alternate.record()), 0);
    EXPECT_NE(alternate.providerData(), nullptr);
    EXPECT_EQ(alternate.record()->fi_list, nullptr);
    EXPECT_EQ(alternate.record()->flags & 0x1002u, 0x1002u);

    plugin_.deinit_node(volume.record());
    EXPECT_EQ(volume.providerData(), nullptr);
    EXPECT_EQ(volume.record()->fi_list, nullptr);
    EXPECT_EQ(volume.record()->flags & 0x1002u, 0x1002u);

    HostNode& secondGroup = attach(kGroupName);
    EXPECT_NE(group.providerData(), nullptr);
    EXPECT_EQ(secondGroup.providerData(), nullptr);
    EXPECT_EQ(secondGroup.record()->fi_list, nullptr);
    EXPECT_EQ(secondGroup.record()->flags, 0u);
    plugin_.deinit_node(group.record());
    ASSERT_EQ(plugin_.init_node(secondGroup.record(), nullptr, 0, nullptr), 0);
    EXPECT_NE(secondGroup.providerData(), nullptr);
}

TEST_F(NodeRegistryTest, SupportsFiTypeSetsOrClearsTheAnswerWord) {
    HostNode& volume = attach(u"<kiv>C:");
    struct Row {
        const char* type;
        std::int32_t expected;
        std::uint32_t before;
        std::uint32_t after;
    } rows[] = {
        {"kiv-cow-snapshot", 1, 0x10, 0x11},
        {"any", 1, 0x0, 0x1},
        {"Any", 0, 0x13, 0x0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.type);
        *volume.record()->fi_support = row.before;
        EXPECT_EQ(plugin_.supports_fitype(volume.record(), row.type), row.expected);
        EXPECT_EQ(*volume.record()->fi_support, row.after);
    }
}

TEST_F(NodeRegistryTest, GroupSettingsAreSetOnceReadAndCleared) {
    tarn_node* group = attach(kGroupName).record();
    const std::u16string& settings = kQuiesceSettings;

    std::u16string answer;
    EXPECT_EQ(configure(group, false, settings), 0);
    EXPECT_EQ(configure(group, false, settings), 3);
    EXPECT_EQ(configure(group, false, std::nullopt, 1, &answer), 0);
    EXPECT_EQ(answer, kQuiesceSettings);
    EXPECT_EQ(configure(group, false, std::nullopt, 4, &answer), 0);
    EXPECT_EQ(answer.rfind(u"<GET_CONFIG_INFO_LIST> <GET_CONFIG_INFO key=quiesceWait", 0), 0u);
    // An information request that carries text is refused.
    EXPECT_EQ(configure(group, false, settings, 4), 3);
    // Clear, then the group accepts settings again.
    EXPECT_EQ(configure(group, false, std::nullopt, 3), 0);
    EXPECT_EQ(configure(group, false, settings), 0);
    EXPECT_EQ(configure(group, false, std::nullopt, 9), 3);
}

TEST_F(NodeRegistryTest, SelectMarksFailuresAndIsReadyMarksReadiness) {
    tarn_node* group = attach(kGroupName).record();
    tarn_node* volume = attach(u"<kiv>C:").record();
    tarn_fi_entry entry{"kiv-cow-snapshot", volume, group};

    // Neither the quiesce settings nor the split settings are there yet.
    EXPECT_EQ(plugin_.select(&entry, nullptr, nullptr, 0), 3);
    EXPECT_EQ(group->status & 0x4u, 0x4u);
    EXPECT_EQ(volume->status & 0x4u, 0x4u);

    group->status = 0;
    volume->status = 0;
    ASSERT_EQ(configure(group, false, kQuiesceSettings), 0);
    ASSERT_EQ(configure(volume, true, kAutomatic), 0);
    EXPECT_EQ(plugin_.select(&entry, nullptr, nullptr, 0), 0);
    EXPECT_EQ(group->status, 0u);
    EXPECT_EQ(volume->status, 0u);

    // Without a group record the source is marked even though its split
    // settings pass.
    tarn_fi_entry orphan{"kiv-cow-snapshot", volume, nullptr};
    EXPECT_EQ(plugin_.select(&orphan, nullptr, nullptr, 0), 3);
    EXPECT_EQ(volume->status & 0x4u, 0x4u);

    // With an array, only its entries are checked, up to the first failure.
    tarn_node* unconfigured = attach(u"<kiv>D:").record();
    tarn_node* second = attach(u"<kiv>E:").record();
    tarn_fi_entry first{"kiv-cow-snapshot", unconfigured, group};
    tarn_fi_entry next{"kiv-cow-snapshot", second, group};
    tarn_fi_entry* array[] = {&first, &next};
    volume->status = 0;
    EXPECT_EQ(plugin_.select(&entry, nullptr, array, 2), 3);
    EXPECT_EQ(unconfigured->status & 0x4u, 0x4u);
    EXPECT_EQ(second->status, 0u);
    EXPECT_EQ(volume->status, 0u);

    // isready adds the ready bit 0x8 to the entry's record and the group;
    // with an array, to each of its entries too.
    volume->status = 0x1;
    group->status = 0;
    EXPECT_EQ(plugin_.isready(&entry, nullptr, nullptr, 0), 0);
    EXPECT_EQ(volume->status, 0x9u);
    EXPECT_EQ(group->status, 0x8u);
    EXPECT_EQ(second->status, 0u);
    EXPECT_EQ(plugin_.isready(&entry, nullptr, array, 2), 0);
    EXPECT_EQ(second->status, 0x8u);
}

}  // namespace
}  // namespace plugintest
