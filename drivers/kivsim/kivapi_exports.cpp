// The 13 entry points of the snapshot driver's API library, answered from the
// simulated machine. Snapshot sets and snapshot volumes live in the
// machine-wide driver state (driver_store.h), so every process of the machine
// sees the same snapshots; handles are descriptors (driver_handles.h).
//
// Every entry point first asks the test hooks for a scripted answer
// (sim::takeFault with its own name), then checks its arguments. Nothing
// throws across the boundary: unexpected failures become Win32 statuses.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <system_error>

#include "driver_handles.h"
#include "driver_store.h"
#include "kiv/cachefile/kivapi.h"
#include "os/error.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/machine.h"
#include "sim/text.h"

#define KIV_EXPORT extern "C" __attribute__((visibility("default")))

namespace kivsim {
namespace {

constexpr std::uint32_t kElementSize = sizeof(KivSnapshotParametersRecord);
constexpr std::uint32_t ERROR_SHARING_VIOLATION = 32;
constexpr std::uint32_t ERROR_GEN_FAILURE = 31;
constexpr std::uint64_t kMegabyte = 1ull << 20;

using Kind = HandleTarget::Kind;

// Runs an entry point's body after the scripted answer, if any; exceptions
// become statuses.
template <class Body>
std::uint32_t entryPoint(const char* name, Body&& body) {
    std::uint32_t scripted = 0;
    if (sim::takeFault(name, &scripted)) {
        return scripted;
    }
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return os::ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::system_error& failure) {
        if (failure.code().category() == std::generic_category() ||
            failure.code().category() == std::system_category()) {
            return sim::win32FromErrno(failure.code().value());
        }
        return ERROR_GEN_FAILURE;
    } catch (...) {
        return ERROR_GEN_FAILURE;
    }
}

// Snapshot volume names compare without case, without trailing backslashes
// and with "\\.\" and "\\?\" taken as the same prefix.
std::string comparableName(std::string_view name) {
    std::string text = sim::lowerAscii(name);
    if (text.rfind("\\\\.\\", 0) == 0) {
        text[2] = '?';
    }
    text.resize(sim::withoutTrailingBackslashes(text).size());
    return text;
}

const SnapshotElement* findElement(DriverStore& store, std::uint64_t snapshotId,
                                   SnapshotSet** owner = nullptr) {
    for (SnapshotSet& set : store.sets()) {
        for (const SnapshotElement& element : set.elements) {
            if (element.snapshotId == snapshotId) {
                if (owner != nullptr) {
                    *owner = &set;
                }
                return &element;
            }
        }
    }
    return nullptr;
}

SnapshotSet* findSet(DriverStore& store, std::uint64_t id) {
    for (SnapshotSet& set : store.sets()) {
        if (set.id == id) {
            return &set;
        }
    }
    return nullptr;
}

// A created snapshot volume of that name, or null.
const SnapshotElement* findSnapshotByName(DriverStore& store, std::string_view name) {
    const std::string wanted = comparableName(name);
    for (const SnapshotSet& set : store.sets()) {
        if (!set.created) {
            continue;
        }
        for (const SnapshotElement& element : set.elements) {
            if (comparableName(element.snapshotName) == wanted) {
                return &element;
            }
        }
    }
    return nullptr;
}

// Folded "<volume GUID>\<relative path>" of a cache file.
std::string cacheKeyOf(const sim::ResolvedPath& resolved) {
    return sim::lowerAscii(
        sim::toUtf8(sim::withTrailingBackslash(resolved.volume->guidName) + resolved.relative));
}

bool sameVolume(const std::string& cacheKey, const sim::Volume& volume) {
    return cacheKey.rfind(sim::lowerAscii(sim::toUtf8(sim::withTrailingBackslash(volume.guidName))),
                          0) == 0;
}

// One element of a KIV_Prepare call, checked and resolved.
struct PreparedElement {
    SnapshotElement element;
    const sim::Volume* cacheVolume = nullptr;
};

std::uint32_t checkElement(const sim::Machine& machine, const KivSnapshotParametersRecord& record,
                           PreparedElement* out) {
    const HandleTarget source = identifyHandle(machine, record.SourceVolumeObject);
    if (source.kind != Kind::Volume) {
        return os::ERROR_INVALID_HANDLE;
    }
    if (record.SnapshotVolumeName == nullptr || record.SnapshotVolumeName[0] == '\0' ||
        record.CacheFileName == nullptr || record.CacheFileName[0] == '\0') {
        return os::ERROR_INVALID_PARAMETER;
    }
    if (record.InitialCacheFileSize > record.MaximumCacheFileSize) {
        return os::ERROR_INVALID_PARAMETER;
    }
    std::u16string cachePath;
    if (!sim::fromUtf8Strict(record.CacheFileName, &cachePath)) {
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
std::uint32_t checkAgainstLiveSets(DriverStore& store,
                                   const std::vector<PreparedElement>& elements) {
    for (std::size_t i = 0; i < elements.size(); ++i) {
        const SnapshotElement& candidate = elements[i].element;
        const std::string name = comparableName(candidate.snapshotName);
        std::uint64_t committed = 0;
        for (const SnapshotSet& set : store.sets()) {
            for (const SnapshotElement& live : set.elements) {
                if (live.cacheKey == candidate.cacheKey) {
                    return ERROR_SHARING_VIOLATION;
                }
                if (comparableName(live.snapshotName) == name) {
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
            if (comparableName(elements[j].element.snapshotName) == name) {
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
        std::error_code ignored;
        std::filesystem::remove(element.cacheHostPath, ignored);
    }
    return status;
}

void removeFile(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

const sim::Machine* machineOrNull() {
    return sim::Machine::currentOrNull();
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
}  // namespace kivsim

using namespace kivsim;

KIV_EXPORT std::uint32_t KIV_Open(const char* name, std::uint32_t /*access*/,
                                  std::uint32_t /*flags*/, std::uint32_t /*a*/, std::uint32_t /*b*/,
                                  KivHandle* handle) {
    return entryPoint("KIV_Open", [&]() -> std::uint32_t {
        if (name == nullptr || handle == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        std::u16string wide;
        if (!sim::fromUtf8Strict(name, &wide)) {
            return os::ERROR_NO_UNICODE_TRANSLATION;
        }
        if (wide.empty()) {
            return os::ERROR_FILE_NOT_FOUND;
        }
        if (const sim::Volume* volume = machine->volumeAtRoot(wide)) {
            if (!volume->mediaPresent) {
                return os::ERROR_NOT_READY;
            }
            machine->prepareVolume(*volume);
            return openDirectoryHandle(volume->backingDirectory, handle);
        }
        DriverStore store(machine->stateDirectory());
        const SnapshotElement* snapshot = findSnapshotByName(store, name);
        if (snapshot == nullptr) {
            return os::ERROR_FILE_NOT_FOUND;
        }
        return openDirectoryHandle(store.snapshotPath(snapshot->snapshotId), handle);
    });
}

KIV_EXPORT std::uint32_t KIV_Close(KivHandle* handle) {
    return entryPoint("KIV_Close", [&]() -> std::uint32_t {
        if (handle == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        // Only descriptors that are driver handles are closed, so a wrong value
        // cannot close some other file of the process.
        const HandleTarget target = identifyHandle(*machine, *handle);
        if (target.kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        if (target.kind == Kind::Set && !target.removed) {
            // Closing a set that was prepared but never created gives up the
            // preparation and its cache files.
            DriverStore store(machine->stateDirectory());
            SnapshotSet* set = findSet(store, target.id);
            if (set != nullptr && !set->created) {
                store.removeSet(target.id);
                store.commit();
            }
        }
        if (close(target.fd) != 0) {
            return sim::win32FromErrno(errno);
        }
        *handle = kInvalidKivHandle;
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_DeviceIoControl(KivHandle handle, std::uint32_t /*code*/, void* /*in*/,
                                             std::uint32_t /*inSize*/, void* /*out*/,
                                             std::uint32_t /*outSize*/, std::uint32_t* returned) {
    return entryPoint("KIV_DeviceIoControl", [&]() -> std::uint32_t {
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        if (identifyHandle(*machine, handle).kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        if (returned != nullptr) {
            *returned = 0;
        }
        // This driver defines no control codes.
        return os::ERROR_NOT_SUPPORTED;
    });
}

KIV_EXPORT std::uint32_t KIV_Read(KivHandle handle, std::uint64_t /*offset*/, void* buffer,
                                  std::uint32_t /*size*/, std::uint32_t* read) {
    return entryPoint("KIV_Read", [&]() -> std::uint32_t {
        if (buffer == nullptr || read == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        if (identifyHandle(*machine, handle).kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        *read = 0;
        // Simulated volumes are folders of files, not block devices: there are
        // no raw sectors to read.
        return os::ERROR_NOT_SUPPORTED;
    });
}

KIV_EXPORT std::uint32_t KIV_Prepare(const void* parameters, std::uint16_t count,
                                     std::uint16_t elementSize, KivHandle* snapshot) {
    return entryPoint("KIV_Prepare", [&]() -> std::uint32_t {
        if (parameters == nullptr || snapshot == nullptr || count == 0) {
            return os::ERROR_INVALID_PARAMETER;
        }
        if (elementSize != kElementSize) {
            return os::ERROR_BAD_LENGTH;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        const auto* records = static_cast<const KivSnapshotParametersRecord*>(parameters);
        std::vector<PreparedElement> elements(count);
        for (std::uint16_t i = 0; i < count; ++i) {
            if (std::uint32_t status = checkElement(*machine, records[i], &elements[i])) {
                return status;
            }
        }

        DriverStore store(machine->stateDirectory());
        store.dropAbandonedSets();
        if (std::uint32_t status = checkAgainstLiveSets(store, elements)) {
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
        set.id = store.nextId();
        set.ownerPid = getpid();
        for (PreparedElement& prepared : elements) {
            prepared.element.snapshotId = store.nextId();
            set.elements.push_back(prepared.element);
        }
        std::error_code error;
        std::filesystem::create_directory(store.setPath(set.id), error);
        KivHandle handle = kInvalidKivHandle;
        std::uint32_t status = error ? sim::win32FromErrno(error.value())
                                     : openDirectoryHandle(store.setPath(set.id), &handle);
        if (status != os::ERROR_SUCCESS) {
            for (const PreparedElement& prepared : elements) {
                removeFile(prepared.element.cacheHostPath);
            }
            std::filesystem::remove(store.setPath(set.id), error);
            store.commit();
            return status;
        }
        store.sets().push_back(std::move(set));
        try {
            store.commit();
        } catch (...) {
            // The set was never recorded: take back what was made for it.
            KivHandle unrecorded = handle;
            close(sim::fdFromHandle(
                reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(unrecorded))));
            for (const PreparedElement& prepared : elements) {
                removeFile(prepared.element.cacheHostPath);
            }
            std::filesystem::remove(store.setPath(store.sets().back().id), error);
            throw;
        }
        *snapshot = handle;
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_Create(KivHandle snapshot, std::uint32_t quiesceWait,
                                    std::uint32_t quiesceTimeout, std::uint64_t reserved) {
    return entryPoint("KIV_Create", [&]() -> std::uint32_t {
        if (reserved != 0) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        const HandleTarget target = identifyHandle(*machine, snapshot);
        if (target.kind != Kind::Set || target.removed) {
            return os::ERROR_INVALID_HANDLE;
        }
        DriverStore store(machine->stateDirectory());
        SnapshotSet* set = findSet(store, target.id);
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
        for (const SnapshotSet& live : store.sets()) {
            for (const SnapshotElement& element : live.elements) {
                cacheFiles.push_back(element.cacheHostPath);
            }
        }
        for (const SnapshotElement& element : set->elements) {
            std::u16string sourceName;
            sim::fromUtf8Strict(element.sourceGuid, &sourceName);
            const sim::Volume* source = machine->volumeAtRoot(sourceName);
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
    });
}

KIV_EXPORT std::uint32_t KIV_Destroy(KivHandle* snapshot, std::uint32_t flags) {
    return entryPoint("KIV_Destroy", [&]() -> std::uint32_t {
        if (snapshot == nullptr || flags > 1) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        const HandleTarget target = identifyHandle(*machine, *snapshot);
        if ((target.kind != Kind::Snapshot && target.kind != Kind::Set) || target.removed) {
            return os::ERROR_INVALID_HANDLE;
        }
        DriverStore store(machine->stateDirectory());
        if (target.kind == Kind::Set) {
            // The whole set: every snapshot volume of it and their caches.
            if (findSet(store, target.id) == nullptr) {
                return os::ERROR_INVALID_HANDLE;
            }
            store.removeSet(target.id);
            store.commit();
            return os::ERROR_SUCCESS;
        }
        SnapshotSet* set = nullptr;
        const SnapshotElement* element = findElement(store, target.id, &set);
        if (element == nullptr || !set->created) {
            return os::ERROR_INVALID_HANDLE;
        }
        removeFile(element->cacheHostPath);
        std::error_code ignored;
        std::filesystem::remove_all(store.snapshotPath(element->snapshotId), ignored);
        std::erase_if(set->elements,
                      [&](const SnapshotElement& e) { return e.snapshotId == target.id; });
        if (set->elements.empty()) {
            store.removeSet(set->id);
        }
        store.commit();
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_GetAsyncResult(KivHandle handle, std::uint32_t* result) {
    return entryPoint("KIV_GetAsyncResult", [&]() -> std::uint32_t {
        if (result == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        if (identifyHandle(*machine, handle).kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        // Every operation of this driver completes before it returns; there
        // is never an asynchronous result to collect.
        return os::ERROR_NOT_SUPPORTED;
    });
}

KIV_EXPORT std::uint32_t KIV_CancelAsyncOperation(KivHandle handle) {
    return entryPoint("KIV_CancelAsyncOperation", [&]() -> std::uint32_t {
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        if (identifyHandle(*machine, handle).kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        return os::ERROR_NOT_SUPPORTED;
    });
}

KIV_EXPORT std::uint32_t KIV_GetVolumeInformation(KivHandle handle, std::uint16_t size,
                                                  KivVolumeInformation* information) {
    return entryPoint("KIV_GetVolumeInformation", [&]() -> std::uint32_t {
        if (information == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        if (size != sizeof(KivVolumeInformation)) {
            return os::ERROR_BAD_LENGTH;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        const HandleTarget target = identifyHandle(*machine, handle);
        if ((target.kind != Kind::Volume && target.kind != Kind::Snapshot) || target.removed) {
            return os::ERROR_INVALID_HANDLE;
        }
        DriverStore store(machine->stateDirectory());
        KivVolumeInformation filled{};
        if (target.kind == Kind::Snapshot) {
            SnapshotSet* set = nullptr;
            if (findElement(store, target.id, &set) == nullptr || !set->created) {
                return os::ERROR_INVALID_HANDLE;
            }
            filled.attributes = KIV_ATTRIBUTE_SNAPSHOT;
        } else {
            filled.attributes = target.volume->driverAttributes;
            filled.value = target.volume->driverValue;
            // A volume that holds the cache file of a live snapshot says so.
            for (const SnapshotSet& set : store.sets()) {
                for (const SnapshotElement& element : set.elements) {
                    if (set.created && sameVolume(element.cacheKey, *target.volume)) {
                        filled.attributes |= KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE;
                    }
                }
            }
        }
        std::memcpy(information, &filled, sizeof(filled));
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_GenerateVolumeName(std::uint16_t kind, char** name) {
    return entryPoint("KIV_GenerateVolumeName", [&]() -> std::uint32_t {
        // Kind 2 is the only kind of name this driver makes: a device name
        // below GLOBALROOT.
        if (name == nullptr || kind != 2) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        DriverStore store(machine->stateDirectory());
        const std::string text =
            "GLOBALROOT\\Device\\KivSnapshot" + std::to_string(store.nextNameNumber());
        store.commit();
        char* copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy == nullptr) {
            return os::ERROR_NOT_ENOUGH_MEMORY;
        }
        std::memcpy(copy, text.c_str(), text.size() + 1);
        *name = copy;
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_GetCacheMap(KivHandle handle, void* buffer, std::uint32_t /*size*/,
                                         std::uint32_t* returned) {
    return entryPoint("KIV_GetCacheMap", [&]() -> std::uint32_t {
        if (buffer == nullptr || returned == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine* machine = machineOrNull();
        if (machine == nullptr) {
            return os::ERROR_NOT_READY;
        }
        if (identifyHandle(*machine, handle).kind == Kind::None) {
            return os::ERROR_INVALID_HANDLE;
        }
        *returned = 0;
        // The cache files hold no copied blocks here, so there is no map.
        return os::ERROR_NOT_SUPPORTED;
    });
}

KIV_EXPORT std::uint32_t KIV_FreeResource(void* resource) {
    return entryPoint("KIV_FreeResource", [&]() -> std::uint32_t {
        if (resource == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        char** text = static_cast<char**>(resource);
        std::free(*text);
        *text = nullptr;
        return os::ERROR_SUCCESS;
    });
}

// Does not compile when an export drifts from the signature or the table
// position that callers bind it with.
[[maybe_unused]] static constexpr KivApi kExportTable = {
    &KIV_Open,
    &KIV_Close,
    &KIV_DeviceIoControl,
    &KIV_Read,
    &KIV_Prepare,
    &KIV_Create,
    &KIV_Destroy,
    &KIV_GetAsyncResult,
    &KIV_CancelAsyncOperation,
    &KIV_GetVolumeInformation,
    &KIV_GenerateVolumeName,
    &KIV_GetCacheMap,
    &KIV_FreeResource,
    nullptr,
};
