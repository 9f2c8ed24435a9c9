// The real plug-in, loaded through the host library: who the provider is and
// which method it offers, including the failure paths of the method list.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/plugin_host.h"
#include "host/provider_list.h"
#include "tarn/tarnutil.h"

namespace {

using host::PluginHost;

struct BufferCounters {
    std::uint64_t outstanding = 0;
    std::uint64_t sizeFaults = 0;

    static BufferCounters now() {
        BufferCounters counters;
        tarn_test_buffer_stats(&counters.outstanding, &counters.sizeFaults);
        return counters;
    }
};

// Turns the allocation failure switch off whatever the test does.
class ScopedAllocFailure {
  public:
    ScopedAllocFailure(std::uint32_t skip, std::uint32_t count) {
        tarn_test_fail_alloc(skip, count);
    }
    ~ScopedAllocFailure() { tarn_test_fail_alloc(0, 0); }
};

class ProviderIdentityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        host::Status status = plugin_.load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(status.isOk()) << status.toString();
    }

    PluginHost plugin_;
};

TEST_F(ProviderIdentityTest, ExportsEveryEntryPoint) {
    std::vector<std::string> missing = plugin_.missingEntryPoints();
    std::string names;
    for (const std::string& name : missing) {
        names += name + " ";
    }
    EXPECT_TRUE(missing.empty()) << "missing: " << names;
}

TEST_F(ProviderIdentityTest, ProviderInfoNamesFikivAndVersionSeven) {
    host::ProviderInfo info;
    host::Status status = host::readProviderInfo(plugin_, &info);
    ASSERT_TRUE(status.isOk()) << status.toString();
    EXPECT_EQ(info.name, "fikiv");
    EXPECT_EQ(info.numberA, 8u);
    EXPECT_EQ(info.numberB, 4u);
    EXPECT_EQ(host::versionString(info.version), "7.0.0.0");
    EXPECT_EQ(info.flags, 0u);
}

TEST_F(ProviderIdentityTest, MethodListDescribesKivFim) {
    BufferCounters before = BufferCounters::now();
    tarn_list_node* list = nullptr;
    ASSERT_EQ(plugin_.enumerate_fims(&list), kTarnSuccess);
    ASSERT_NE(list, nullptr);
    tarn_list_view view{};
    ASSERT_EQ(tarn_list_node_view(list, &view), kTarnSuccess);
    EXPECT_EQ(view.is_fim, 1);
    EXPECT_EQ(std::u16string(view.name), u"KIV_fim");
    const std::uint32_t words[6] = {0, 1, 1, 0, 0, 1};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(view.info.words[i], words[i]) << "word " << i;
    }
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
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding + 2);
    tarn_free_list_node(list);
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding);
}

TEST_F(ProviderIdentityTest, NullOutAnswersInvalidRequest) {
    BufferCounters before = BufferCounters::now();
    EXPECT_EQ(plugin_.get_provider_info(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(plugin_.enumerate_fims(nullptr), kTarnInvalidRequest);
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding);
}

// A failed allocation is answered 0 with the host's list pointer untouched
// and no framework buffer left behind; a buffer given back goes with the size
// it was allocated with.
TEST_F(ProviderIdentityTest, AllocationFailureWritesNothingAndLeaksNothing) {
    struct Row {
        const char* name;
        std::uint32_t skip;
    };
    const Row rows[] = {{"DescriptionBuffer", 0}, {"VersionTextBuffer", 1}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        BufferCounters before = BufferCounters::now();
        auto* sentinel = reinterpret_cast<tarn_list_node*>(0x5a5a);
        tarn_list_node* list = sentinel;
        {
            ScopedAllocFailure failure(row.skip, /*count=*/1);
            EXPECT_EQ(plugin_.enumerate_fims(&list), kTarnSuccess);
        }
        EXPECT_EQ(list, sentinel);
        BufferCounters after = BufferCounters::now();
        EXPECT_EQ(after.outstanding, before.outstanding);
        EXPECT_EQ(after.sizeFaults, before.sizeFaults);
    }
}

}  // namespace
