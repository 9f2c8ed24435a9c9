// The real plug-in loaded afresh for each test through the host library, on a
// machine made for the test, with a context that collects its messages.
#ifndef TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_
#define TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"
#include "tarn/tarnutil.h"

namespace plugintest {

using host::HostContext;
using host::HostContextOptions;
using host::HostMessage;
using host::HostNode;
using host::PluginHost;
using testsupport::TempMachine;
using testsupport::utf8;

// The machine every test starts from: volume numbers double as the attribute
// variety the driver reports.
inline nlohmann::json testMachine(nlohmann::json faults = nlohmann::json::array()) {
    auto fixed = [](int number, const char* path, std::uint32_t attributes) {
        return TempMachine::volume(number, {path}, "fixed", "NTFS", 100ull << 30, 50ull << 30,
                                   attributes);
    };
    return {{"os", {{"major", 10}, {"minor", 0}}},
            {"volumes",
             {fixed(1, "C:\\", 0x1), fixed(2, "D:\\", 0x8), fixed(3, "E:\\", 0x0),
              fixed(4, "F:\\", 0x14), fixed(5, "G:\\", 0x2),
              TempMachine::volume(6, {"C:\\mnt\\data\\"}, "fixed", "NTFS", 10ull << 30, 5ull << 30,
                                  0x1),
              fixed(7, "H:\\", 0x4)}},
            {"faults", faults}};
}

// The group's quiesce settings: wait 10, timeout 30.
inline const std::u16string kQuiesceSettings =
    u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=quiesceWait value=10 /> "
    u"<SET_CONFIG_INFO key=quiesceTimeout value=30 /> </SET_CONFIG_INFO_LIST>";
inline constexpr char16_t kGroupName[] = u"kiv-cow-snapshot-group";

inline std::string guid(int number) {
    return utf8(TempMachine::guidName(number));
}
inline std::string guidWithoutBackslash(int number) {
    const std::string name = guid(number);
    return name.substr(0, name.size() - 1);
}

inline bool contains(const std::optional<std::string>& text, const std::string& part) {
    return text.has_value() && text->find(part) != std::string::npos;
}

// The messages at `level` (or, with `below`, under it), in order. Below the
// trace level 4 is what a user sees in the host's log.
inline std::vector<HostMessage> messagesAt(const std::vector<HostMessage>& messages,
                                           std::uint32_t level, bool below = false) {
    std::vector<HostMessage> result;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(result),
                 [&](const HostMessage& message) {
                     return below ? message.level < level : message.level == level;
                 });
    return result;
}
inline std::vector<HostMessage> userMessages(const std::vector<HostMessage>& messages) {
    return messagesAt(messages, 4, /*below=*/true);
}

inline bool anyContains(const std::vector<HostMessage>& messages, const std::string& part) {
    return std::any_of(messages.begin(), messages.end(),
                       [&](const HostMessage& message) { return contains(message.text, part); });
}

class CoordinatorTest : public ::testing::Test {
  protected:
    void startPlugin(const nlohmann::json& description, HostContextOptions options = {}) {
        machine_.emplace(description);
        context_.emplace(std::move(options));
        host::Status status = plugin_.load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(status.isOk()) << status.toString();
    }

    std::int32_t init() {
        tarn_version version{};
        std::int32_t status = plugin_.init(context_->context(), &version);
        EXPECT_EQ(version.words[0], 7);
        return status;
    }

    // A record for the object `name` with a node attached, detached at the end.
    HostNode& attach(const std::u16string& name) {
        records_.push_back(std::make_unique<HostNode>(name));
        EXPECT_EQ(plugin_.init_node(records_.back()->record(), nullptr, 0, nullptr), 0);
        return *records_.back();
    }

    // One configuration request of `operation` (2 sets, 1 gets, 3 clears, 4
    // describes) for the split or the quiesce settings, with or without a
    // document; the text handed back goes to `answer`, its buffer is freed.
    std::int32_t configure(tarn_node* record, bool split, std::optional<std::u16string> document,
                           std::uint32_t operation = 2, std::u16string* answer = nullptr) {
        tarn_config_request request{};
        request.split_selector = split ? 1 : 0;
        request.quiesce_selector = split ? 0 : 1;
        request.text = document.has_value() ? document->data() : nullptr;
        std::int32_t status = plugin_.config(record, operation, nullptr, &request);
        if (request.text != nullptr &&
            (!document.has_value() || request.text != document->data())) {
            std::u16string handed(request.text);
            if (answer != nullptr) {
                *answer = handed;
            }
            tarn_free_buf(request.text, 2 * (handed.size() + 1));
        }
        return status;
    }

    void TearDown() override {
        for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
            if ((*it)->providerData() != nullptr) {
                plugin_.deinit_node((*it)->record());
            }
        }
        records_.clear();
        plugin_.unload();
        context_.reset();
        machine_.reset();
    }

    std::optional<TempMachine> machine_;
    std::optional<HostContext> context_;
    PluginHost plugin_;
    std::vector<std::unique_ptr<HostNode>> records_;
};

// The plug-in started on testMachine().
class StartedCoordinatorTest : public CoordinatorTest {
  protected:
    void SetUp() override {
        startPlugin(testMachine());
        ASSERT_EQ(init(), 0);
    }
};

}  // namespace plugintest

#endif  // TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_
