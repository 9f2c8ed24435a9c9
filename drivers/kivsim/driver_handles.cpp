#include "driver_handles.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "driver_state_file.h"
#include "library_object.h"
#include "os/error.h"
#include "os/types.h"
#include "sim/errors.h"
#include "sim/handles.h"

namespace kivsim {
namespace {

struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
        return std::hash<std::string_view>()(text);
    }
};

// Where the descriptors of one loaded machine's handles point.
struct HandleIndex {
    std::uint64_t machine = 0;  // Machine::loadNumber
    std::string snapshots;      // "<resolved driver directory>/snapshots/"
    std::string sets;           // "<resolved driver directory>/sets/"
    // Resolved backing directory -> index of its volume.
    std::unordered_map<std::string, std::size_t, StringHash, std::equal_to<>> volumes;
};

// The path the kernel shows for a descriptor of `path` once it exists.
std::string resolved(const std::filesystem::path& path) {
    std::error_code ignored;
    const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, ignored);
    std::string text = (canonical.empty() ? path : canonical).string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

std::shared_ptr<const HandleIndex> buildIndex(const sim::Machine& machine) {
    auto index = std::make_shared<HandleIndex>();
    index->machine = machine.loadNumber();
    const std::string driver = resolved(driverDirectory(machine));
    index->snapshots = driver + "/snapshots/";
    index->sets = driver + "/sets/";
    const std::vector<sim::Volume>& volumes = machine.volumes();
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        index->volumes.emplace(resolved(volumes[i].backingDirectory), i);
    }
    return index;
}

// The index of `machine`, built on first use and rebuilt when `stale` is the
// one in use.
std::shared_ptr<const HandleIndex> indexOf(const sim::Machine& machine,
                                           const HandleIndex* stale = nullptr) {
    struct CurrentIndex {
        std::mutex mutex;
        std::shared_ptr<const HandleIndex> index;
    };
    CurrentIndex& current = libraryObject<CurrentIndex>();
    std::lock_guard lock(current.mutex);
    if (!current.index || current.index->machine != machine.loadNumber() ||
        current.index.get() == stale) {
        current.index = buildIndex(machine);
    }
    return current.index;
}

// What the kernel adds to the name of a removed folder.
constexpr std::string_view kDeleted = " (deleted)";

// "<number>" or "<number> (deleted)".
bool parseEntry(std::string_view text, std::uint64_t* id, bool* removed) {
    *removed = false;
    if (text.size() > kDeleted.size() && text.ends_with(kDeleted)) {
        text.remove_suffix(kDeleted.size());
        *removed = true;
    }
    if (text.empty()) {
        return false;
    }
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *id);
    return error == std::errc() && end == text.data() + text.size() && *id != 0;
}

// Whether the descriptor could be a driver handle that the index missed
// because a folder was made or moved since: it is a folder, and not a removed
// one. Files, sockets and removed folders never cost a rebuild.
bool mayBeMoved(int fd, std::string_view path) {
    struct stat status {};
    return !path.ends_with(kDeleted) && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
}

HandleTarget classify(const HandleIndex& index, const sim::Machine& machine,
                      std::string_view path) {
    HandleTarget target;
    if (path.starts_with(index.snapshots) &&
        parseEntry(path.substr(index.snapshots.size()), &target.id, &target.removed)) {
        target.kind = HandleTarget::Kind::Snapshot;
    } else if (path.starts_with(index.sets) &&
               parseEntry(path.substr(index.sets.size()), &target.id, &target.removed)) {
        target.kind = HandleTarget::Kind::Set;
    } else if (auto found = index.volumes.find(path); found != index.volumes.end()) {
        target = HandleTarget();
        target.kind = HandleTarget::Kind::Volume;
        target.volume = &machine.volumes()[found->second];
    }
    return target;
}

}  // namespace

HandleTarget identifyHandle(const sim::Machine& machine, DriverHandle handle) {
    const int fd =
        sim::fdFromHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle)));
    if (fd < 0) {
        return {};
    }
    char procEntry[32] = "/proc/self/fd/";
    constexpr std::size_t kPrefix = sizeof("/proc/self/fd/") - 1;
    *std::to_chars(procEntry + kPrefix, procEntry + sizeof(procEntry) - 1, fd).ptr = '\0';
    char link[PATH_MAX];
    const ssize_t length = readlink(procEntry, link, sizeof(link));
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof(link)) {
        return {};
    }
    const std::string_view path(link, static_cast<std::size_t>(length));

    std::shared_ptr<const HandleIndex> index = indexOf(machine);
    HandleTarget target = classify(*index, machine, path);
    if (target.kind == HandleTarget::Kind::None && mayBeMoved(fd, path)) {
        // A directory made or moved since the index was built resolves
        // differently now; anything else misses again.
        target = classify(*indexOf(machine, index.get()), machine, path);
    }
    if (target.kind != HandleTarget::Kind::None) {
        target.fd = fd;
    }
    return target;
}

std::uint32_t openDirectoryHandle(const std::filesystem::path& directory, DriverHandle* handle) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return sim::win32FromErrno(errno);
    }
    *handle = static_cast<DriverHandle>(reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd)));
    return os::ERROR_SUCCESS;
}

}  // namespace kivsim
