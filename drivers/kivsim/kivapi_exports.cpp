// The 13 entry points of the snapshot driver's API library, answered from the
// simulated machine: argument checks, what each handle stands for, and the
// answer, from the machine's description and the driver state (read without
// the lock by the calls that only read it) or from the machine-wide changes
// of snapshot_sets.h. Handles are descriptors (driver_handles.h); every entry
// point starts and ends in entry_point.h.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

#include "driver_handles.h"
#include "driver_state_file.h"
#include "entry_point.h"
#include "kivsim/kivapi.h"
#include "os/error.h"
#include "sim/errors.h"
#include "sim/machine.h"
#include "sim/text.h"
#include "snapshot_sets.h"

#define KIV_EXPORT extern "C" __attribute__((visibility("default")))

using namespace kivsim;

KIV_EXPORT std::uint32_t KIV_Open(const char* name, std::uint32_t /*access*/,
                                  std::uint32_t /*flags*/, std::uint32_t /*a*/, std::uint32_t /*b*/,
                                  KivHandle* handle) {
    return entryPoint<"KIV_Open">([&]() -> std::uint32_t {
        if (name == nullptr || handle == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine& machine = loadedMachine();
        std::u16string wide;
        if (!sim::fromUtf8Strict(name, &wide)) {
            return os::ERROR_NO_UNICODE_TRANSLATION;
        }
        if (wide.empty()) {
            return os::ERROR_FILE_NOT_FOUND;
        }
        if (const sim::Volume* volume = machine.volumeAtRoot(wide)) {
            if (!volume->mediaPresent) {
                return os::ERROR_NOT_READY;
            }
            // The backing directory is made when the volume is first used.
            const std::uint32_t status = openDirectoryHandle(volume->backingDirectory, handle);
            if (status != os::ERROR_FILE_NOT_FOUND || !machine.prepareBackingDirectory(*volume)) {
                return status;
            }
            return openDirectoryHandle(volume->backingDirectory, handle);
        }
        const SnapshotElement* snapshot = committedDriverState(machine)->findCreatedSnapshot(name);
        if (snapshot == nullptr) {
            return os::ERROR_FILE_NOT_FOUND;
        }
        return openDirectoryHandle(snapshotFolder(driverDirectory(machine), snapshot->snapshotId),
                                   handle);
    });
}

KIV_EXPORT std::uint32_t KIV_Close(KivHandle* handle) {
    return entryPoint<"KIV_Close">([&]() -> std::uint32_t {
        if (handle == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine& machine = loadedMachine();
        // Only descriptors that are driver handles are closed, so a wrong value
        // cannot close some other file of the process.
        const HandleTarget target = anyHandle(machine, *handle);
        std::exception_ptr failure;
        if (target.kind == Kind::Set && !target.removed) {
            // Closing a set that was prepared but never created gives up the
            // preparation and its cache files. The handle is closed whatever
            // becomes of that.
            try {
                giveUpPreparation(machine, target.id);
            } catch (...) {
                failure = std::current_exception();
            }
        }
        if (close(target.fd) != 0) {
            return sim::win32FromErrno(errno);
        }
        *handle = kInvalidKivHandle;
        return failure ? statusOf(failure) : os::ERROR_SUCCESS;
    });
}

// This driver defines no control codes.
KIV_EXPORT std::uint32_t KIV_DeviceIoControl(KivHandle handle, std::uint32_t /*code*/, void* /*in*/,
                                             std::uint32_t /*inSize*/, void* /*out*/,
                                             std::uint32_t /*outSize*/, std::uint32_t* returned) {
    return unsupported<"KIV_DeviceIoControl">(handle, /*argumentsGiven=*/true, returned);
}

// Simulated volumes are folders of files, not block devices: there are no raw
// sectors to read.
KIV_EXPORT std::uint32_t KIV_Read(KivHandle handle, std::uint64_t /*offset*/, void* buffer,
                                  std::uint32_t /*size*/, std::uint32_t* read) {
    return unsupported<"KIV_Read">(handle, buffer != nullptr && read != nullptr, read);
}

KIV_EXPORT std::uint32_t KIV_Prepare(const void* parameters, std::uint16_t count,
                                     std::uint16_t elementSize, KivHandle* snapshot) {
    return entryPoint<"KIV_Prepare">([&]() -> std::uint32_t {
        if (parameters == nullptr || snapshot == nullptr || count == 0) {
            return os::ERROR_INVALID_PARAMETER;
        }
        if (elementSize != sizeof(KivSnapshotParametersRecord)) {
            return os::ERROR_BAD_LENGTH;
        }
        return prepareSet(loadedMachine(),
                          static_cast<const KivSnapshotParametersRecord*>(parameters), count,
                          snapshot);
    });
}

KIV_EXPORT std::uint32_t KIV_Create(KivHandle snapshot, std::uint32_t quiesceWait,
                                    std::uint32_t quiesceTimeout, std::uint64_t reserved) {
    return entryPoint<"KIV_Create">([&]() -> std::uint32_t {
        if (reserved != 0) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine& machine = loadedMachine();
        const HandleTarget set = handleOf(machine, snapshot, {Kind::Set});
        return createSet(machine, set.id, quiesceWait, quiesceTimeout);
    });
}

KIV_EXPORT std::uint32_t KIV_Destroy(KivHandle* snapshot, std::uint32_t flags) {
    return entryPoint<"KIV_Destroy">([&]() -> std::uint32_t {
        if (snapshot == nullptr || flags > 1) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const sim::Machine& machine = loadedMachine();
        const HandleTarget target = handleOf(machine, *snapshot, {Kind::Snapshot, Kind::Set});
        // A set handle destroys every snapshot volume of the set.
        return target.kind == Kind::Set ? destroySet(machine, target.id)
                                        : destroySnapshot(machine, target.id);
    });
}

// Every operation of this driver completes before it returns; there is never
// an asynchronous result to collect or cancel.
KIV_EXPORT std::uint32_t KIV_GetAsyncResult(KivHandle handle, std::uint32_t* result) {
    return unsupported<"KIV_GetAsyncResult">(handle, result != nullptr, nullptr);
}

KIV_EXPORT std::uint32_t KIV_CancelAsyncOperation(KivHandle handle) {
    return unsupported<"KIV_CancelAsyncOperation">(handle, /*argumentsGiven=*/true, nullptr);
}

KIV_EXPORT std::uint32_t KIV_GetVolumeInformation(KivHandle handle, std::uint16_t size,
                                                  KivVolumeInformation* information) {
    return entryPoint<"KIV_GetVolumeInformation">([&]() -> std::uint32_t {
        if (information == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        if (size != sizeof(KivVolumeInformation)) {
            return os::ERROR_BAD_LENGTH;
        }
        const sim::Machine& machine = loadedMachine();
        const HandleTarget target = handleOf(machine, handle, {Kind::Volume, Kind::Snapshot});
        KivVolumeInformation filled{};
        if (target.kind == Kind::Snapshot) {
            const SnapshotSet* set = nullptr;
            if (committedDriverState(machine)->findElement(target.id, &set) == nullptr ||
                !set->created) {
                return os::ERROR_INVALID_HANDLE;
            }
            filled.attributes = KIV_ATTRIBUTE_SNAPSHOT;
        } else {
            filled.attributes = target.volume->driverAttributes;
            filled.value = target.volume->driverValue;
            // A volume that holds the cache file of a live snapshot says so.
            // With a state that cannot be read the volume is still described,
            // as the machine knows it.
            try {
                if (committedDriverState(machine)->holdsActiveCache(target.volume->guidName)) {
                    filled.attributes |= KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE;
                }
            } catch (const DriverStateError& unusable) {
                reportUnusableState(unusable.what());
            }
        }
        std::memcpy(information, &filled, sizeof(filled));
        return os::ERROR_SUCCESS;
    });
}

KIV_EXPORT std::uint32_t KIV_GenerateVolumeName(std::uint16_t kind, char** name) {
    return entryPoint<"KIV_GenerateVolumeName">([&]() -> std::uint32_t {
        // Kind 2 is the only kind of name this driver makes: a device name
        // below GLOBALROOT.
        if (name == nullptr || kind != 2) {
            return os::ERROR_INVALID_PARAMETER;
        }
        const std::string text = nextVolumeName(loadedMachine());
        char* copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy == nullptr) {
            return os::ERROR_NOT_ENOUGH_MEMORY;
        }
        std::memcpy(copy, text.c_str(), text.size() + 1);
        *name = copy;
        return os::ERROR_SUCCESS;
    });
}

// The cache files hold no copied blocks here, so there is no map.
KIV_EXPORT std::uint32_t KIV_GetCacheMap(KivHandle handle, void* buffer, std::uint32_t /*size*/,
                                         std::uint32_t* returned) {
    return unsupported<"KIV_GetCacheMap">(handle, buffer != nullptr && returned != nullptr,
                                          returned);
}

KIV_EXPORT std::uint32_t KIV_FreeResource(void* resource) {
    return entryPoint<"KIV_FreeResource">([&]() -> std::uint32_t {
        if (resource == nullptr) {
            return os::ERROR_INVALID_PARAMETER;
        }
        char** text = static_cast<char**>(resource);
        std::free(*text);
        *text = nullptr;
        return os::ERROR_SUCCESS;
    });
}

// Each export has the type its callers bind it with.
static_assert(std::is_same_v<decltype(&KIV_Open), KIV_Open_t>);
static_assert(std::is_same_v<decltype(&KIV_Close), KIV_Close_t>);
static_assert(std::is_same_v<decltype(&KIV_DeviceIoControl), KIV_DeviceIoControl_t>);
static_assert(std::is_same_v<decltype(&KIV_Read), KIV_Read_t>);
static_assert(std::is_same_v<decltype(&KIV_Prepare), KIV_Prepare_t>);
static_assert(std::is_same_v<decltype(&KIV_Create), KIV_Create_t>);
static_assert(std::is_same_v<decltype(&KIV_Destroy), KIV_Destroy_t>);
static_assert(std::is_same_v<decltype(&KIV_GetAsyncResult), KIV_GetAsyncResult_t>);
static_assert(std::is_same_v<decltype(&KIV_CancelAsyncOperation), KIV_CancelAsyncOperation_t>);
static_assert(std::is_same_v<decltype(&KIV_GetVolumeInformation), KIV_GetVolumeInformation_t>);
static_assert(std::is_same_v<decltype(&KIV_GenerateVolumeName), KIV_GenerateVolumeName_t>);
static_assert(std::is_same_v<decltype(&KIV_GetCacheMap), KIV_GetCacheMap_t>);
static_assert(std::is_same_v<decltype(&KIV_FreeResource), KIV_FreeResource_t>);
