#include "fiprovlib/volumeiterator/volumeiterator.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "os/error.h"
#include "os/module.h"
#include "os/types.h"
#include "os/version.h"
#include "os/volume.h"
#include "path_helper.h"

namespace {

constexpr os::DWORD kNameBufferLength = 260;
// A volume GUID path is 49 characters; the system wants room for 50.
constexpr os::DWORD kGuidBufferLength = 51;

using FindFirstVolumeW_t = decltype(&os::FindFirstVolumeW);
using FindNextVolumeW_t = decltype(&os::FindNextVolumeW);
using FindVolumeClose_t = decltype(&os::FindVolumeClose);
using FindFirstVolumeMountPointW_t = decltype(&os::FindFirstVolumeMountPointW);
using FindNextVolumeMountPointW_t = decltype(&os::FindNextVolumeMountPointW);
using FindVolumeMountPointClose_t = decltype(&os::FindVolumeMountPointClose);
using GetVolumePathNameW_t = decltype(&os::GetVolumePathNameW);
using GetVolumeNameForVolumeMountPointW_t = decltype(&os::GetVolumeNameForVolumeMountPointW);

os::DWORD majorVersion() {
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    os::GetVersionExW(&version);  // the record stays zero when this fails
    return version.dwMajorVersion;
}

os::HMODULE kernel32OrThrow() {
    os::HMODULE module = os::GetModuleHandleW(u"kernel32.dll");
    if (module == nullptr) {
        throw os::GetLastError();
    }
    return module;
}

template <class Function>
Function bindOrThrow(os::HMODULE module, const char* name) {
    os::FARPROC address = os::GetProcAddress(module, name);
    if (address == nullptr) {
        throw os::GetLastError();
    }
    return reinterpret_cast<Function>(address);
}

}  // namespace

struct VolumeIteratorState {
    std::u16string current;
    bool useVolumeFunctions = true;
    os::HANDLE findHandle = os::INVALID_HANDLE_VALUE;
    std::uint32_t bufferLength = kNameBufferLength;
    bool hasMore = true;
    char16_t nameBuffer[kNameBufferLength] = {};
    char16_t driveRoot[4] = {u'A', u':', u'\\', u'\0'};
    FindFirstVolumeW_t findFirstVolume = nullptr;
    FindNextVolumeW_t findNextVolume = nullptr;
    FindVolumeClose_t findVolumeClose = nullptr;
    FindFirstVolumeMountPointW_t findFirstVolumeMountPoint = nullptr;
    FindNextVolumeMountPointW_t findNextVolumeMountPoint = nullptr;
    FindVolumeMountPointClose_t findVolumeMountPointClose = nullptr;
    GetVolumePathNameW_t getVolumePathName = nullptr;
    GetVolumeNameForVolumeMountPointW_t getVolumeNameForVolumeMountPoint = nullptr;
    os::HMODULE module = nullptr;
    bool atEnd = false;
    std::uint32_t driveIndex = 0;

    ~VolumeIteratorState() {
        if (findHandle != os::INVALID_HANDLE_VALUE && findVolumeClose != nullptr) {
            findVolumeClose(findHandle);
        }
    }

    // Older systems: the next removable, fixed or CD-ROM drive root in letter
    // order; network drives and unassigned letters are skipped.
    void nextDrive() {
        while (driveIndex < 26) {
            const os::UINT type = os::GetDriveTypeW(driveRoot);
            if (type == os::DRIVE_FIXED || type == os::DRIVE_CDROM || type == os::DRIVE_REMOVABLE) {
                break;
            }
            ++driveRoot[0];
            ++driveIndex;
        }
        if (driveIndex >= 26) {
            hasMore = false;
            atEnd = true;
            current.clear();
            return;
        }
        current = driveRoot;
        ++driveRoot[0];
        ++driveIndex;
    }
};

struct MountPointIteratorState {
    std::u16string current;
    std::u16string volumeName;
    bool atEnd = false;
    os::HMODULE module = nullptr;
    os::HANDLE findHandle = os::INVALID_HANDLE_VALUE;
    std::uint32_t bufferLength = kNameBufferLength;
    char16_t buffer[kNameBufferLength] = {};
    FindFirstVolumeMountPointW_t findFirstVolumeMountPoint = nullptr;
    FindNextVolumeMountPointW_t findNextVolumeMountPoint = nullptr;
    FindVolumeMountPointClose_t findVolumeMountPointClose = nullptr;

    ~MountPointIteratorState() {
        if (findHandle != os::INVALID_HANDLE_VALUE && findVolumeMountPointClose != nullptr) {
            findVolumeMountPointClose(findHandle);
        }
    }
};

// --- VolumeIterator ---------------------------------------------------------

VolumeIterator::VolumeIterator(std::shared_ptr<VolumeIteratorState> state)
    : state_(std::move(state)) {}

VolumeIterator VolumeIterator::begin() {
    auto state = std::make_shared<VolumeIteratorState>();
    if (majorVersion() < 5) {
        state->useVolumeFunctions = false;
    }
    if (state->useVolumeFunctions) {
        VolumeIteratorState& s = *state;
        s.module = kernel32OrThrow();
        // All eight are required, even though only the first three are used
        // here: a system that has some of them is not one to trust.
        s.findFirstVolume = bindOrThrow<FindFirstVolumeW_t>(s.module, "FindFirstVolumeW");
        s.findNextVolume = bindOrThrow<FindNextVolumeW_t>(s.module, "FindNextVolumeW");
        s.findVolumeClose = bindOrThrow<FindVolumeClose_t>(s.module, "FindVolumeClose");
        s.findFirstVolumeMountPoint =
            bindOrThrow<FindFirstVolumeMountPointW_t>(s.module, "FindFirstVolumeMountPointW");
        s.findNextVolumeMountPoint =
            bindOrThrow<FindNextVolumeMountPointW_t>(s.module, "FindNextVolumeMountPointW");
        s.findVolumeMountPointClose =
            bindOrThrow<FindVolumeMountPointClose_t>(s.module, "FindVolumeMountPointClose");
        s.getVolumePathName = bindOrThrow<GetVolumePathNameW_t>(s.module, "GetVolumePathNameW");
        s.getVolumeNameForVolumeMountPoint = bindOrThrow<GetVolumeNameForVolumeMountPointW_t>(
            s.module, "GetVolumeNameForVolumeMountPointW");
        s.findHandle = s.findFirstVolume(s.nameBuffer, s.bufferLength);
        if (s.findHandle == os::INVALID_HANDLE_VALUE) {
            throw os::GetLastError();
        }
        s.current = s.nameBuffer;
    } else {
        state->driveIndex = 0;
        state->driveRoot[0] = u'A';
        state->nextDrive();
    }
    return VolumeIterator(std::move(state));
}

VolumeIterator VolumeIterator::end() {
    auto state = std::make_shared<VolumeIteratorState>();
    state->hasMore = false;
    state->atEnd = true;
    return VolumeIterator(std::move(state));
}

std::u16string VolumeIterator::operator*() const {
    return state_->current;
}

VolumeIterator& VolumeIterator::operator++() {
    VolumeIteratorState& s = *state_;
    if (s.findHandle != os::INVALID_HANDLE_VALUE && s.hasMore && s.useVolumeFunctions) {
        std::fill(std::begin(s.nameBuffer), std::end(s.nameBuffer), u'\0');
        if (s.findNextVolume(s.findHandle, s.nameBuffer, s.bufferLength)) {
            s.current = s.nameBuffer;
            return *this;
        }
        const os::DWORD error = os::GetLastError();
        if (error != os::ERROR_NO_MORE_FILES) {
            throw error;
        }
        s.hasMore = false;
        s.atEnd = true;
        s.current.clear();
        return *this;
    }
    if (s.hasMore) {
        s.nextDrive();
    }
    return *this;
}

std::u16string VolumeIterator::operator++(int) {
    std::u16string before = state_->current;
    ++*this;
    return before;
}

bool VolumeIterator::operator==(const VolumeIterator& other) const {
    return state_->atEnd && other.state_->atEnd;
}

// --- MountPointIterator -----------------------------------------------------

MountPointIterator::MountPointIterator(std::shared_ptr<MountPointIteratorState> state)
    : state_(std::move(state)) {}

MountPointIterator MountPointIterator::begin(const std::u16string& volumeName) {
    auto state = std::make_shared<MountPointIteratorState>();
    MountPointIteratorState& s = *state;
    s.volumeName = volumeName;
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    if (!os::GetVersionExW(&version)) {
        throw os::GetLastError();
    }
    if (version.dwMajorVersion < 5) {
        s.atEnd = true;  // no mount points before the volume functions existed
        return MountPointIterator(std::move(state));
    }
    s.module = kernel32OrThrow();
    s.findFirstVolumeMountPoint =
        bindOrThrow<FindFirstVolumeMountPointW_t>(s.module, "FindFirstVolumeMountPointW");
    s.findNextVolumeMountPoint =
        bindOrThrow<FindNextVolumeMountPointW_t>(s.module, "FindNextVolumeMountPointW");
    s.findVolumeMountPointClose =
        bindOrThrow<FindVolumeMountPointClose_t>(s.module, "FindVolumeMountPointClose");
    s.findHandle = s.findFirstVolumeMountPoint(s.volumeName.c_str(), s.buffer, s.bufferLength);
    if (s.findHandle == os::INVALID_HANDLE_VALUE) {
        // A volume without mount points: an empty sequence, not an error.
        s.atEnd = true;
    } else {
        s.current = s.buffer;
    }
    return MountPointIterator(std::move(state));
}

MountPointIterator MountPointIterator::end() {
    auto state = std::make_shared<MountPointIteratorState>();
    state->atEnd = true;
    return MountPointIterator(std::move(state));
}

std::u16string MountPointIterator::operator*() const {
    return state_->current;
}

MountPointIterator& MountPointIterator::operator++() {
    MountPointIteratorState& s = *state_;
    if (s.atEnd) {
        return *this;
    }
    std::fill(std::begin(s.buffer), std::end(s.buffer), u'\0');
    os::SetLastError(os::ERROR_SUCCESS);
    if (s.findNextVolumeMountPoint(s.findHandle, s.buffer, s.bufferLength)) {
        s.current = s.buffer;
        return *this;
    }
    const os::DWORD error = os::GetLastError();
    if (error != os::ERROR_NO_MORE_FILES) {
        throw error;
    }
    s.atEnd = true;
    s.current.clear();
    return *this;
}

bool MountPointIterator::operator==(const MountPointIterator& other) const {
    return state_->atEnd && other.state_->atEnd;
}

// --- Conversions ------------------------------------------------------------

bool isVolumeApiAvailable() {
    return majorVersion() > 4;
}

bool getVolumeNameForMountPoint(const std::u16string& path, std::u16string& volumeName) {
    // Fetched once and kept for the life of the process; kernel32 is never
    // unloaded.
    static std::atomic<os::HMODULE> kernel32{nullptr};
    os::HMODULE module = kernel32.load(std::memory_order_acquire);
    if (module == nullptr) {
        module = kernel32OrThrow();
        kernel32.store(module, std::memory_order_release);
    }
    auto getVolumeName = bindOrThrow<GetVolumeNameForVolumeMountPointW_t>(
        module, "GetVolumeNameForVolumeMountPointW");
    const std::u16string mountPoint = withTrailingBackslash(path);
    char16_t buffer[kGuidBufferLength] = {};
    if (!getVolumeName(mountPoint.c_str(), buffer, kGuidBufferLength)) {
        return false;
    }
    volumeName = buffer;
    return true;
}

bool volumeNameOf(std::u16string& path) {
    if (isVolumeApiAvailable()) {
        return getVolumeNameForMountPoint(path, path);
    }
    // Older systems name volumes by drive root: "d:" -> "d:\", "D:\x\y" -> "D:\".
    if (path.size() == 2 && path[1] == u':') {
        path.push_back(u'\\');
    } else if (path.size() > 2 && path[1] == u':' && path[2] == u'\\') {
        path.resize(3);
    }
    return true;
}

bool findVolumePath(const std::u16string& volumeName, std::u16string& path) {
    // The caller may pass one string as both arguments.
    const std::u16string wanted = volumeName;

    // Fixed drives first: a drive root is the shortest way to a volume.
    const os::DWORD needed = os::GetLogicalDriveStringsW(0, nullptr);
    std::u16string drives(needed, u'\0');
    if (needed > 0) {
        os::GetLogicalDriveStringsW(needed, drives.data());
    }
    for (std::size_t at = 0; at < drives.size() && drives[at] != u'\0';) {
        // One root of the NUL-separated list: the copy ends at its own NUL.
        // cppcheck-suppress stlcstrConstructor
        const std::u16string root(drives.c_str() + at);
        at += root.size() + 1;
        if (os::GetDriveTypeW(root.c_str()) != os::DRIVE_FIXED) {
            continue;
        }
        std::u16string guid;
        if (getVolumeNameForMountPoint(root, guid) && guid == wanted) {
            path = root;
            return true;
        }
    }

    // Then mount points, on every volume of the machine.
    for (VolumeIterator volume = VolumeIterator::begin(); volume != VolumeIterator::end();
         ++volume) {
        const std::u16string volumeRoot = *volume;
        for (MountPointIterator mountPoint = MountPointIterator::begin(volumeRoot);
             mountPoint != MountPointIterator::end(); ++mountPoint) {
            const std::u16string relative = *mountPoint;
            std::u16string guid;
            if (getVolumeNameForMountPoint(volumeRoot + relative, guid) && guid == wanted) {
                // The holder's own path comes first; when it has none, the
                // mount point is appended to what `path` held.
                findVolumePath(volumeRoot, path);
                path += relative;
                return true;
            }
        }
    }
    return false;
}

void replaceByVolumePath(std::u16string& volumeName) {
    if (!isVolumeApiAvailable()) {
        return;
    }
    findVolumePath(volumeName, volumeName);
}
