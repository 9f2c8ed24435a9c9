// The host library against a plug-in that exports only some entry points.
#include "host/plugin_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <unistd.h>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/text.h"

namespace {

using host::HostContext;
using host::HostContextOptions;
using host::HostMessage;
using host::PluginHost;

class PluginHostTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(plugin_.load(FIKIV_PARTIAL_PLUGIN).isOk()); }

    PluginHost plugin_;
};

TEST_F(PluginHostTest, MissingEntryPointsAnswer15AndTouchNothing) {
    std::vector<std::string> missing = plugin_.missingEntryPoints();
    EXPECT_EQ(missing.size(), host::kEntryPointCount - 4);
    for (const char* present : {"init", "fini", "pre_prepare", "init_node"}) {
        EXPECT_EQ(std::count(missing.begin(), missing.end(), present), 0) << present;
    }
    EXPECT_FALSE(plugin_.has(host::Entry::enumerate_fims));

    auto* sentinel = reinterpret_cast<tarn_list_node*>(0x1234);
    tarn_list_node* out = sentinel;
    EXPECT_EQ(plugin_.enumerate_fims(&out), kTarnEntryPointNotFound);
    EXPECT_EQ(out, sentinel);
    // An entry point without a result is reported missing the same way.
    EXPECT_EQ(plugin_.deinit_node(nullptr), kTarnEntryPointNotFound);
}

// The partial plug-in names the locale it finds (or "no locale"), then sends
// non-Latin text, a call with only a second text, and a line from fini.
TEST_F(PluginHostTest, CollectsMessagesAsUtf8WithNullsKept) {
    // clang-format off
    struct Row { const char* name; HostContextOptions options; const char* first; std::optional<std::string> firstSecond; };
    const Row rows[] = {
        {"Locale",                  {/*withCallback=*/true, "de", false},                              "locale",    "de"},
        {"NoLocaleRecord",          {/*withCallback=*/true, std::nullopt, false},                      "no locale", std::nullopt},
        {"LocaleRecordWithoutName", {/*withCallback=*/true, std::nullopt, /*localeRecordWithoutName=*/true}, "no locale", std::nullopt},
        {"NoCallback",              {/*withCallback=*/false, "de", false},                             nullptr,     std::nullopt},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        HostContext context(row.options);
        tarn_version version{};
        ASSERT_EQ(plugin_.init(context.context(), &version), 0);
        EXPECT_EQ(version.words[3], 4);
        EXPECT_EQ(plugin_.fini(), 0);
        std::vector<HostMessage> messages = context.takeMessages();
        EXPECT_TRUE(context.messages().empty());
        if (row.first == nullptr) {
            EXPECT_TRUE(messages.empty());
            continue;
        }
        ASSERT_EQ(messages.size(), 4u);
        EXPECT_EQ(messages[0].text, row.first);
        EXPECT_EQ(messages[0].secondText, row.firstSecond);
        EXPECT_EQ(messages[1].text, "Größe \xF0\x9F\x98\x80");
        EXPECT_FALSE(messages[1].secondText.has_value());
        EXPECT_EQ(messages[1].level, 2u);
        EXPECT_FALSE(messages[2].text.has_value());
        EXPECT_EQ(messages[2].secondText, "second only");
        EXPECT_EQ(messages[2].level, 3u);
        EXPECT_EQ(messages[3].text, "fini");
    }
}

TEST_F(PluginHostTest, CollectsMessagesFromManyThreads) {
    HostContext context;
    tarn_version version{};
    ASSERT_EQ(plugin_.init(context.context(), &version), 0);
    context.takeMessages();
    std::atomic<std::size_t> heard{0};
    context.setListener([&heard](const HostMessage&) { ++heard; });
    ASSERT_EQ(plugin_.pre_prepare(nullptr), 0);
    std::vector<HostMessage> messages = context.takeMessages();
    EXPECT_EQ(messages.size(), 1000u);
    for (const HostMessage& message : messages) {
        ASSERT_EQ(message.text, "threaded");
    }
    EXPECT_EQ(heard.load(), 1000u);
    context.setListener(nullptr);
}

TEST_F(PluginHostTest, NodeRecordCarriesIdentityAndAnswerWord) {
    host::HostNode node(u"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\");
    ASSERT_NE(node.objid(), nullptr);
    EXPECT_EQ(node.objid()->kind, host::kObjidKind);
    EXPECT_EQ(host::toUtf8(node.objid()->name),
              "\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\");
    // The partial plug-in answers the identity's byte length: 49 units + NUL.
    EXPECT_EQ(plugin_.init_node(node.record(), nullptr, 0, nullptr), 100);
    EXPECT_EQ(node.fiSupport(), 0x5u);
    std::vector<tarn_fi_entry*> entries = node.fiEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0]->node, node.record());
    EXPECT_STREQ(entries[1]->fi_type, "kiv-cow-snapshot");
}

// A file the loader refuses (a missing one is fihost's PluginMissing case).
TEST(PluginHostLoadTest, RefusedLibraryLeavesEveryEntryPointMissing) {
    PluginHost plugin;
    std::filesystem::path notLibrary = std::filesystem::temp_directory_path() /
                                       ("plugin_host_test_" + std::to_string(getpid()) + ".so");
    std::ofstream(notLibrary) << "not a shared library\n";
    host::Status refused = plugin.load(notLibrary.string());
    std::filesystem::remove(notLibrary);
    EXPECT_EQ(refused.code(), host::Status::Code::kLoadFailed);
    EXPECT_FALSE(plugin.loaded());
    EXPECT_EQ(plugin.missingEntryPoints().size(), host::kEntryPointCount);
    tarn_version version{};
    EXPECT_EQ(plugin.init(nullptr, &version), kTarnEntryPointNotFound);
}

}  // namespace
