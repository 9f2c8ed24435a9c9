#include "driver_state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <system_error>

#include "library_object.h"
#include "sim/machine.h"

namespace kivsim {
namespace {

// Far more than the sets of any machine; a larger file is not one of ours.
constexpr std::size_t kMaxStateBytes = 16u << 20;

[[noreturn]] void throwErrno(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset() {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }

  private:
    int fd_ = -1;
};

// Opened without blocking, so that a FIFO put in the file's place cannot hang
// the driver; an invalid descriptor with errno ENOENT when there is no file.
Descriptor openStateFile(const std::string& file) {
    return Descriptor(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

DriverState readFrom(int fd, const std::string& file) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        throwErrno(errno, "cannot read " + file);
    }
    if (!S_ISREG(status.st_mode)) {
        throw DriverStateError(file + ": not a regular file");
    }
    std::string text;
    char buffer[65536];
    for (off_t offset = 0;;) {
        const ssize_t got = pread(fd, buffer, sizeof(buffer), offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throwErrno(errno, "cannot read " + file);
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(got));
        offset += got;
        if (text.size() > kMaxStateBytes) {
            throw DriverStateError(file + ": larger than the " + std::to_string(kMaxStateBytes) +
                                   " bytes a driver state may have");
        }
    }
    return parseDriverState(text, file);
}

// The state last read for calls that only read it, with the file it came
// from held open: while it is open its inode number cannot be given to a
// later file, so an equal device and inode mean the very same file.
struct Committed {
    std::mutex mutex;
    std::uint64_t machine = 0;  // Machine::loadNumber
    std::string file;
    Descriptor pinned;
    dev_t device = 0;
    ino_t inode = 0;
    std::shared_ptr<const DriverState> state;  // null when the file holds none
    std::string problem;                       // then: why
};

Committed& committed() {
    return libraryObject<Committed>();
}

std::shared_ptr<const DriverState> noState() {
    struct NoState {
        const std::shared_ptr<const DriverState> empty = std::make_shared<DriverState>();
    };
    return libraryObject<NoState>().empty;
}

}  // namespace

std::filesystem::path driverDirectory(const sim::Machine& machine) {
    return machine.stateDirectory() / "driver";
}

std::filesystem::path snapshotFolder(const std::filesystem::path& driverDirectory,
                                     std::uint64_t id) {
    return driverDirectory / "snapshots" / std::to_string(id);
}

DriverState readDriverStateFile(const std::filesystem::path& file) {
    const Descriptor fd = openStateFile(file.string());
    if (!fd.valid()) {
        if (errno == ENOENT) {
            return {};  // no snapshot was ever prepared on this machine
        }
        throwErrno(errno, "cannot read " + file.string());
    }
    return readFrom(fd.get(), file.string());
}

std::shared_ptr<const DriverState> committedDriverState(const sim::Machine& machine) {
    Committed& cache = committed();
    std::lock_guard lock(cache.mutex);
    if (cache.machine != machine.loadNumber() || cache.file.empty()) {
        cache.machine = machine.loadNumber();
        cache.file = (driverDirectory(machine) / "state.json").string();
        cache.pinned.reset();
    }
    struct stat now {};
    if (stat(cache.file.c_str(), &now) != 0) {
        if (errno != ENOENT) {
            throwErrno(errno, "cannot read " + cache.file);
        }
        cache.pinned.reset();
        return noState();
    }
    if (cache.pinned.valid() && now.st_dev == cache.device && now.st_ino == cache.inode) {
        if (!cache.state) {
            throw DriverStateError(cache.problem);
        }
        return cache.state;
    }

    Descriptor fd = openStateFile(cache.file);
    struct stat opened {};
    if (!fd.valid() || fstat(fd.get(), &opened) != 0) {
        if (errno == ENOENT) {
            cache.pinned.reset();
            return noState();  // removed since the stat
        }
        throwErrno(errno, "cannot read " + cache.file);
    }
    cache.pinned = std::move(fd);
    cache.device = opened.st_dev;
    cache.inode = opened.st_ino;
    cache.state.reset();
    try {
        cache.state = std::make_shared<const DriverState>(readFrom(cache.pinned.get(), cache.file));
    } catch (const DriverStateError& failure) {
        cache.problem = failure.what();
        throw;
    } catch (...) {
        cache.pinned.reset();  // not read: try again next time
        throw;
    }
    return cache.state;
}

}  // namespace kivsim
