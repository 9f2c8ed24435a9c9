// The real plug-in, loaded through the host library: who the provider is and
// which method it offers, including the failure paths of the method list.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "host/plugin_host.h"
#include "host/provider_list.h"
#include "tarn/tarnutil.h"

namespace {

using host::PluginHost;

// Framework buffers not yet given back, and buffers given back with another
// size than they were allocated with.
std::pair<std::uint64_t, std::uint64_t> buffersNow() {
    std::pair<std::uint64_t, std::uint64_t> counters;
    tarn_test_buffer_stats(&counters.first, &counters.second);
    return counters;
}

class ProviderIdentityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        host::Status status = plugin_.load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(status.isOk()) << status.toString();
    }

    PluginHost plugin_;
};

TEST_F(ProviderIdentityTest, ExportsEveryEntryPointAndNamesFikivVersionSeven) {
    EXPECT_EQ(plugin_.missingEntryPoints(), std::vector<std::string>{});
    host::ProviderInfo info;
    host::Status status = host::readProviderInfo(plugin_, &info);
    ASSERT_TRUE(status.isOk()) << status.toString();
    EXPECT_EQ(info.name, "fikiv");
    EXPECT_EQ(info.numberA, 8u);
    EXPECT_EQ(info.numberB, 4u);
    EXPECT_EQ(host::versionString(info.version), "7.0.0.0");
    EXPECT_EQ(info.flags, 0u);

    const auto before = buffersNow();
    EXPECT_EQ(plugin_.get_provider_info(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(plugin_.enumerate_fims(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(buffersNow(), before);
}

TEST_F(ProviderIdentityTest, MethodListDescribesKivFim) {
    const std::uint64_t before = buffersNow().first;
    tarn_list_node* list = nullptr;
    ASSERT_EQ(plugin_.enumerate_fims(&list), kTarnSuccess);
    ASSERT_NE(list, nullptr);
    tarn_list_view view{};
    ASSERT_EQ(tarn_list_node_view(list, &view), kTarnSuccess);
    EXPECT_EQ(view.is_fim, 1);
    EXPECT_EQ(std::u16string(view.name), u"KIV_fim");
    EXPECT_EQ(std::vector<std::uint32_t>(view.info.words, view.info.words + 6),
              (std::vector<std::uint32_t>{0, 1, 1, 0, 0, 1}));
    // Each text sits in its own framework buffer, sized for the text and its
    // terminator, and is NUL-terminated inside it.
    struct Text {
        const char16_t* buffer;
        std::u16string expected;
    };
    for (const Text& text : {Text{view.info.description, u"Kiv Snapshot Provider"},
                             Text{view.info.version_text, u"1.05"}}) {
        SCOPED_TRACE(std::string(text.expected.begin(), text.expected.end()));
        ASSERT_NE(text.buffer, nullptr);
        const std::uint64_t bytes = 2 * (text.expected.size() + 1);
        EXPECT_EQ(tarn_test_buffer_size(text.buffer), bytes);
        EXPECT_EQ(std::memcmp(text.buffer, text.expected.c_str(), bytes), 0);
    }
    EXPECT_EQ(std::u16string(view.extra), u"none");
    EXPECT_EQ(std::u16string(view.provider), u"fikiv");
    EXPECT_EQ(buffersNow().first, before + 2);
    tarn_free_list_node(list);
    EXPECT_EQ(buffersNow().first, before);
}

// A failed allocation is answered 0 with the host's list pointer untouched
// and no framework buffer left behind; a buffer given back goes with the size
// it was allocated with.
TEST_F(ProviderIdentityTest, AllocationFailureWritesNothingAndLeaksNothing) {
    // The description's buffer is the first allocation, the version text's the
    // second.
    for (std::uint32_t skip : {0u, 1u}) {
        SCOPED_TRACE(skip);
        const auto before = buffersNow();
        auto* sentinel = reinterpret_cast<tarn_list_node*>(0x5a5a);
        tarn_list_node* list = sentinel;
        tarn_test_fail_alloc(skip, /*count=*/1);
        EXPECT_EQ(plugin_.enumerate_fims(&list), kTarnSuccess);
        tarn_test_fail_alloc(0, 0);
        EXPECT_EQ(list, sentinel);
        EXPECT_EQ(buffersNow(), before);
    }
}

}  // namespace
