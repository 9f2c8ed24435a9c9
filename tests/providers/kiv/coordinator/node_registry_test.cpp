// Nodes attached to the host's records, their fi entries, the group object,
// configuration through the config entry point, select's marks and readiness,
// through the real plug-in.
#include <gtest/gtest.h>

#include "plugin_fixture.h"
#include "tarn/tarnutil.h"

namespace plugintest {
namespace {

constexpr char16_t kGroupName[] = u"kiv-cow-snapshot-group";
const std::u16string kQuiesceDocument =
    u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
    u"<SET_CONFIG_INFO key=quiesceTimeout value=30 /> </SET_CONFIG_INFO_LIST>";

class NodeRegistryTest : public CoordinatorTest {
  protected:
    void SetUp() override {
        startPlugin(testMachine());
        ASSERT_EQ(init(), 0);
    }

    // Sends one configuration request; returns the status and, when the
    // provider handed a text back, that text (freeing the framework buffer).
    std::int32_t configure(tarn_node* record, std::uint32_t operation, bool split,
                           const std::u16string* document, std::u16string* answer = nullptr) {
        std::u16string input = document != nullptr ? *document : std::u16string();
        tarn_config_request request{};
        request.split_selector = split ? 1 : 0;
        request.quiesce_selector = split ? 0 : 1;
        request.text = document != nullptr ? input.data() : nullptr;
        std::int32_t status = plugin_.config(record, operation, nullptr, &request);
        if (request.text != nullptr && request.text != input.data()) {
            std::u16string handed(request.text);
            if (answer != nullptr) {
                *answer = handed;
            }
            tarn_free_buf(request.text, 2 * (handed.size() + 1));
        }
        return status;
    }
};

TEST_F(NodeRegistryTest, InitNodeAttachesNodeAndBuildsFiList) {
    HostNode group(kGroupName);
    HostNode volume(u"<kiv>C:");
    ASSERT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);
    ASSERT_EQ(plugin_.init_node(group.record(), nullptr, 0, nullptr), 0);
    HostNode later(u"<kiv>D:");
    ASSERT_EQ(plugin_.init_node(later.record(), nullptr, 0, nullptr), 0);

    EXPECT_NE(volume.providerData(), nullptr);
    EXPECT_EQ(volume.record()->flags & 0x1002u, 0x1002u);
    EXPECT_EQ(volume.record()->object_name, volume.objid()->name);
    std::vector<tarn_fi_entry*> entries = volume.fiEntries();
    ASSERT_EQ(entries.size(), 2u);
    for (tarn_fi_entry* entry : entries) {
        EXPECT_STREQ(entry->fi_type, "kiv-cow-snapshot");
        EXPECT_EQ(entry->node, volume.record());
        // Built before the group record was registered.
        EXPECT_EQ(entry->group_node, nullptr);
    }
    for (tarn_fi_entry* entry : later.fiEntries()) {
        EXPECT_EQ(entry->group_node, group.record());
    }

    plugin_.deinit_node(later.record());
    plugin_.deinit_node(volume.record());
    plugin_.deinit_node(group.record());
    EXPECT_EQ(volume.providerData(), nullptr);
    EXPECT_EQ(volume.record()->fi_list, nullptr);
    // The flag bits stay on detach.
    EXPECT_EQ(volume.record()->flags & 0x1002u, 0x1002u);
}

TEST_F(NodeRegistryTest, GroupObjectGetsOneNodeUntilDeInit) {
    HostNode first(kGroupName);
    HostNode second(kGroupName);
    ASSERT_EQ(plugin_.init_node(first.record(), nullptr, 0, nullptr), 0);
    ASSERT_EQ(plugin_.init_node(second.record(), nullptr, 0, nullptr), 0);
    EXPECT_NE(first.providerData(), nullptr);
    EXPECT_EQ(second.providerData(), nullptr);
    EXPECT_EQ(second.record()->fi_list, nullptr);
    EXPECT_EQ(second.record()->flags, 0u);

    plugin_.deinit_node(first.record());
    ASSERT_EQ(plugin_.init_node(second.record(), nullptr, 0, nullptr), 0);
    EXPECT_NE(second.providerData(), nullptr);
    plugin_.deinit_node(second.record());
}

TEST_F(NodeRegistryTest, AltNodeHasNodeButNoFiList) {
    HostNode source(u"<kiv>C:");
    HostNode alternate(u"alternate");
    alternate.record()->fi_list = reinterpret_cast<tarn_fi_link*>(0x10);
    ASSERT_EQ(plugin_.init_altnode(source.record(), nullptr, alternate.record()), 0);
    EXPECT_NE(alternate.providerData(), nullptr);
    EXPECT_EQ(alternate.record()->fi_list, nullptr);
    EXPECT_EQ(alternate.record()->flags & 0x1002u, 0x1002u);
    plugin_.deinit_node(alternate.record());
}

TEST_F(NodeRegistryTest, SupportsFiTypeSetsOrClearsTheAnswerWord) {
    HostNode volume(u"<kiv>C:");
    ASSERT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);
    struct Row {
        const char* type;
        std::int32_t expected;
        std::uint32_t before;
        std::uint32_t after;
    } rows[] = {
        {"kiv-cow-snapshot", 1, 0x10, 0x11},
        {"any", 1, 0x0, 0x1},
        {"Any", 0, 0x13, 0x0},
        {"", 0, 0x1, 0x0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.type);
        *volume.record()->fi_support = row.before;
        EXPECT_EQ(plugin_.supports_fitype(volume.record(), row.type), row.expected);
        EXPECT_EQ(*volume.record()->fi_support, row.after);
    }
    plugin_.deinit_node(volume.record());
}

TEST_F(NodeRegistryTest, ConfigurationReachesTheNodes) {
    HostNode group(kGroupName);
    HostNode volume(u"<kiv>C:");
    ASSERT_EQ(plugin_.init_node(group.record(), nullptr, 0, nullptr), 0);
    ASSERT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);

    std::u16string answer;
    EXPECT_EQ(configure(group.record(), 2, /*split=*/false, &kQuiesceDocument), 0);
    EXPECT_EQ(configure(group.record(), 2, /*split=*/false, &kQuiesceDocument), 3);
    EXPECT_EQ(configure(group.record(), 1, /*split=*/false, nullptr, &answer), 0);
    EXPECT_EQ(answer, kQuiesceDocument);
    EXPECT_EQ(configure(group.record(), 4, /*split=*/false, nullptr, &answer), 0);
    EXPECT_EQ(answer.rfind(u"<GET_CONFIG_INFO_LIST> <GET_CONFIG_INFO key=quiesceWait", 0), 0u);
    // An information request that carries text is refused.
    EXPECT_EQ(configure(group.record(), 4, /*split=*/false, &kQuiesceDocument), 3);
    // Clear, then the group accepts settings again.
    EXPECT_EQ(configure(group.record(), 3, /*split=*/false, nullptr), 0);
    EXPECT_EQ(configure(group.record(), 2, /*split=*/false, &kQuiesceDocument), 0);
    EXPECT_EQ(configure(group.record(), 9, /*split=*/false, nullptr), 3);

    std::u16string automatic = u"TARN_CFS_AUTO_PREP";
    EXPECT_EQ(configure(volume.record(), 2, /*split=*/true, &automatic), 0);
    plugin_.deinit_node(volume.record());
    plugin_.deinit_node(group.record());
}

TEST_F(NodeRegistryTest, SelectMarksRecordsThatFailTheirChecks) {
    HostNode group(kGroupName);
    HostNode volume(u"<kiv>C:");
    ASSERT_EQ(plugin_.init_node(group.record(), nullptr, 0, nullptr), 0);
    ASSERT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);
    tarn_fi_entry entry{"kiv-cow-snapshot", volume.record(), group.record()};

    // Neither the quiesce settings nor the split settings are there yet.
    EXPECT_EQ(plugin_.select(&entry, nullptr, nullptr, 0), 3);
    EXPECT_EQ(group.record()->status & 0x4u, 0x4u);
    EXPECT_EQ(volume.record()->status & 0x4u, 0x4u);

    group.record()->status = 0;
    volume.record()->status = 0;
    std::u16string automatic = u"TARN_CFS_AUTO_PREP";
    ASSERT_EQ(configure(group.record(), 2, /*split=*/false, &kQuiesceDocument), 0);
    ASSERT_EQ(configure(volume.record(), 2, /*split=*/true, &automatic), 0);
    EXPECT_EQ(plugin_.select(&entry, nullptr, nullptr, 0), 0);
    EXPECT_EQ(group.record()->status, 0u);
    EXPECT_EQ(volume.record()->status, 0u);

    // Without a group record the source is marked even though its split
    // settings pass.
    tarn_fi_entry orphan{"kiv-cow-snapshot", volume.record(), nullptr};
    EXPECT_EQ(plugin_.select(&orphan, nullptr, nullptr, 0), 3);
    EXPECT_EQ(volume.record()->status & 0x4u, 0x4u);

    // With an array, only its entries are checked, up to the first failure.
    HostNode unconfigured(u"<kiv>D:");
    HostNode second(u"<kiv>E:");
    ASSERT_EQ(plugin_.init_node(unconfigured.record(), nullptr, 0, nullptr), 0);
    ASSERT_EQ(plugin_.init_node(second.record(), nullptr, 0, nullptr), 0);
    tarn_fi_entry first{"kiv-cow-snapshot", unconfigured.record(), group.record()};
    tarn_fi_entry next{"kiv-cow-snapshot", second.record(), group.record()};
    tarn_fi_entry* array[] = {&first, &next};
    volume.record()->status = 0;
    EXPECT_EQ(plugin_.select(&entry, nullptr, array, 2), 3);
    EXPECT_EQ(unconfigured.record()->status & 0x4u, 0x4u);
    EXPECT_EQ(second.record()->status, 0u);
    EXPECT_EQ(volume.record()->status, 0u);

    for (HostNode* node : {&second, &unconfigured, &volume, &group}) {
        plugin_.deinit_node(node->record());
    }
}

TEST_F(NodeRegistryTest, IsReadyMarksEntriesAndGroup) {
    HostNode group(kGroupName);
    HostNode a(u"<kiv>C:");
    HostNode b(u"<kiv>D:");
    for (HostNode* node : {&group, &a, &b}) {
        ASSERT_EQ(plugin_.init_node(node->record(), nullptr, 0, nullptr), 0);
    }
    a.record()->status = 0x1;
    tarn_fi_entry entryA{"kiv-cow-snapshot", a.record(), group.record()};
    tarn_fi_entry entryB{"kiv-cow-snapshot", b.record(), group.record()};
    EXPECT_EQ(plugin_.isready(&entryA, nullptr, nullptr, 0), 0);
    EXPECT_EQ(a.record()->status, 0x9u);
    EXPECT_EQ(group.record()->status, 0x8u);
    EXPECT_EQ(b.record()->status, 0u);

    tarn_fi_entry* list[] = {&entryA, &entryB};
    EXPECT_EQ(plugin_.isready(&entryA, nullptr, list, 2), 0);
    EXPECT_EQ(b.record()->status, 0x8u);
    for (HostNode* node : {&b, &a, &group}) {
        plugin_.deinit_node(node->record());
    }
}

TEST_F(NodeRegistryTest, NoAlternateTreeAndNoSubObjects) {
    HostNode volume(u"<kiv>C:");
    ASSERT_EQ(plugin_.init_node(volume.record(), nullptr, 0, nullptr), 0);
    tarn_fi_entry entry{"kiv-cow-snapshot", volume.record(), nullptr};
    EXPECT_EQ(plugin_.build_alttree(volume.record(), nullptr, nullptr, nullptr, 0, nullptr), 3);
    void* list = &entry;
    std::uint32_t count = 5;
    EXPECT_EQ(plugin_.subobj_list(volume.record(), &list, &count), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0u);
    plugin_.deinit_node(volume.record());
}

}  // namespace
}  // namespace plugintest
