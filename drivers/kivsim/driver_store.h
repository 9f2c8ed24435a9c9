// Changing the snapshot driver's machine-wide state (driver_state.h), kept in
// "<machine state directory>/driver/state.json" so that every process of the
// machine (the host, the agent, a second host) sees the same snapshots.
//
// A DriverStore is a transaction: its constructor takes the machine-wide lock
// (an in-process mutex plus flock on "driver/lock", because flock alone does
// not exclude a second thread of the same process that opened the lock file
// again) and reads the state; commit() writes it back atomically; the
// destructor releases the lock, also when the constructor throws. Calls that
// only read the state do not come here (driver_state_file.h).
//
// Thread-safe and process-safe.
#ifndef DRIVERS_KIVSIM_DRIVER_STORE_H_
#define DRIVERS_KIVSIM_DRIVER_STORE_H_

#include <cstdint>
#include <filesystem>
#include <mutex>

#include "driver_state.h"

namespace kivsim {

class DriverStore {
  public:
    // Locks and reads the state of the machine whose state directory is
    // `stateDirectory`. Throws std::system_error when the driver directory or
    // its lock cannot be made, DriverStateError when the state file holds no
    // state of this driver (it is then left as it is).
    explicit DriverStore(const std::filesystem::path& stateDirectory);
    DriverStore(const DriverStore&) = delete;
    DriverStore& operator=(const DriverStore&) = delete;

    // "<state>/driver", and the folders whose entries handles point at.
    const std::filesystem::path& directory() const { return directory_; }
    std::filesystem::path setPath(std::uint64_t id) const;
    std::filesystem::path snapshotPath(std::uint64_t id) const;

    DriverState& state() { return state_; }

    // Drops sets that were never created and whose preparing process has
    // ended, deleting their cache files; such sets hold nothing any more.
    void dropAbandonedSets();
    // Removes set `id` with its cache files and snapshot folders.
    void removeSet(std::uint64_t id);

    // Writes the state back (temporary file and rename). Throws
    // std::system_error on failure.
    void commit();

  private:
    // flock on "driver/lock", released when destroyed.
    class FileLock {
      public:
        explicit FileLock(const std::filesystem::path& file);
        ~FileLock();
        FileLock(const FileLock&) = delete;
        FileLock& operator=(const FileLock&) = delete;

      private:
        int fd_ = -1;
    };

    std::filesystem::path directory_;
    std::unique_lock<std::mutex> threadLock_;
    FileLock fileLock_;
    DriverState state_;
};

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_DRIVER_STORE_H_
