// Fuzzes the backup agent's request handling: any bytes of any length from a
// connecting peer, against a table that already holds two names. Whatever the
// bytes, the answer is a reply and a log line, every handle the table took is
// closed exactly once at the end, and a success answers only what the table
// holds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>

#include "handle_table.h"
#include "orbhandle/protocol.h"
#include "os/error.h"
#include "request.h"

namespace {

constexpr os::DWORD kPeerPid = 4242;

class FakeOperations final : public kivagent::HandleOperations {
  public:
    os::DWORD duplicateFrom(os::DWORD /*processId*/, std::uint64_t handle,
                            std::uint64_t* copy) override {
        // Odd values stand for handles the caller does not have.
        if (handle % 2 == 1) {
            return os::ERROR_INVALID_HANDLE;
        }
        *copy = next_;
        next_ += 4;
        open_.insert(*copy);
        return 0;
    }
    os::DWORD close(std::uint64_t handle) override {
        if (open_.erase(handle) != 1) {
            std::abort();  // closed twice, or never taken
        }
        return 0;
    }
    bool allClosed() const { return open_.empty(); }

  private:
    std::uint64_t next_ = 0x1000;
    std::set<std::uint64_t> open_;
};

void add(kivagent::HandleTable& table, const char16_t* name) {
    table.add(name, kPeerPid, 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FakeOperations operations;
    kivagent::HandleTable table(operations);
    add(table, u"\\\\?\\Snap1:");
    add(table, u"\\\\.\\Snap2:");
    kivagent::Faults faults;
    kivagent::RequestContext context{table, 900, 1000, &faults};
    // The peer's user comes from the first byte, so foreign users are tried too.
    kivagent::Peer peer{kPeerPid, size > 0 && data[0] == 0xEE ? 1001u : 1000u};

    kivagent::Outcome outcome =
        kivagent::handleRequest(std::span<const unsigned char>(data, size), peer, context);
    if (outcome.reply.status != outcome.record.status) {
        std::abort();
    }
    if (size != sizeof(orbhandle::Request) && outcome.reply.status == 0) {
        std::abort();  // only a whole request can succeed
    }
    if (outcome.reply.status == 0 && outcome.record.code == orbhandle::kRetrieveHandle) {
        std::uint64_t held = 0;
        if (!table.find(outcome.record.volumeName, &held) || held != outcome.reply.handle) {
            std::abort();
        }
    }
    (void)kivagent::formatLogRecord(outcome.record);
    table.closeAll();
    if (!operations.allClosed()) {
        std::abort();
    }
    return 0;
}
