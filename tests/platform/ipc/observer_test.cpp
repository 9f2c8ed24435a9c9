// The platform observer: what a host sees of the Sleep calls and named-pipe
// exchanges made in its process, and that observing changes nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "os/time.h"
#include "sim/hooks.h"
#include "sim/observer.h"
#include "platform/platform_test_util.h"
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
    void TearDown() override {
        sim::setPlatformObserver({});
        sim::useVirtualClock(false);
    }
    std::u16string pipeName(const char* base) const {
        std::string name = std::string("\\\\.\\pipe\\") + base + "." + std::to_string(getpid());
        return std::u16string(name.begin(), name.end());
    }

    TempMachine machine_{platformtest::smallMachine()};
    Seen seen_;
};

TEST_F(ObserverTest, SeesEverySleepBeforeItStarts) {
    sim::useVirtualClock(true);
    os::Sleep(1000);
    os::Sleep(0);
    os::Sleep(250);
    EXPECT_EQ(seen_.sleeps, (std::vector<std::uint32_t>{1000, 0, 250}));
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
    std::u16string name = pipeName("served");
    os::UniqueHandle pipe(
        os::CreateNamedPipeW(name.c_str(), os::PIPE_ACCESS_DUPLEX,
                             os::PIPE_TYPE_MESSAGE | os::PIPE_READMODE_MESSAGE | os::PIPE_WAIT, 1,
                             4096, 4096, 0, nullptr));
    ASSERT_TRUE(pipe.valid()) << os::GetLastError();
    std::thread server([&pipe] {
        os::ConnectNamedPipe(pipe.get(), nullptr);
        unsigned char request[536] = {};
        os::DWORD got = 0;
        os::ReadFile(pipe.get(), request, sizeof(request), &got, nullptr);
        unsigned char reply[528] = {};
        reply[0] = 0xE7;  // status 231 as an agent would answer it
        os::DWORD written = 0;
        os::WriteFile(pipe.get(), reply, sizeof(reply), &written, nullptr);
        os::DisconnectNamedPipe(pipe.get());
    });
    unsigned char request[536] = {3};
    unsigned char reply[528] = {};
    os::DWORD read = 0;
    os::BOOL ok =
        os::CallNamedPipeW(name.c_str(), request, sizeof(request), reply, sizeof(reply), &read, 0);
    server.join();
    ASSERT_EQ(ok, os::TRUE) << os::GetLastError();
    ASSERT_EQ(seen_.exchanges.size(), 1u);
    EXPECT_TRUE(seen_.exchanges[0].succeeded);
    ASSERT_EQ(seen_.replies[0].size(), 528u);
    EXPECT_EQ(seen_.replies[0][0], 0xE7);
}

TEST_F(ObserverTest, AnEmptyObserverSeesNothing) {
    sim::setPlatformObserver({});
    sim::useVirtualClock(true);
    os::Sleep(1000);
    std::u16string name = pipeName("nobody");
    unsigned char request[536] = {};
    os::CallNamedPipeW(name.c_str(), request, sizeof(request), nullptr, 0, nullptr, 0);
    EXPECT_TRUE(seen_.sleeps.empty());
    EXPECT_TRUE(seen_.exchanges.empty());
}

}  // namespace
