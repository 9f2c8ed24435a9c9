// The real plug-in started through the host: the version it writes, and the
// error texts it takes from the framework's catalogues and hands to the host's
// callback and the machine's event log.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/provider_list.h"
#include "host/text.h"
#include "sim/eventlog.h"
#include "support/temp_machine.h"

namespace {

using host::HostContext;
using host::HostContextOptions;
using host::HostMessage;
using host::PluginHost;
using testsupport::TempMachine;

nlohmann::json oneVolumeMachine() {
    return {{"volumes", nlohmann::json::array({TempMachine::volume(1, {"C:\\"})})}};
}

class PluginInitTest : public ::testing::Test {
  protected:
    // The context outlives the plug-in, which reports while it unloads.
    void start(HostContextOptions options) {
        context_.emplace(options);
        plugin_.emplace();
        host::Status status = plugin_->load(FIKIV_PLUGIN_PATH);
        ASSERT_TRUE(status.isOk()) << status.toString();
    }

    void TearDown() override { plugin_.reset(); }

    TempMachine machine_{oneVolumeMachine()};
    std::optional<HostContext> context_;
    std::optional<PluginHost> plugin_;
};

TEST_F(PluginInitTest, NullVersionAnswers7AndReportsNothing) {
    start(HostContextOptions{});
    EXPECT_EQ(plugin_->init(context_->context(), nullptr), kTarnNoVersionRecord);
    EXPECT_TRUE(context_->messages().empty());
}

TEST_F(PluginInitTest, InitWritesVersionSevenWithOrWithoutContext) {
    start(HostContextOptions{});
    tarn_version version{{9, 9, 9, 9}};
    ASSERT_EQ(plugin_->init(nullptr, &version), kTarnSuccess);
    EXPECT_EQ(host::versionString(version), "7.0.0.0");
    version = tarn_version{{9, 9, 9, 9}};
    ASSERT_EQ(plugin_->init(context_->context(), &version), kTarnSuccess);
    EXPECT_EQ(host::versionString(version), "7.0.0.0");
}

// errmsg answers the framework catalogue's text for a status, hands it to the
// host as both texts at level 3 and writes an event whose id is the status.
TEST_F(PluginInitTest, ErrMsgTextComesFromTheStatusCatalogue) {
    struct Row {
        const char* name;
        std::uint32_t status;
        std::optional<std::string> text;
        bool callback;
    };
    const std::vector<Row> rows = {
        {"InvalidRequest", 3, "The request is invalid.", true},
        {"EntryPointNotFound", 15, "An entry point of the provider could not be found.", true},
        {"UnknownStatus", 42, std::nullopt, true},
        {"NoCallback", 5, "Not enough memory to complete the operation.", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        start(HostContextOptions{row.callback, "de", false});
        tarn_version version{};
        ASSERT_EQ(plugin_->init(context_->context(), &version), kTarnSuccess);
        context_->takeMessages();
        std::size_t eventsBefore = sim::readEventLog().size();

        const char16_t* text = u"untouched";
        EXPECT_EQ(plugin_->errmsg(row.status, &text), kTarnSuccess);
        if (row.text.has_value()) {
            ASSERT_NE(text, nullptr);
            EXPECT_EQ(host::toUtf8(text), *row.text);
        } else {
            EXPECT_EQ(text, nullptr);
        }

        std::vector<HostMessage> errors;
        for (const HostMessage& message : context_->takeMessages()) {
            if (message.level == 3) {
                errors.push_back(message);
            }
        }
        if (row.callback) {
            ASSERT_EQ(errors.size(), 1u);
            EXPECT_EQ(errors[0].text, row.text);
            EXPECT_EQ(errors[0].secondText, row.text);
        } else {
            EXPECT_TRUE(errors.empty());
        }

        std::vector<sim::EventRecord> events = sim::readEventLog();
        ASSERT_EQ(events.size(), eventsBefore + 1);
        EXPECT_EQ(events.back().source, "fikiv");
        EXPECT_EQ(events.back().eventId, row.status);
        plugin_.reset();
    }
}

}  // namespace
