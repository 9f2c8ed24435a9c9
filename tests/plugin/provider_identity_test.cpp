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

// Framework buffers not given back, and those given back with a wrong size.
std::pair<std::uint64_t, std::uint64_t> buffersNow() {
    std::pair<std::uint64_t, std::uint64_t> counters;
    tarn_test_buffer_stats(&counters.first, &counters.second);
    return counters;
}

TEST(ProviderIdentityTest, NamesFikivVersionSevenAndDescribesKivFim) {
    host::PluginHost plugin;
    ASSERT_TRUE(plugin.load(FIKIV_PLUGIN_PATH).isOk());
    EXPECT_EQ(plugin.missingEntryPoints(), std::vector<std::string>{});
    host::ProviderInfo info;
    ASSERT_TRUE(host::readProviderInfo(plugin, &info).isOk());
    EXPECT_EQ(info.name, "fikiv");
    EXPECT_EQ(std::vector<std::uint32_t>({info.numberA, info.numberB, info.flags}),
              std::vector<std::uint32_t>({8, 4, 0}));
    EXPECT_EQ(host::versionString(info.version), "7.0.0.0");

    const auto before = buffersNow();
    EXPECT_EQ(plugin.get_provider_info(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(plugin.enumerate_fims(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(buffersNow(), before);

    tarn_list_node* list = nullptr;
    ASSERT_EQ(plugin.enumerate_fims(&list), kTarnSuccess);
    tarn_list_view view{};
    ASSERT_EQ(tarn_list_node_view(list, &view), kTarnSuccess);
    EXPECT_EQ(view.is_fim, 1);
    EXPECT_EQ(std::u16string(view.name), u"KIV_fim");
    EXPECT_EQ(std::vector<std::uint32_t>(view.info.words, view.info.words + 6),
              (std::vector<std::uint32_t>{0, 1, 1, 0, 0, 1}));
    EXPECT_EQ(std::u16string(view.extra), u"none");
    EXPECT_EQ(std::u16string(view.provider), u"fikiv");
    // Each text sits NUL-terminated in a framework buffer of its own, sized
    // for the text and its terminator.
    for (const auto& [buffer, expected] :
         {std::pair{view.info.description, std::u16string(u"Kiv Snapshot Provider")},
          std::pair{view.info.version_text, std::u16string(u"1.05")}}) {
        ASSERT_NE(buffer, nullptr);
        const std::uint64_t bytes = 2 * (expected.size() + 1);
        EXPECT_EQ(tarn_test_buffer_size(buffer), bytes);
        EXPECT_EQ(std::memcmp(buffer, expected.c_str(), bytes), 0);
    }
    EXPECT_EQ(buffersNow().first, before.first + 2);
    tarn_free_list_node(list);
    EXPECT_EQ(buffersNow(), before);

    // A failed allocation (the description's buffer is the first, the version
    // text's the second) is answered 0 with the host's list pointer untouched
    // and no buffer left behind or given back with the wrong size.
    for (std::uint32_t skip : {0u, 1u}) {
        SCOPED_TRACE(skip);
        auto* sentinel = reinterpret_cast<tarn_list_node*>(0x5a5a);
        list = sentinel;
        tarn_test_fail_alloc(skip, /*count=*/1);
        EXPECT_EQ(plugin.enumerate_fims(&list), kTarnSuccess);
        tarn_test_fail_alloc(0, 0);
        EXPECT_EQ(list, sentinel);
        EXPECT_EQ(buffersNow(), before);
    }
}

}  // namespace
