// Fuzzes the reader of the snapshot driver's state file. Checks that a file
// is either read or refused with one DriverStateError that names the file
// first and carries no control character, that a state it reads is written
// back in a form that reads back equal, and that the lookups the entry points
// make on it answer without failing.
#include <cstddef>
#include <cstdint>
#include <string>

#include "driver_state.h"
#include "fuzz_support.h"

namespace {

using fuzzsupport::check;

const std::string kFile = "/fuzz/machine.state/driver/state.json";

void checkAccepted(const kivsim::DriverState& state) {
    check(kivsim::parseDriverState(kivsim::serializeDriverState(state), kFile) == state,
          "a state read back from its own form is the same state");
    for (const kivsim::SnapshotSet& set : state.sets) {
        for (const kivsim::SnapshotElement& element : set.elements) {
            const kivsim::SnapshotSet* owner = nullptr;
            check(state.findElement(element.snapshotId, &owner) != nullptr && owner != nullptr,
                  "every snapshot volume is found by its id");
            if (set.created) {
                check(state.findCreatedSnapshot(element.snapshotName) != nullptr,
                      "every created snapshot volume is found by its name");
            }
        }
    }
    state.holdsActiveCache(u"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        checkAccepted(kivsim::parseDriverState(text, kFile));
    } catch (const kivsim::DriverStateError& error) {
        const std::string message = error.what();
        check(message.rfind(kFile + ": ", 0) == 0, "a refusal names the file first");
        check(fuzzsupport::printable(message), "a refusal carries no control character");
    }
    return 0;
}
