#include "driver_store.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "driver_state_file.h"

namespace kivsim {
namespace {

// flock keeps out other processes only; threads of this process queue here.
// A plain function-local object: the library can be unloaded, and an object
// left on the heap would then be lost rather than kept.
std::mutex& processLock() {
    static std::mutex mutex;
    return mutex;
}

// Makes the driver's folders, or throws.
const std::filesystem::path& madeDirectories(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory / "sets", error);
    if (!error) {
        std::filesystem::create_directories(directory / "snapshots", error);
    }
    if (error) {
        throw std::system_error(error, "cannot create " + directory.string());
    }
    return directory;
}

bool processAlive(std::int64_t pid) {
    if (pid <= 0) {
        return false;
    }
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

void removeQuietly(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

}  // namespace

DriverStore::FileLock::FileLock(const std::filesystem::path& file) {
    fd_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot open the driver lock " + file.string());
    }
    while (flock(fd_, LOCK_EX) != 0) {
        if (errno != EINTR) {
            const int error = errno;
            close(fd_);
            throw std::system_error(error, std::generic_category(),
                                    "cannot lock the driver state with " + file.string());
        }
    }
}

DriverStore::FileLock::~FileLock() {
    flock(fd_, LOCK_UN);
    close(fd_);
}

DriverStore::DriverStore(const std::filesystem::path& stateDirectory)
    : directory_(stateDirectory / "driver"),
      threadLock_(processLock()),
      fileLock_(madeDirectories(directory_) / "lock"),
      state_(readDriverStateFile(directory_ / "state.json")) {}

std::filesystem::path DriverStore::setPath(std::uint64_t id) const {
    return directory_ / "sets" / std::to_string(id);
}

std::filesystem::path DriverStore::snapshotPath(std::uint64_t id) const {
    return snapshotFolder(directory_, id);
}

void DriverStore::dropAbandonedSets() {
    std::vector<std::uint64_t> abandoned;
    for (const SnapshotSet& set : state_.sets) {
        if (!set.created && !processAlive(set.ownerPid)) {
            abandoned.push_back(set.id);
        }
    }
    for (std::uint64_t id : abandoned) {
        removeSet(id);
    }
}

void DriverStore::removeSet(std::uint64_t id) {
    for (auto it = state_.sets.begin(); it != state_.sets.end(); ++it) {
        if (it->id != id) {
            continue;
        }
        for (const SnapshotElement& element : it->elements) {
            removeQuietly(element.cacheHostPath);
            std::error_code ignored;
            std::filesystem::remove_all(snapshotPath(element.snapshotId), ignored);
        }
        removeQuietly(setPath(id));
        state_.sets.erase(it);
        return;
    }
}

void DriverStore::commit() {
    const std::filesystem::path file = directory_ / "state.json";
    const std::filesystem::path temporary = directory_ / "state.json.new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << serializeDriverState(state_);
        out.flush();
        if (!out) {
            removeQuietly(temporary);
            throw std::system_error(EIO, std::generic_category(),
                                    "cannot write " + temporary.string());
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, file, error);
    if (error) {
        throw std::system_error(error, "cannot replace " + file.string());
    }
}

}  // namespace kivsim
