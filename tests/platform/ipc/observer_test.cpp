// The platform observer: what a host sees of the Sleep calls and named-pipe
// exchanges made in its process, and that observing changes nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "os/time.h"
#include "platform/platform_test_util.h"
#include "sim/hooks.h"
#include "sim/observer.h"
#include "support/scripted_pipe_server.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

struct Seen {
    std::vector<std::uint32_t> sleeps;
    std::vector<sim::PipeExchange> exchanges;
    std::vector<std::vector<unsigned char>> replies;
};

class ObserverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::setPlatformObserver(sim::PlatformObserver{
            .onSleep = [this](std::uint32_t ms) { seen_.sleeps.push_back(ms); },
            .onPipeExchange =
                [this](const sim::PipeExchange& exchange) {
                    seen_.exchanges.push_back(exchange);
                    const auto* bytes = static_cast<const unsigned char*>(exchange.reply);
                    seen_.replies.emplace_back(bytes, bytes + exchange.replySize);
                },
        });
    }
    void TearDown() override { sim::setPlatformObserver({}); }
    std::u16string pipeName(const char* base) const {
        return testsupport::utf16("\\\\.\\pipe\\" + (base + ("." + std::to_string(getpid()))));
    }

    TempMachine machine_{platformtest::smallMachine()};
    Seen seen_;
};

TEST_F(ObserverTest, SeesEverySleepBeforeItStartsUntilRemoved) {
    platformtest::VirtualClock clock;
    os::Sleep(1000);
    os::Sleep(0);
    os::Sleep(250);
    EXPECT_EQ(seen_.sleeps, (std::vector<std::uint32_t>{1000, 0, 250}));

    // An empty observer sees nothing, and a call made meanwhile still works.
    sim::setPlatformObserver({});
    os::Sleep(1000);
    unsigned char request[536] = {};
    EXPECT_FALSE(os::CallNamedPipeW(pipeName("nobody").c_str(), request, sizeof(request), nullptr,
                                    0, nullptr, 0));
    EXPECT_EQ(seen_.sleeps.size(), 3u);
    EXPECT_TRUE(seen_.exchanges.empty());
}

TEST_F(ObserverTest, SeesAFailedExchangeWithItsErrorAndKeepsTheLastError) {
    std::u16string name = pipeName("nobody");
    unsigned char request[536] = {2};
    unsigned char reply[528] = {};
    os::DWORD read = 0;
    EXPECT_EQ(
        os::CallNamedPipeW(name.c_str(), request, sizeof(request), reply, sizeof(reply), &read, 0),
        os::FALSE);
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_NOT_FOUND);
    ASSERT_EQ(seen_.exchanges.size(), 1u);
    const sim::PipeExchange& exchange = seen_.exchanges[0];
    EXPECT_FALSE(exchange.succeeded);
    EXPECT_EQ(exchange.error, os::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(exchange.requestSize, sizeof(request));
    EXPECT_EQ(exchange.request, request);
    EXPECT_EQ(exchange.replySize, 0u);
    EXPECT_TRUE(exchange.pipeName == name);
}

TEST_F(ObserverTest, SeesTheReplyOfAServedExchange) {
    testsupport::ScriptedPipeServer agent;
    agent.scriptStatuses({231});
    unsigned char request[536] = {3};
    unsigned char reply[528] = {};
    os::DWORD read = 0;
    ASSERT_TRUE(os::CallNamedPipeW(u"\\\\.\\Pipe\\ORBHandleRendevous", request, sizeof(request),
                                   reply, sizeof(reply), &read, 0))
        << os::GetLastError();
    ASSERT_EQ(seen_.exchanges.size(), 1u);
    EXPECT_TRUE(seen_.exchanges[0].succeeded);
    ASSERT_EQ(seen_.replies[0].size(), 528u);
    EXPECT_EQ(seen_.replies[0][0], 231);  // the status, little-endian
}

}  // namespace
