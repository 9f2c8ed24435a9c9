// The built-in machine used when FIKIV_MACHINE is not set.
//
// Its volumes are chosen so that every rule of cache volume selection meets a
// volume it applies to. By free space, largest first:
//   (no path)   3.0 TiB free  reachable through no path: never a cache volume
//   G:          950 GiB free  removable (an external disk): not a fixed disk
//   D:          900 GiB free  the driver reports it disabled (0x4)
//   H:          800 GiB free  RAW: no recognised file system
//   E:          750 GiB free  ReFS, holds an active cache (0x10): still usable,
//                             so the fallback chooses E:
//   C:\mnt\data\ 600 GiB free mounted in a folder of C:, no letter: usable,
//                             found through the mount point
//   C:          41 GiB free   the system volume
//   F:          CD-ROM drive without a disc
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "sim/machine.h"

namespace sim {
namespace {

constexpr std::uint64_t kGiB = 1ull << 30;

nlohmann::json volume(const char* guid, std::initializer_list<const char*> paths, const char* type,
                      const char* fileSystem, const char* label, std::uint64_t totalBytes,
                      std::uint64_t freeBytes, std::uint32_t attributes) {
    nlohmann::json pathList = nlohmann::json::array();
    for (const char* path : paths) {
        pathList.push_back(path);
    }
    return {{"guid", guid},           {"paths", pathList},
            {"type", type},           {"fileSystem", fileSystem},
            {"label", label},         {"totalBytes", totalBytes},
            {"freeBytes", freeBytes}, {"driver", {{"attributes", attributes}, {"value", 0}}}};
}

nlohmann::json defaultDescription() {
    nlohmann::json volumes = nlohmann::json::array();
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a01}", {"C:\\"}, "fixed", "NTFS",
                             "System", 127 * kGiB, 41 * kGiB, 0x1));
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a02}", {"D:\\"}, "fixed", "NTFS",
                             "Data", 1000 * kGiB, 900 * kGiB, 0x4));
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a03}", {"E:\\"}, "fixed", "ReFS",
                             "Archive", 2000 * kGiB, 750 * kGiB, 0x1 | 0x10));
    nlohmann::json cdrom =
        volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a04}", {"F:\\"}, "cdrom", "CDFS", "", 0, 0, 0x0);
    cdrom["mediaPresent"] = false;
    volumes.push_back(cdrom);
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a05}", {"G:\\"}, "removable",
                             "exFAT", "USB", 1000 * kGiB, 950 * kGiB, 0x1));
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a06}", {"H:\\"}, "fixed", "RAW", "",
                             800 * kGiB, 800 * kGiB, 0x0));
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a07}", {"C:\\mnt\\data\\"}, "fixed",
                             "NTFS", "Mounted", 1000 * kGiB, 600 * kGiB, 0x1));
    volumes.push_back(volume("{6e2b1a10-3c4d-4e5f-8a9b-0c1d2e3f4a08}", {}, "fixed", "NTFS",
                             "Hidden", 4000 * kGiB, 3000 * kGiB, 0x1));
    return {{"generator", "fikiv default machine"},
            {"os", {{"major", 10}, {"minor", 0}, {"build", 17763}}},
            {"volumes", volumes}};
}

bool usableDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return !error && ::access(directory.c_str(), W_OK | X_OK) == 0;
}

// A file written by an older build, or edited by hand, is replaced: the
// default machine is always the one built in.
bool holdsTheBuiltInDescription(const std::filesystem::path& file) {
    std::ifstream stream(file);
    if (!stream) {
        return false;
    }
    try {
        return nlohmann::json::parse(stream) == defaultDescription();
    } catch (const std::exception&) {
        return false;
    }
}

// The fallback under /tmp, where anyone may create names: the directory is
// made private (0700) and used only when it is a real directory (no symbolic
// link) owned by this user that no one else may write to.
std::filesystem::path privateFallbackDirectory(const std::filesystem::path& directory) {
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        throw MachineError("default machine: cannot create " + directory.string() + ": " +
                           std::strerror(errno));
    }
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) {
        throw MachineError("default machine: cannot examine " + directory.string() + ": " +
                           std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::getuid() ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw MachineError("default machine: refusing " + directory.string() +
                           ": it is not a private directory of this user (a symbolic link, "
                           "another user's, or writable by others)");
    }
    return directory;
}

}  // namespace

std::filesystem::path Machine::defaultFile() {
    const std::string user = "fikiv-" + std::to_string(::getuid());
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        runtime != nullptr && runtime[0] == '/') {
        const std::filesystem::path directory = std::filesystem::path(runtime) / user / "default";
        if (usableDirectory(directory)) {
            return directory / "machine.json";
        }
    }
    const std::filesystem::path fallback =
        privateFallbackDirectory(std::filesystem::path("/tmp") / user);
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) {
        std::fprintf(stderr,
                     "fikiv: no usable $XDG_RUNTIME_DIR; the default machine is kept under %s\n",
                     fallback.c_str());
    }
    return fallback / "default" / "machine.json";
}

std::filesystem::path Machine::currentFile() {
    if (const char* named = std::getenv("FIKIV_MACHINE"); named != nullptr && named[0] != '\0') {
        return named;
    }
    return defaultFile();
}

void Machine::writeDefault(const std::filesystem::path& file) {
    if (holdsTheBuiltInDescription(file)) {
        return;
    }
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    if (error) {
        throw MachineError("default machine: cannot create " + file.parent_path().string() + ": " +
                           error.message());
    }
    // Written to a private name and renamed, so that a process starting at the
    // same moment reads either no file or the whole one.
    std::filesystem::path temporary = file;
    temporary += ".tmp." + std::to_string(::getpid());
    {
        std::ofstream stream(temporary, std::ios::trunc);
        stream << defaultDescription().dump(2) << "\n";
        stream.close();
        if (!stream) {
            // A full disk, say: leave no half-written file behind.
            std::filesystem::remove(temporary, error);
            throw MachineError("default machine: cannot write " + temporary.string());
        }
    }
    std::filesystem::rename(temporary, file, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        throw MachineError("default machine: cannot write " + file.string());
    }
}

}  // namespace sim
