// The real plug-in loaded afresh for each test through the host library, on a
// machine made for the test, with a context that collects its messages.
#ifndef TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_
#define TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"
#include "host/text.h"
#include "support/temp_machine.h"

namespace plugintest {

using host::HostContext;
using host::HostContextOptions;
using host::HostMessage;
using host::HostNode;
using host::PluginHost;
using testsupport::TempMachine;

// The machine every test starts from: volume numbers double as the attribute
// variety the driver reports.
inline nlohmann::json testMachine(nlohmann::json faults = nlohmann::json::array()) {
    return {{"os", {{"major", 10}, {"minor", 0}}},
            {"volumes",
             {TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x1),
              TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x8),
              TempMachine::volume(3, {"E:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x0),
              TempMachine::volume(4, {"F:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x14),
              TempMachine::volume(5, {"G:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x2),
              TempMachine::volume(6, {"C:\\mnt\\data\\"}, "fixed", "NTFS", 10ull << 30, 5ull << 30,
                                  0x1),
              TempMachine::volume(7, {"H:\\"}, "fixed", "NTFS", 100ull << 30, 50ull << 30, 0x4)}},
            {"faults", faults}};
}

inline std::string utf8(const std::u16string& text) {
    return host::toUtf8(text);
}

inline std::string guid(int number) {
    return utf8(TempMachine::guidName(number));
}

inline std::string guidWithoutBackslash(int number) {
    std::string name = guid(number);
    name.pop_back();
    return name;
}

inline bool contains(const std::optional<std::string>& text, const std::string& part) {
    return text.has_value() && text->find(part) != std::string::npos;
}

// Messages below the trace level: what a user sees in the host's log.
inline std::vector<HostMessage> userMessages(const std::vector<HostMessage>& messages) {
    std::vector<HostMessage> result;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(result),
                 [](const HostMessage& message) { return message.level < 4; });
    return result;
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

    void TearDown() override {
        plugin_.unload();
        context_.reset();
        machine_.reset();
    }

    std::optional<TempMachine> machine_;
    std::optional<HostContext> context_;
    PluginHost plugin_;
};

}  // namespace plugintest

#endif  // TESTS_PROVIDERS_KIV_COORDINATOR_PLUGIN_FIXTURE_H_
