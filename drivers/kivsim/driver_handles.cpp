#include "driver_handles.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "os/error.h"
#include "os/types.h"
#include "sim/errors.h"
#include "sim/handles.h"

namespace kivsim {
namespace {

std::filesystem::path canonicalOrSelf(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::path result = std::filesystem::weakly_canonical(path, ignored);
    return result.empty() ? path : result;
}

// "<number>" or "<number> (deleted)", the way the kernel names a removed folder.
bool parseEntry(const std::string& name, std::uint64_t* id, bool* removed) {
    std::string_view text(name);
    constexpr std::string_view kDeleted = " (deleted)";
    *removed = false;
    if (text.size() > kDeleted.size() && text.substr(text.size() - kDeleted.size()) == kDeleted) {
        text.remove_suffix(kDeleted.size());
        *removed = true;
    }
    if (text.empty()) {
        return false;
    }
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *id);
    return error == std::errc() && end == text.data() + text.size() && *id != 0;
}

}  // namespace

HandleTarget identifyHandle(const sim::Machine& machine, DriverHandle handle) {
    HandleTarget target;
    const int fd =
        sim::fdFromHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle)));
    if (fd < 0) {
        return target;
    }
    char link[PATH_MAX];
    const std::string procEntry = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(procEntry.c_str(), link, sizeof(link) - 1);
    if (length <= 0) {
        return target;
    }
    const std::filesystem::path path(std::string(link, static_cast<std::size_t>(length)));

    const std::filesystem::path driver = canonicalOrSelf(machine.stateDirectory() / "driver");
    const std::filesystem::path parent = path.parent_path();
    std::uint64_t id = 0;
    bool removed = false;
    if (parent == driver / "snapshots" && parseEntry(path.filename().string(), &id, &removed)) {
        target.kind = HandleTarget::Kind::Snapshot;
    } else if (parent == driver / "sets" && parseEntry(path.filename().string(), &id, &removed)) {
        target.kind = HandleTarget::Kind::Set;
    } else {
        for (const sim::Volume& volume : machine.volumes()) {
            if (canonicalOrSelf(volume.backingDirectory) == path) {
                target.kind = HandleTarget::Kind::Volume;
                target.volume = &volume;
                break;
            }
        }
    }
    if (target.kind != HandleTarget::Kind::None) {
        target.id = id;
        target.removed = removed;
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
