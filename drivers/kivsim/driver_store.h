// The snapshot driver's machine-wide state: prepared snapshot sets, created
// snapshot volumes and the name counter, kept as one JSON document under
// "<machine state directory>/driver/" so that every process of the machine
// (the host, the agent, a second host) sees the same snapshots.
//
// A DriverStore is a transaction: its constructor takes the machine-wide lock
// (an in-process mutex plus flock on "driver/lock", because flock alone does
// not exclude a second thread of the same process that opened the lock file
// again) and reads the document; commit() writes it back atomically; the
// destructor releases the lock. Thread-safe and process-safe.
#ifndef DRIVERS_KIVSIM_DRIVER_STORE_H_
#define DRIVERS_KIVSIM_DRIVER_STORE_H_

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kivsim {

// One source volume of a snapshot set.
struct SnapshotElement {
    std::uint64_t snapshotId = 0;  // names the snapshot volume's directory
    std::string snapshotName;      // as given to KIV_Prepare, UTF-8
    std::string sourceGuid;        // UTF-8 GUID name of the source volume
    std::string cacheFileName;     // as given to KIV_Prepare, UTF-8
    std::string cacheKey;          // folded volume GUID + relative path, for comparison
    std::string cacheHostPath;     // the Linux file that holds the cache
    std::uint32_t initialSizeMb = 0;
    std::uint32_t maximumSizeMb = 0;
};

struct SnapshotSet {
    std::uint64_t id = 0;
    std::int64_t ownerPid = 0;  // the process that prepared the set
    bool created = false;
    std::uint32_t quiesceWait = 0;
    std::uint32_t quiesceTimeout = 0;
    std::vector<SnapshotElement> elements;
};

class DriverStore {
  public:
    // Locks and reads the state of the machine whose state directory is
    // `stateDirectory`. Throws std::system_error when the driver directory or
    // its lock cannot be made.
    explicit DriverStore(const std::filesystem::path& stateDirectory);
    ~DriverStore();
    DriverStore(const DriverStore&) = delete;
    DriverStore& operator=(const DriverStore&) = delete;

    // "<state>/driver", and the folders whose entries handles point at.
    const std::filesystem::path& directory() const { return directory_; }
    std::filesystem::path setPath(std::uint64_t id) const;
    std::filesystem::path snapshotPath(std::uint64_t id) const;

    std::vector<SnapshotSet>& sets() { return sets_; }
    std::uint64_t nextId() { return ++lastId_; }
    std::uint64_t nextNameNumber() { return ++lastName_; }

    // Drops sets that were never created and whose preparing process has
    // ended, deleting their cache files; such sets hold nothing any more.
    void dropAbandonedSets();
    // Removes set `id` with its cache files and snapshot folders.
    void removeSet(std::uint64_t id);

    // Writes the state back (temporary file and rename). Throws
    // std::system_error on failure.
    void commit();

  private:
    std::filesystem::path directory_;
    std::unique_lock<std::mutex> threadLock_;
    int lockFd_ = -1;
    std::uint64_t lastId_ = 0;
    std::uint64_t lastName_ = 0;
    std::vector<SnapshotSet> sets_;
};

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_DRIVER_STORE_H_
