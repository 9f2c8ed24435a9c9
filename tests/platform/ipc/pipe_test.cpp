// Named pipes: names, a missing or busy server, instance limits, message
// boundaries, a server that hangs up, and a killed server in another process.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "platform/platform_test_util.h"
#include "sim/pipe_client.h"
#include "support/child_process.h"
#include "support/temp_machine.h"

namespace {

using platformtest::answer;
using testsupport::ChildChecks;
using testsupport::publishFile;
using testsupport::TempMachine;
using testsupport::waitForFile;

constexpr os::DWORD kRequestSize = 536;
constexpr os::DWORD kReplySize = 528;

os::HANDLE createPipe(const std::u16string& name, os::DWORD maxInstances = 1) {
    return os::CreateNamedPipeW(name.c_str(), os::PIPE_ACCESS_DUPLEX,
                                os::PIPE_TYPE_MESSAGE | os::PIPE_READMODE_MESSAGE | os::PIPE_WAIT,
                                maxInstances, 4096, 4096, /*defaultTimeOut=*/0, nullptr);
}

// The reply the echo server gives: each request byte xor 0x5A, cut to the
// reply size.
std::vector<unsigned char> echoOf(const std::vector<unsigned char>& request) {
    std::vector<unsigned char> reply(kReplySize, 0);
    for (std::size_t i = 0; i < reply.size() && i < request.size(); ++i) {
        reply[i] = request[i] ^ 0x5A;
    }
    return reply;
}

// Serves requests of exactly kRequestSize bytes on the pipe, one client at a
// time, until a check fails or it is killed.
FIKIV_CHILD_ROLE(echoServer) {
    ChildChecks checks;
    os::UniqueHandle pipe(createPipe(testsupport::utf16(arguments.at(0))));
    if (!checks.check(pipe.valid(), "pipe created", os::GetLastError())) {
        return checks.failures();
    }
    publishFile(arguments.at(1), "serving");
    while (checks.failures() == 0) {
        std::vector<unsigned char> request(1024);
        os::DWORD got = 0;
        FIKIV_CHILD_FAIL_IF(checks, !os::ConnectNamedPipe(pipe.get(), nullptr));
        FIKIV_CHILD_FAIL_IF(checks, !os::ReadFile(pipe.get(), request.data(), 1024, &got, nullptr));
        checks.check(got == kRequestSize, "request size", got);
        request.resize(got);
        FIKIV_CHILD_FAIL_IF(
            checks, !os::WriteFile(pipe.get(), echoOf(request).data(), kReplySize, &got, nullptr));
        FIKIV_CHILD_FAIL_IF(checks, !os::DisconnectNamedPipe(pipe.get()));
    }
    return checks.failures();
}

// Sends one request to the pipe and exits 0 when a reply came.
FIKIV_CHILD_ROLE(pipeClient) {
    std::u16string name = testsupport::utf16(arguments.at(0));
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    os::DWORD got = 0;
    return os::CallNamedPipeW(name.c_str(), bytes, 8, bytes, 8, &got, os::NMPWAIT_WAIT_FOREVER)
               ? 0
               : 1;
}

class PipeTest : public ::testing::Test {
  protected:
    TempMachine machine_{platformtest::smallMachine()};
    std::u16string pipeName(const std::string& base) const {
        return testsupport::utf16("\\\\.\\pipe\\" + base + "." + std::to_string(getpid()));
    }
};

// A client call made from its own thread.
struct ClientResult {
    os::BOOL ok = os::FALSE;
    os::DWORD error = 0;
    os::DWORD bytesRead = 0;
    std::vector<unsigned char> reply;
};

std::future<ClientResult> callAsync(std::u16string name, std::vector<unsigned char> request,
                                    os::DWORD replySize, os::DWORD timeOut = 0) {
    return std::async(std::launch::async, [=]() mutable {
        ClientResult result;
        // One canary byte past the stated size catches writes beyond it.
        result.reply.assign(replySize + 1, 0x11);
        result.bytesRead = 0xdeadbeef;
        os::SetLastError(0xdeadbeef);
        result.ok =
            os::CallNamedPipeW(name.c_str(), request.data(), static_cast<os::DWORD>(request.size()),
                               result.reply.data(), replySize, &result.bytesRead, timeOut);
        result.error = os::GetLastError();
        return result;
    });
}

ClientResult call(const std::u16string& name, std::vector<unsigned char> request,
                  os::DWORD replySize, os::DWORD timeOut = 0) {
    return callAsync(name, std::move(request), replySize, timeOut).get();
}

std::vector<unsigned char> pattern(std::size_t size, unsigned char seed) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(seed + i * 7);
    }
    return bytes;
}

TEST_F(PipeTest, BadNamesFailBeforeAnythingElse) {
    // clang-format off
    struct Row { const char* label; const char16_t* name; os::DWORD expectedError; };
    const Row rows[] = {
        {"null", nullptr, os::ERROR_PATH_NOT_FOUND},
        {"no prefix", u"fikiv_pipe", os::ERROR_INVALID_NAME},
        {"empty pipe name", u"\\\\.\\pipe\\", os::ERROR_INVALID_NAME},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        unsigned char bytes[4] = {};
        os::DWORD read = 0;
        EXPECT_EQ(answer([&] { return os::CallNamedPipeW(row.name, bytes, 4, bytes, 4, &read, 0); }),
                  std::pair(os::FALSE, row.expectedError));
        EXPECT_EQ(answer([&] {
                      return os::CreateNamedPipeW(row.name, os::PIPE_ACCESS_DUPLEX,
                                                  os::PIPE_TYPE_MESSAGE, 1, 0, 0, 0, nullptr);
                  }),
                  std::pair(os::INVALID_HANDLE_VALUE, row.expectedError));
    }
}

TEST_F(PipeTest, InstanceLimits) {
    std::u16string name = pipeName("fikiv_pipe_limits");
    os::UniqueHandle first(createPipe(name, 2));
    ASSERT_TRUE(first.valid());
    // clang-format off
    struct Row { const char* label; os::DWORD maxInstances; bool expectHandle; os::DWORD expectedError; };
    const Row rows[] = {
        {"no instances", 0, false, os::ERROR_INVALID_PARAMETER},
        {"more than 255", 256, false, os::ERROR_INVALID_PARAMETER},
        {"another limit than the first instance", 3, false, os::ERROR_ACCESS_DENIED},
        {"second of two", 2, true, 0},
        {"third of two", 2, false, os::ERROR_PIPE_BUSY},
    };
    // clang-format on
    std::vector<os::UniqueHandle> instances;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        const auto [instance, error] = answer([&] { return createPipe(name, row.maxInstances); });
        EXPECT_EQ(instance != os::INVALID_HANDLE_VALUE, row.expectHandle);
        EXPECT_EQ(error, row.expectHandle ? platformtest::kUntouched : row.expectedError);
        if (row.expectHandle) {
            instances.emplace_back(instance);
        }
    }
    // Two instances serve two clients at the same time.
    auto serve = [](os::HANDLE instance) {
        return std::async(std::launch::async, [instance] {
            unsigned char request[64];
            os::DWORD got = 0;
            return os::ConnectNamedPipe(instance, nullptr) &&
                   os::ReadFile(instance, request, sizeof(request), &got, nullptr) &&
                   os::WriteFile(instance, request, got, &got, nullptr) &&
                   os::DisconnectNamedPipe(instance);
        });
    };
    auto firstServer = serve(first.get());
    auto secondServer = serve(instances.at(0).get());
    auto clientA = callAsync(name, pattern(16, 3), 16, os::NMPWAIT_WAIT_FOREVER);
    auto clientB = callAsync(name, pattern(16, 9), 16, os::NMPWAIT_WAIT_FOREVER);
    EXPECT_EQ(clientA.get().ok, os::TRUE);
    EXPECT_EQ(clientB.get().ok, os::TRUE);
    EXPECT_TRUE(firstServer.get());
    EXPECT_TRUE(secondServer.get());
}

TEST_F(PipeTest, BusyServerAnswersPipeBusyUntilAnInstanceIsFree) {
    std::u16string name = pipeName("fikiv_pipe_busy");
    os::UniqueHandle pipe(createPipe(name));
    ASSERT_TRUE(pipe.valid());

    os::DWORD got = 0;
    unsigned char buffer[kRequestSize];
    const auto notConnected = std::pair(os::FALSE, os::DWORD{os::ERROR_PIPE_NOT_CONNECTED});
    EXPECT_EQ(answer([&] { return os::ReadFile(pipe.get(), buffer, kRequestSize, &got, nullptr); }),
              notConnected);
    EXPECT_EQ(answer([&] { return os::DisconnectNamedPipe(pipe.get()); }), notConnected);

    auto first = callAsync(name, pattern(kRequestSize, 1), kReplySize);
    ASSERT_EQ(os::ConnectNamedPipe(pipe.get(), nullptr), os::TRUE);
    EXPECT_EQ(answer([&] { return os::ConnectNamedPipe(pipe.get(), nullptr); }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_PIPE_CONNECTED}));
    ASSERT_EQ(os::ReadFile(pipe.get(), buffer, sizeof(buffer), &got, nullptr), os::TRUE);

    // The only instance is serving the first client. The first caller below
    // can wait in the connection queue, the second finds even that full;
    // both give up after the pipe's default wait.
    for (const char* label : {"queued", "refused"}) {
        SCOPED_TRACE(label);
        ClientResult busy = call(name, pattern(kRequestSize, 2), kReplySize);
        EXPECT_EQ(busy.ok, os::FALSE);
        EXPECT_EQ(busy.error, os::ERROR_PIPE_BUSY);
    }
    ClientResult noWait = call(name, pattern(kRequestSize, 2), kReplySize, os::NMPWAIT_NOWAIT);
    EXPECT_EQ(noWait.error, os::ERROR_PIPE_BUSY);

    std::vector<unsigned char> reply = echoOf(pattern(kRequestSize, 1));
    ASSERT_EQ(os::WriteFile(pipe.get(), reply.data(), kReplySize, &got, nullptr), os::TRUE);
    ClientResult served = first.get();
    EXPECT_EQ(served.ok, os::TRUE);
    EXPECT_EQ(std::vector<unsigned char>(served.reply.begin(), served.reply.end() - 1), reply);
    ASSERT_EQ(os::DisconnectNamedPipe(pipe.get()), os::TRUE);

    // Clients that gave up are not served later; the next real one is.
    auto next = callAsync(name, pattern(kRequestSize, 5), kReplySize, os::NMPWAIT_WAIT_FOREVER);
    ASSERT_EQ(os::ConnectNamedPipe(pipe.get(), nullptr), os::TRUE);
    ASSERT_EQ(os::ReadFile(pipe.get(), buffer, sizeof(buffer), &got, nullptr), os::TRUE);
    EXPECT_EQ(std::vector<unsigned char>(buffer, buffer + got), pattern(kRequestSize, 5));
    ASSERT_EQ(os::WriteFile(pipe.get(), buffer, 3, &got, nullptr), os::TRUE);
    EXPECT_EQ(next.get().bytesRead, 3u);
    pipe.reset();
    EXPECT_EQ(answer([&] {
                  return os::CallNamedPipeW(name.c_str(), buffer, 4, nullptr, 0, nullptr, 0);
              }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_FILE_NOT_FOUND}))
        << "closed, not served; no reply buffer is needed to learn that";
}

// What the client gets of the server's reply: all of it, the part that fits
// (ERROR_MORE_DATA), or nothing when the server hangs up (ERROR_BROKEN_PIPE).
TEST_F(PipeTest, ClientGetsTheReplyThatFits) {
    constexpr os::DWORD kHangUp = 0xFFFFFFFF;  // a reply length: none, the server disconnects
    struct Row {
        const char* label;
        os::DWORD replyLength;
        os::DWORD bufferSize;
        os::BOOL expectedOk;
        os::DWORD expectedError;  // checked when the call fails
        os::DWORD expectedRead;
    };
    // clang-format off
    const Row rows[] = {
        {"exact fit", 100, 100, os::TRUE, 0, 100},
        {"one short", 100, 99, os::FALSE, os::ERROR_MORE_DATA, 99},
        {"empty reply", 0, 10, os::TRUE, 0, 0},
        {"server hangs up", kHangUp, kReplySize, os::FALSE, os::ERROR_BROKEN_PIPE, 0},
    };
    // clang-format on
    std::u16string name = pipeName("fikiv_pipe_short");
    os::UniqueHandle pipe(createPipe(name));
    ASSERT_TRUE(pipe.valid());
    // The client spells the prefix and the name in another case.
    std::u16string clientName = u"\\\\.\\PiPe\\FIKIV_PIPE_SHORT" + name.substr(name.find(u'.', 4));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        const bool hangUp = row.replyLength == kHangUp;
        std::vector<unsigned char> reply = pattern(hangUp ? 0 : row.replyLength, 40);
        auto client = callAsync(clientName, pattern(4, 0), row.bufferSize);
        ASSERT_EQ(os::ConnectNamedPipe(pipe.get(), nullptr), os::TRUE);
        unsigned char request[16];
        os::DWORD got = 0;
        ASSERT_EQ(os::ReadFile(pipe.get(), request, sizeof(request), &got, nullptr), os::TRUE);
        if (hangUp) {
            ASSERT_TRUE(os::DisconnectNamedPipe(pipe.get()));
        } else {
            ASSERT_TRUE(os::WriteFile(pipe.get(), reply.data(), row.replyLength, &got, nullptr));
        }
        ClientResult result = client.get();
        if (!hangUp) {
            ASSERT_TRUE(os::DisconnectNamedPipe(pipe.get()));
        }

        EXPECT_EQ(result.ok, row.expectedOk);
        if (!row.expectedOk) {
            EXPECT_EQ(result.error, row.expectedError);
        }
        EXPECT_EQ(result.bytesRead, row.expectedRead);
        EXPECT_TRUE(
            std::equal(reply.begin(), reply.begin() + row.expectedRead, result.reply.begin()));
        EXPECT_EQ(result.reply[row.bufferSize], 0x11) << "written past the buffer";
    }
}

// A killed server leaves its name free for the next one.
TEST_F(PipeTest, RoundTripWithAServerInAnotherProcessThatIsKilled) {
    std::u16string name = pipeName("fikiv_pipe_echo");
    std::filesystem::path ready = machine_.directory() / "serving";
    pid_t server = testsupport::startChild("echoServer", {testsupport::utf8(name), ready.string()});
    ASSERT_TRUE(waitForFile(ready));
    EXPECT_EQ(answer([&] { return createPipe(name); }),
              std::pair(os::INVALID_HANDLE_VALUE, os::DWORD{os::ERROR_ACCESS_DENIED}))
        << "another process serves the name";
    for (unsigned char seed = 0; seed < 3; ++seed) {
        SCOPED_TRACE(seed);
        std::vector<unsigned char> request = pattern(kRequestSize, seed);
        ClientResult result = call(name, request, kReplySize, os::NMPWAIT_WAIT_FOREVER);
        EXPECT_EQ(result.ok, os::TRUE) << result.error;  // no ASSERT: the server is killed below
        EXPECT_EQ(result.bytesRead, kReplySize);
        result.reply.pop_back();
        EXPECT_EQ(result.reply, echoOf(request));
    }
    kill(server, SIGKILL);
    testsupport::waitChild(server);
    EXPECT_EQ(call(name, pattern(4, 0), 4).error, os::ERROR_FILE_NOT_FOUND);
    os::UniqueHandle pipe(createPipe(name));
    EXPECT_TRUE(pipe.valid()) << "error " << os::GetLastError();
}

TEST_F(PipeTest, ServerLearnsWhichProcessAndUserItServes) {
    std::u16string name = pipeName("fikiv_pipe_peer");
    os::UniqueHandle pipe(createPipe(name));
    ASSERT_TRUE(pipe.valid());

    os::ULONG processId = 0xdeadbeef;
    sim::PipeClientCredentials credentials;
    const auto processOf = [&processId](os::HANDLE server) {
        return answer([&] { return os::GetNamedPipeClientProcessId(server, &processId); });
    };
    EXPECT_EQ(processOf(pipe.get()), std::pair(os::FALSE, os::DWORD{os::ERROR_PIPE_NOT_CONNECTED}));
    EXPECT_EQ(sim::getPipeClientCredentials(pipe.get(), &credentials),
              os::ERROR_PIPE_NOT_CONNECTED);
    EXPECT_EQ(processOf(reinterpret_cast<os::HANDLE>(0x7ffffff0)),
              std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE}));

    pid_t client = testsupport::startChild("pipeClient", {testsupport::utf8(name)});
    ASSERT_EQ(os::ConnectNamedPipe(pipe.get(), nullptr), os::TRUE);
    ASSERT_EQ(os::GetNamedPipeClientProcessId(pipe.get(), &processId), os::TRUE);
    EXPECT_EQ(processId, static_cast<os::ULONG>(client));
    ASSERT_EQ(sim::getPipeClientCredentials(pipe.get(), &credentials), 0u);
    EXPECT_EQ(credentials.processId, client);
    EXPECT_EQ(credentials.userId, getuid());
    EXPECT_EQ(credentials.groupId, getgid());

    unsigned char request[8];
    os::DWORD got = 0;
    ASSERT_EQ(os::ReadFile(pipe.get(), request, sizeof(request), &got, nullptr), os::TRUE);
    ASSERT_EQ(os::WriteFile(pipe.get(), request, got, &got, nullptr), os::TRUE);
    EXPECT_EQ(testsupport::waitChild(client), 0);
    ASSERT_EQ(os::DisconnectNamedPipe(pipe.get()), os::TRUE);
    EXPECT_EQ(processOf(pipe.get()), std::pair(os::FALSE, os::DWORD{os::ERROR_PIPE_NOT_CONNECTED}));
}

}  // namespace
