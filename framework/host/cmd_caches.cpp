// fihost caches: per volume, the snapshot cache files on it with their sizes,
// which snapshot uses each (a file no snapshot uses is a leftover), and the
// volume's free space. The files are found through the os:: file functions,
// the snapshots from the snapshot driver's records.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>

#include "commands.h"
#include "host/driver_state.h"
#include "host/text.h"
#include "machine_view.h"
#include "os/file.h"
#include "os/volume.h"
#include "output.h"
#include "sim/machine.h"

namespace fihost {
namespace {

// Cache file searches stop this many folders below a volume root.
constexpr int kMaxDepth = 16;

struct CacheFile {
    std::string path;  // GUID path
    std::uint64_t bytes = 0;
};

bool isCacheFileName(const std::string& name) {
    const std::string folded = foldCase(name);
    return folded.starts_with("_tarnkivcachefile_") && folded.ends_with(".kiv");
}

// True when `directory` (ending in a backslash) is where another volume is mounted.
bool isMountPoint(const std::u16string& directory) {
    char16_t name[50];
    return os::GetVolumeNameForVolumeMountPointW(directory.c_str(), name, 50) != 0;
}

void findCacheFiles(const std::u16string& directory, int depth, std::vector<CacheFile>& found) {
    os::WIN32_FIND_DATAW entry{};
    os::HANDLE find = os::FindFirstFileW((directory + u"*").c_str(), &entry);
    if (find == os::INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        const std::u16string name = entry.cFileName;
        if ((entry.dwFileAttributes & os::FILE_ATTRIBUTE_DIRECTORY) != 0) {
            const std::u16string below = directory + name + u"\\";
            if (depth < kMaxDepth && !isMountPoint(below)) {
                findCacheFiles(below, depth + 1, found);
            }
        } else if (isCacheFileName(host::toUtf8(name))) {
            found.push_back({host::toUtf8(directory + name),
                             (std::uint64_t{entry.nFileSizeHigh} << 32) | entry.nFileSizeLow});
        }
    } while (os::FindNextFileW(find, &entry));
    os::FindClose(find);
}

int runCaches(const GlobalOptions& options) {
    std::vector<host::ExistingSnapshot> snapshots;
    host::Status read =
        host::readExistingSnapshots(sim::Machine::current().stateDirectory(), &snapshots);
    if (!read.isOk()) {
        std::cerr << "fihost caches: " << read.toString() << "\n";
        return kExitFailed;
    }
    const std::vector<VolumeView> volumes = readVolumes();
    nlohmann::json facts = nlohmann::json::array();
    std::size_t leftovers = 0;
    for (const VolumeView& volume : volumes) {
        if (volume.fileSystem.empty()) {
            continue;
        }
        std::vector<CacheFile> files;
        findCacheFiles(host::toUtf16(volume.guidName), 0, files);
        nlohmann::json fileFacts = nlohmann::json::array();
        std::vector<std::string> lines;
        for (const CacheFile& file : files) {
            auto user = std::find_if(snapshots.begin(), snapshots.end(),
                                     [&](const host::ExistingSnapshot& snapshot) {
                                         return foldCase(snapshot.cacheFile) == foldCase(file.path);
                                     });
            const std::string shown = displayPath(volumes, file.path);
            nlohmann::json fact = {{"path", shown}, {"bytes", file.bytes}};
            std::string line = "  " + shown + "  " + sizeText(file.bytes) + " allocated";
            if (user != snapshots.end()) {
                fact["snapshotVolume"] = user->snapshotName;
                fact["initialMb"] = user->initialCacheMb;
                fact["maximumMb"] = user->maximumCacheMb;
                line += ", at most " + std::to_string(user->maximumCacheMb) + " MB, for " +
                        user->snapshotName;
            } else {
                fact["snapshotVolume"] = nullptr;
                line += ", used by no snapshot (a leftover; it can be deleted)";
                ++leftovers;
            }
            fileFacts.push_back(fact);
            lines.push_back(line);
        }
        facts.push_back(
            {{"volume", volume.displayName()},
             {"freeBytes", volume.freeBytes ? nlohmann::json(*volume.freeBytes) : nlohmann::json()},
             {"cacheFiles", fileFacts}});
        if (options.output->json()) {
            continue;
        }
        std::cout << volume.displayName() << "  "
                  << (volume.freeBytes ? sizeText(*volume.freeBytes) + " free"
                                       : "free space unknown")
                  << ", " << files.size() << (files.size() == 1 ? " cache file" : " cache files")
                  << "\n";
        for (const std::string& line : lines) {
            std::cout << line << "\n";
        }
    }
    options.output->result({{"volumes", facts}, {"leftovers", leftovers}});
    return kExitOk;
}

}  // namespace

CommandRun configureCaches(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost caches             the cache files per volume, and the free space\n"
        "  fihost --json caches      the same as JSON");
    return &runCaches;
}

}  // namespace fihost
