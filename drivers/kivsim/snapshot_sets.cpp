#include "snapshot_sets.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "driver_store.h"
#include "os/error.h"
#include "os/types.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/text.h"

namespace kivsim {
namespace {

constexpr std::uint32_t ERROR_SHARING_VIOLATION = 32;
constexpr std::uint64_t kMegabyte = 1ull << 20;

// Folded "<volume GUID>\<relative path>" of a cache file.
std::string cacheKeyOf(const sim::ResolvedPath& resolved) {
    return sim::lowerAscii(
        sim::toUtf8(sim::withTrailingBackslash(resolved.volume->guidName) + resolved.relative));
}

bool sameVolume(const std::string& cacheKey, const sim::Volume& volume) {
    return cacheKey.rfind(sim::lowerAscii(sim::toUtf8(sim::withTrailingBackslash(volume.guidName))),
                          0) == 0;
}

void removeFile(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

// One element of a KIV_Prepare call, checked and resolved.
struct PreparedElement {
    SnapshotElement element;
    const sim::Volume* cacheVolume = nullptr;
};

std::uint32_t checkElement(const sim::Machine& machine, const KivSnapshotParametersRecord& record,
                           PreparedElement* out) {
    const HandleTarget source = identifyHandle(machine, record.SourceVolumeObject);
    if (source.kind != HandleTarget::Kind::Volume) {
        return os::ERROR_INVALID_HANDLE;
    }
    if (record.SnapshotVolumeName == nullptr || record.SnapshotVolumeName[0] == '\0' ||
        record.CacheFileName == nullptr || record.CacheFileName[0] == '\0') {
        return os::ERROR_INVALID_PARAMETER;
    }
    if (record.InitialCacheFileSize > record.MaximumCacheFileSize) {
        return os::ERROR_INVALID_PARAMETER;
    }
    std::u16string snapshotName;
    std::u16string cachePath;
    if (!sim::fromUtf8Strict(record.SnapshotVolumeName, &snapshotName) ||
        !sim::fromUtf8Strict(record.CacheFileName, &cachePath)) {
        return os::ERROR_NO_UNICODE_TRANSLATION;
    }
    const std::optional<sim::ResolvedPath> resolved = machine.resolve(cachePath);
    if (!resolved || resolved->relative.empty()) {
        return os::ERROR_PATH_NOT_FOUND;
    }
    if (!resolved->volume->mediaPresent) {
        return os::ERROR_NOT_READY;
    }
    std::error_code error;
    if (!std::filesystem::is_directory(resolved->hostPath.parent_path(), error)) {
        return os::ERROR_PATH_NOT_FOUND;
    }
    if (std::filesystem::is_directory(resolved->hostPath, error)) {
        return os::ERROR_ACCESS_DENIED;  // a folder cannot hold a cache
    }
    out->cacheVolume = resolved->volume;
    out->element.snapshotName = record.SnapshotVolumeName;
    out->element.sourceGuid = sim::toUtf8(source.volume->guidName);
    out->element.cacheFileName = record.CacheFileName;
    out->element.cacheKey = cacheKeyOf(*resolved);
    out->element.cacheHostPath = resolved->hostPath.string();
    out->element.initialSizeMb = record.InitialCacheFileSize;
    out->element.maximumSizeMb = record.MaximumCacheFileSize;
    return os::ERROR_SUCCESS;
}

// Refuses a cache file or snapshot name that a live set or an earlier element
// of the same call already uses, and initial sizes that do not fit the
// volume's free space next to the caches already on it.
std::uint32_t checkAgainstLiveSets(const DriverState& state,
                                   const std::vector<PreparedElement>& elements) {
    for (std::size_t i = 0; i < elements.size(); ++i) {
        const SnapshotElement& candidate = elements[i].element;
        const std::string name = comparableSnapshotName(candidate.snapshotName);
        std::uint64_t committed = 0;
        for (const SnapshotSet& set : state.sets) {
            for (const SnapshotElement& live : set.elements) {
                if (live.cacheKey == candidate.cacheKey) {
                    return ERROR_SHARING_VIOLATION;
                }
                if (comparableSnapshotName(live.snapshotName) == name) {
                    return os::ERROR_ALREADY_EXISTS;
                }
                if (sameVolume(live.cacheKey, *elements[i].cacheVolume)) {
                    committed += live.initialSizeMb * kMegabyte;
                }
            }
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (elements[j].element.cacheKey == candidate.cacheKey) {
                return ERROR_SHARING_VIOLATION;
            }
            if (comparableSnapshotName(elements[j].element.snapshotName) == name) {
                return os::ERROR_ALREADY_EXISTS;
            }
            if (elements[j].cacheVolume == elements[i].cacheVolume) {
                committed += elements[j].element.initialSizeMb * kMegabyte;
            }
        }
        const std::uint64_t wanted = candidate.initialSizeMb * kMegabyte;
        const std::uint64_t free = elements[i].cacheVolume->freeBytes;
        if (committed > free || wanted > free - committed) {
            return os::ERROR_DISK_FULL;
        }
    }
    return os::ERROR_SUCCESS;
}

// Makes a cache file of its initial size (sparse). A file that is already
// there is not the driver's (live caches were refused before) and is left
// alone: ERROR_FILE_EXISTS.
std::uint32_t createCacheFile(const SnapshotElement& element) {
    const int fd =
        open(element.cacheHostPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return sim::win32FromErrno(errno);
    }
    std::uint32_t status = os::ERROR_SUCCESS;
    if (ftruncate(fd, static_cast<off_t>(element.initialSizeMb * kMegabyte)) != 0) {
        status = sim::win32FromErrno(errno);
    }
    close(fd);
    if (status != os::ERROR_SUCCESS) {
        removeFile(element.cacheHostPath);
    }
    return status;
}

// Copies what the source volume holds now into the snapshot volume's folder,
// so that the snapshot keeps showing the volume as it was when it was made,
// whatever happens to the source afterwards. Cache files of live snapshots
// belong to the driver and are left out; so are symbolic links.
std::uint32_t copyVolumeImage(const std::filesystem::path& from, const std::filesystem::path& to,
                              const std::vector<std::string>& cacheFiles) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator it(from, fs::directory_options::skip_permission_denied, error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const fs::path& source = it->path();
        if (std::find(cacheFiles.begin(), cacheFiles.end(), source.string()) != cacheFiles.end()) {
            continue;
        }
        const fs::path target = to / source.lexically_relative(from);
        if (it->is_symlink(error)) {
            continue;
        }
        if (it->is_directory(error)) {
            fs::create_directories(target, error);
        } else if (it->is_regular_file(error)) {
            fs::copy_file(source, target, fs::copy_options::overwrite_existing, error);
        }
        if (error) {
            break;
        }
    }
    return error ? sim::win32FromErrno(error.value()) : os::ERROR_SUCCESS;
}

}  // namespace

std::uint32_t prepareSet(const sim::Machine& machine, const KivSnapshotParametersRecord* records,
                         std::uint16_t count, DriverHandle* handle) {
    std::vector<PreparedElement> elements(count);
    for (std::uint16_t i = 0; i < count; ++i) {
        if (std::uint32_t status = checkElement(machine, records[i], &elements[i])) {
            return status;
        }
    }

    DriverStore store(machine.stateDirectory());
    store.dropAbandonedSets();
    if (std::uint32_t status = checkAgainstLiveSets(store.state(), elements)) {
        store.commit();
        return status;
    }
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (std::uint32_t status = createCacheFile(elements[i].element)) {
            for (std::size_t k = 0; k < i; ++k) {
                removeFile(elements[k].element.cacheHostPath);
            }
            store.commit();
            return status;
        }
    }
    SnapshotSet set;
    set.id = store.state().nextId();
    set.ownerPid = getpid();
    for (PreparedElement& prepared : elements) {
        prepared.element.snapshotId = store.state().nextId();
        set.elements.push_back(prepared.element);
    }
    const std::filesystem::path folder = store.setPath(set.id);
    const auto takeBack = [&] {
        for (const PreparedElement& prepared : elements) {
            removeFile(prepared.element.cacheHostPath);
        }
        std::error_code ignored;
        std::filesystem::remove(folder, ignored);
    };
    std::error_code error;
    std::filesystem::create_directory(folder, error);
    DriverHandle made = kInvalidKivHandle;
    const std::uint32_t status =
        error ? sim::win32FromErrno(error.value()) : openDirectoryHandle(folder, &made);
    if (status != os::ERROR_SUCCESS) {
        takeBack();
        store.commit();
        return status;
    }
    store.state().sets.push_back(std::move(set));
    try {
        store.commit();
    } catch (...) {
        // The set was never recorded: take back what was made for it.
        close(sim::fdFromHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(made))));
        takeBack();
        throw;
    }
    *handle = made;
    return os::ERROR_SUCCESS;
}

std::uint32_t createSet(const sim::Machine& machine, std::uint64_t setId, std::uint32_t quiesceWait,
                        std::uint32_t quiesceTimeout) {
    DriverStore store(machine.stateDirectory());
    SnapshotSet* set = store.state().findSet(setId);
    if (set == nullptr) {
        return os::ERROR_INVALID_HANDLE;
    }
    if (set->created) {
        return os::ERROR_ALREADY_EXISTS;
    }
    // Nothing is quiesced here: the values are kept with the set so that
    // tools can show what the snapshot was taken with.
    set->quiesceWait = quiesceWait;
    set->quiesceTimeout = quiesceTimeout;
    std::vector<std::string> cacheFiles;
    for (const SnapshotSet& live : store.state().sets) {
        for (const SnapshotElement& element : live.elements) {
            cacheFiles.push_back(element.cacheHostPath);
        }
    }
    for (const SnapshotElement& element : set->elements) {
        std::u16string sourceName;
        sim::fromUtf8Strict(element.sourceGuid, &sourceName);
        const sim::Volume* source = machine.volumeAtRoot(sourceName);
        const std::filesystem::path image = store.snapshotPath(element.snapshotId);
        std::error_code error;
        std::filesystem::create_directory(image, error);
        std::uint32_t status = os::ERROR_SUCCESS;
        if (error) {
            status = sim::win32FromErrno(error.value());
        } else if (source == nullptr) {
            status = os::ERROR_FILE_NOT_FOUND;  // the source left the machine
        } else {
            status = copyVolumeImage(source->backingDirectory, image, cacheFiles);
        }
        if (status != os::ERROR_SUCCESS) {
            for (const SnapshotElement& made : set->elements) {
                std::filesystem::remove_all(store.snapshotPath(made.snapshotId), error);
            }
            return status;
        }
    }
    set->created = true;
    store.commit();
    return os::ERROR_SUCCESS;
}

std::uint32_t destroySet(const sim::Machine& machine, std::uint64_t setId) {
    DriverStore store(machine.stateDirectory());
    if (store.state().findSet(setId) == nullptr) {
        return os::ERROR_INVALID_HANDLE;
    }
    store.removeSet(setId);
    store.commit();
    return os::ERROR_SUCCESS;
}

std::uint32_t destroySnapshot(const sim::Machine& machine, std::uint64_t snapshotId) {
    DriverStore store(machine.stateDirectory());
    const SnapshotSet* owner = nullptr;
    const SnapshotElement* element = store.state().findElement(snapshotId, &owner);
    if (element == nullptr || !owner->created) {
        return os::ERROR_INVALID_HANDLE;
    }
    removeFile(element->cacheHostPath);
    std::error_code ignored;
    std::filesystem::remove_all(store.snapshotPath(snapshotId), ignored);
    SnapshotSet* set = store.state().findSet(owner->id);
    std::erase_if(set->elements,
                  [&](const SnapshotElement& e) { return e.snapshotId == snapshotId; });
    if (set->elements.empty()) {
        store.removeSet(set->id);
    }
    store.commit();
    return os::ERROR_SUCCESS;
}

void giveUpPreparation(const sim::Machine& machine, std::uint64_t setId) {
    DriverStore store(machine.stateDirectory());
    const SnapshotSet* set = store.state().findSet(setId);
    if (set != nullptr && !set->created) {
        store.removeSet(setId);
        store.commit();
    }
}

std::string nextVolumeName(const sim::Machine& machine) {
    DriverStore store(machine.stateDirectory());
    std::string name =
        "GLOBALROOT\\Device\\KivSnapshot" + std::to_string(store.state().nextNameNumber());
    store.commit();
    return name;
}

}  // namespace kivsim
