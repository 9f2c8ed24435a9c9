// Request handling without pipes or other processes: every malformed request
// answered with its error and nothing held changed, what a scripted handle
// duplication shows of the round trip, and the log line.
#include "request.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "handle_table.h"
#include "orbhandle/protocol.h"
#include "os/error.h"
#include "request_bytes.h"

namespace {

using kivagent::HandleTable;
using kivagent::Outcome;
using kivagent::Peer;
using kivagent::RequestContext;

constexpr os::DWORD kAgentPid = 900;
constexpr std::uint32_t kAgentUser = 1000;
constexpr os::DWORD kCallerPid = 4242;
const Peer kCaller{kCallerPid, kAgentUser};

// Hands out handle values 0x1000, 0x1004, ... and checks that each is closed
// once.
class FakeOperations final : public kivagent::HandleOperations {
  public:
    os::DWORD duplicateFrom(os::DWORD processId, std::uint64_t handle,
                            std::uint64_t* copy) override {
        if (refuse != 0) {
            return refuse;
        }
        *copy = next_;
        next_ += 4;
        open.insert(*copy);
        taken.push_back({processId, handle});
        return 0;
    }
    os::DWORD close(std::uint64_t handle) override {
        if (open.erase(handle) == 0) {
            ++badCloses;
            return os::ERROR_INVALID_HANDLE;
        }
        closed.push_back(handle);
        return 0;
    }

    os::DWORD refuse = 0;
    std::set<std::uint64_t> open;
    std::vector<std::uint64_t> closed;
    std::vector<std::pair<os::DWORD, std::uint64_t>> taken;
    int badCloses = 0;

  private:
    std::uint64_t next_ = 0x1000;
};

std::vector<unsigned char> registerRequest(const std::u16string& name, std::uint64_t handle = 16,
                                           os::DWORD pid = kCallerPid) {
    return requestBytes(orbhandle::kRegisterVolumeHandle, pid, handle, name);
}
std::vector<unsigned char> retrieveRequest(const std::u16string& name) {
    return requestBytes(orbhandle::kRetrieveHandle, kCallerPid, 0, name);
}
std::vector<unsigned char> releaseRequest(const std::u16string& name) {
    return requestBytes(orbhandle::kReleaseVolumeHandle, kCallerPid, 0, name);
}

class RequestTest : public ::testing::Test {
  protected:
    Outcome handle(const std::vector<unsigned char>& message, const Peer& peer = kCaller) {
        return kivagent::handleRequest(message, peer, context_);
    }

    FakeOperations operations_;
    HandleTable table_{operations_};
    kivagent::Faults faults_;
    RequestContext context_{table_, kAgentPid, kAgentUser, &faults_};
};

TEST_F(RequestTest, MalformedRequestsAreRefusedAndChangeNothing) {
    const std::u16string held = u"\\\\?\\Held:";
    ASSERT_EQ(handle(registerRequest(held)).reply.status, 0u);

    std::vector<unsigned char> longer = retrieveRequest(held);
    longer.push_back(0);
    std::vector<unsigned char> shorter = releaseRequest(held);
    shorter.pop_back();

    struct Row {
        const char* label;
        std::vector<unsigned char> message;
        Peer peer;
        os::DWORD status;
    };
    // clang-format off
    const Row rows[] = {
        {"empty message", {}, kCaller, os::ERROR_BAD_LENGTH},
        {"code only", {3, 0, 0, 0}, kCaller, os::ERROR_BAD_LENGTH},
        {"one byte short", shorter, kCaller, os::ERROR_BAD_LENGTH},
        {"one byte long", longer, kCaller, os::ERROR_BAD_LENGTH},
        {"code 1", requestBytes(1, kCallerPid, 0, held), kCaller, os::ERROR_INVALID_FUNCTION},
        {"code 5", requestBytes(5, kCallerPid, 0, held), kCaller, os::ERROR_INVALID_FUNCTION},
        {"name without NUL", retrieveRequest(std::u16string(orbhandle::kMaxVolumeNameLength + 1, u'x')), kCaller, os::ERROR_INVALID_NAME},
        {"empty name", releaseRequest(u""), kCaller, os::ERROR_INVALID_NAME},
        {"process id of another process", requestBytes(4, kCallerPid + 1, 0, held), kCaller, os::ERROR_ACCESS_DENIED},
        {"caller of another user", releaseRequest(held), {kCallerPid, kAgentUser + 1}, os::ERROR_ACCESS_DENIED},
        {"another user, checked before the size", shorter, {kCallerPid, kAgentUser + 1}, os::ERROR_ACCESS_DENIED},
        {"register of handle 0", registerRequest(held, 0), kCaller, os::ERROR_INVALID_HANDLE},
        {"register of the no-handle value", registerRequest(held, ~0ull), kCaller, os::ERROR_INVALID_HANDLE},
        {"release of a name not held", releaseRequest(u"\\\\?\\Other:"), kCaller, os::ERROR_FILE_NOT_FOUND},
        {"retrieve of a name not held", retrieveRequest(u"\\\\?\\held:"), kCaller, os::ERROR_FILE_NOT_FOUND},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        Outcome outcome = handle(row.message, row.peer);
        EXPECT_EQ(outcome.reply.status, row.status);
        EXPECT_EQ(outcome.record.status, row.status);
        EXPECT_FALSE(outcome.record.note.empty()) << "the log says why";
        EXPECT_EQ(outcome.reply.processId, 0u);
        EXPECT_EQ(outcome.reply.handle, 0u);
        EXPECT_EQ(table_.size(), 1u);
        // Still serving: the held name is answered as before.
        EXPECT_EQ(handle(retrieveRequest(held)).reply.handle, 0x1000u);
    }
    EXPECT_EQ(operations_.taken.size(), 1u) << "no malformed request took a handle";
    EXPECT_TRUE(operations_.closed.empty());
}

// The round trip over a real pipe, with real handles, is tested with the
// agent program; here what only a scripted duplication shows.
TEST_F(RequestTest, RegisterRetrieveReleaseRoundTrip) {
    const std::u16string name = u"\\\\?\\Snap1:";
    operations_.refuse = os::ERROR_INVALID_HANDLE;
    EXPECT_EQ(handle(registerRequest(name)).reply.status, os::ERROR_INVALID_HANDLE);
    EXPECT_EQ(table_.size(), 0u) << "a failed duplication holds nothing";
    operations_.refuse = 0;

    Outcome registered = handle(registerRequest(name, 0x24));
    EXPECT_EQ(registered.reply.status, 0u);
    ASSERT_EQ(operations_.taken.size(), 1u);
    EXPECT_EQ(operations_.taken[0], (std::pair<os::DWORD, std::uint64_t>{kCallerPid, 0x24}));
    EXPECT_EQ(registered.reply.handle, 0u) << "only retrieve answers a handle";
    Outcome retrieved = handle(retrieveRequest(name));
    EXPECT_EQ(retrieved.reply.handle, 0x1000u);
    for (unsigned char unused : retrieved.reply.unused) {
        ASSERT_EQ(unused, 0);
    }
    // Names are compared exactly: another case is another name.
    EXPECT_EQ(handle(retrieveRequest(u"\\\\?\\SNAP1:")).reply.status, os::ERROR_FILE_NOT_FOUND);
    // Registering a held name again keeps the newer handle, closing the older.
    Outcome again = handle(registerRequest(name, 0x30));
    EXPECT_EQ(again.reply.status, 0u);
    EXPECT_NE(again.record.note.find("replacing"), std::string::npos) << again.record.note;
    EXPECT_EQ(handle(retrieveRequest(name)).reply.handle, 0x1004u);
    EXPECT_EQ(handle(releaseRequest(name)).reply.status, 0u);
    EXPECT_EQ(operations_.closed, (std::vector<std::uint64_t>{0x1000, 0x1004}));
    EXPECT_EQ(operations_.badCloses, 0);

    const std::u16string longest(orbhandle::kMaxVolumeNameLength, u'n');
    EXPECT_EQ(handle(registerRequest(longest)).reply.status, 0u);
    EXPECT_EQ(handle(releaseRequest(longest), {kCallerPid, 0}).reply.status, 0u)
        << "root may talk to any user's agent";
    EXPECT_TRUE(operations_.open.empty());
}

TEST_F(RequestTest, LogLineNamesPeerCodeNameAndStatusOnOneLine) {
    Outcome outcome = handle(registerRequest(u"\\\\?\\Snap\"5\n:\u00e9", 0x30));
    std::string line = kivagent::formatLogRecord(outcome.record);
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_EQ(line.rfind(
                  "peer 4242 code 2 register name \"\\\\?\\Snap\\x225\\x0a:\xc3\xa9\" status 0", 0),
              0u)
        << line;

    // Every code is named, known or not.
    for (const auto& [code, named] : {std::pair<std::uint32_t, const char*>{3, " code 3 retrieve "},
                                      {4, " code 4 release "},
                                      {1, " code 1 unknown "}}) {
        line = kivagent::formatLogRecord(handle(requestBytes(code, kCallerPid, 0, u"V")).record);
        EXPECT_NE(line.find(named), std::string::npos) << line;
    }

    std::string shortLine = kivagent::formatLogRecord(handle({9}).record);
    EXPECT_EQ(shortLine.rfind("peer 4242 code - name \"\" status 24: request of 1 bytes", 0), 0u)
        << shortLine;
}

}  // namespace
