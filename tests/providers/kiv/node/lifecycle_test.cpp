// A whole snapshot through prepare, make and dispose, with a scripted agent.
#include <gtest/gtest.h>

#include "node_fixture.h"

namespace nodetest {
namespace {

using testsupport::ScriptedPipeServer;

TEST_F(NodeTest, TwoVolumeSnapshotIsPreparedMadeAndDisposed) {
    start();
    ScriptedPipeServer agent;
    HostNode& first = addVolume(taggedVolume(1));
    HostNode& second = addVolume(taggedVolume(6));
    ASSERT_EQ(configure(group_->record(), false, quiesceDocument(10, 30)), 0);
    ASSERT_EQ(configure(first.record(), true, kAutoSplit), 0);
    ASSERT_EQ(configure(second.record(), true, kAutoSplit), 0);
    std::vector<tarn_fi_entry*> list = entriesOf({&first, &second});

    ASSERT_EQ(plugin_.prepare(list[0], nullptr, list.data(), 2, 0), 0);
    std::vector<HostMessage> dump = takeUserMessages();
    ASSERT_FALSE(dump.empty());
    EXPECT_EQ(dump.front().text, "KIV_Prepare: KivSnapshotParameters has 2 elements\n");
    EXPECT_TRUE(sleeps().empty());

    std::vector<std::u16string> names;
    ASSERT_EQ(make(list[0], list, &names), 0);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(first.record()->status & 0x1, 0x1u);
    EXPECT_EQ(second.record()->status & 0x1, 0x1u);
    EXPECT_EQ(agent.codes(), (std::vector<std::uint32_t>{2, 2}));
    EXPECT_EQ(agent.names(),
              (std::vector<std::string>{plugintest::utf8(names[0]), plugintest::utf8(names[1])}));
    EXPECT_EQ(sleeps(), seconds(2));
    EXPECT_TRUE(takeUserMessages().empty());

    sim::clearRecordedSleeps();
    for (const std::u16string& name : names) {
        HostNode& snapshot = addSnapshotVolume(name);
        EXPECT_EQ(dispose(snapshot), 0);
    }
    // The provider opens the snapshot volumes itself: only releases follow.
    EXPECT_EQ(agent.codes(), (std::vector<std::uint32_t>{2, 2, 4, 4}));
    EXPECT_EQ(sleeps(), seconds(2));
    EXPECT_TRUE(takeUserMessages().empty());

    for (auto& record : records_) {
        plugin_.deinit_node(record->record());
    }
    EXPECT_TRUE(leftovers().empty()) << ::testing::PrintToString(leftovers());
}

}  // namespace
}  // namespace nodetest
