// Reading the snapshot driver's state file, "<machine state>/driver/state.json".
//
// Writers replace the file whole (a temporary file renamed over it, under the
// driver lock, driver_store.h), so a reader that takes no lock still sees one
// complete state: the one before a change or the one after.
//
// Thread-safe.
#ifndef DRIVERS_KIVSIM_DRIVER_STATE_FILE_H_
#define DRIVERS_KIVSIM_DRIVER_STATE_FILE_H_

#include <cstdint>
#include <filesystem>
#include <memory>

#include "driver_state.h"

namespace sim {
class Machine;
}

namespace kivsim {

// "<machine state>/driver".
std::filesystem::path driverDirectory(const sim::Machine& machine);
// "<driver directory>/snapshots/<id>": what snapshot volume `id` shows.
std::filesystem::path snapshotFolder(const std::filesystem::path& driverDirectory,
                                     std::uint64_t id);

// The state in `file`, empty when there is none. A file that is not a
// regular file, is larger than a state can be, or does not hold a state
// throws DriverStateError naming it; one that cannot be read throws
// std::system_error.
DriverState readDriverStateFile(const std::filesystem::path& file);

// The state last written on `machine`, for calls that only read it. The
// parsed state is kept while the file stays the same, so asking again costs
// one stat. Throws like readDriverStateFile, and again on every call until
// the file changes.
std::shared_ptr<const DriverState> committedDriverState(const sim::Machine& machine);

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_DRIVER_STATE_FILE_H_
