// Volume management of the simulated machine: volume and mount point
// searches, drive letters and types, file-system information and free space,
// all answered from the machine description.
//
// Searches share the machine's read-only lists of names, holding them for as
// long as the search is open, so a search stays valid whatever happens to
// the machine afterwards. The questions placement asks by the thousand
// (volume by root or mount point, free space of a root) are answered from
// the machine's indexes without allocating.
#include "os/volume.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "os/error.h"
#include "os_call.h"
#include "search_handle.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace os {
namespace {

// "\\?\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}\" and its NUL.
constexpr DWORD kVolumeNameBuffer = 50;
constexpr DWORD kMaxComponentLength = 255;

class VolumeSearch final : public sim::SearchObject {
  public:
    std::shared_ptr<const std::vector<std::u16string>> names;
    std::size_t next = 0;
};

class MountPointSearch final : public sim::SearchObject {
  public:
    std::shared_ptr<const std::vector<std::u16string>> mountPoints;
    std::size_t next = 0;
};

std::u16string_view textOf(LPCWSTR text) {
    return text == nullptr ? std::u16string_view() : std::u16string_view(text);
}

// Copies `text` and its NUL when both fit in `length` characters.
bool copyOut(std::u16string_view text, LPWSTR buffer, DWORD length) {
    if (text.size() + 1 > length) {
        return false;
    }
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = u'\0';
    return true;
}

bool isGuidName(std::u16string_view text) {
    return sim::startsWithIgnoreCase(text, u"\\\\?\\Volume{");
}

DWORD fileSystemFlags(const sim::Volume& volume) {
    DWORD flags = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
    if (volume.fileSystem == u"NTFS" || volume.fileSystem == u"ReFS") {
        flags |= FILE_CASE_SENSITIVE_SEARCH | FILE_PERSISTENT_ACLS;
    }
    if (volume.type == sim::DriveType::CdRom) {
        flags |= FILE_READ_ONLY_VOLUME;
    }
    return flags;
}

// The error a volume answers before any question about its contents.
DWORD unusableVolumeError(const sim::Volume& volume) {
    if (!volume.mediaPresent) {
        return ERROR_NOT_READY;
    }
    if (volume.fileSystem == u"RAW") {
        return ERROR_UNRECOGNIZED_VOLUME;
    }
    return ERROR_SUCCESS;
}

}  // namespace

/***********************************************************************
 *           FindFirstVolumeW   (kernel32.dll)
 */
HANDLE FindFirstVolumeW(LPWSTR volumeName, DWORD length) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"FindFirstVolumeW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    if (length < kVolumeNameBuffer) {
        return sim::fail(ERROR_FILENAME_EXCED_RANGE, INVALID_HANDLE_VALUE);
    }
    if (volumeName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    }
    if (machine->volumes().empty()) {
        return sim::fail(ERROR_NO_MORE_FILES, INVALID_HANDLE_VALUE);
    }
    auto search = std::make_unique<VolumeSearch>();
    search->names = machine->volumeNames();
    copyOut(search->names->front(), volumeName, length);
    search->next = 1;
    return sim::registerHandle(std::move(search));
}

/***********************************************************************
 *           FindNextVolumeW   (kernel32.dll)
 */
BOOL FindNextVolumeW(HANDLE find, LPWSTR volumeName, DWORD length) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindNextVolumeW">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* search = sim::lookupHandleAs<VolumeSearch>(find);
    if (search == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (length < kVolumeNameBuffer) {
        return sim::fail(ERROR_FILENAME_EXCED_RANGE, FALSE);
    }
    if (volumeName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (search->next >= search->names->size()) {
        return sim::fail(ERROR_NO_MORE_FILES, FALSE);
    }
    copyOut((*search->names)[search->next++], volumeName, length);
    return TRUE;
}

/***********************************************************************
 *           FindVolumeClose   (kernel32.dll)
 */
BOOL FindVolumeClose(HANDLE find) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindVolumeClose">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (sim::lookupHandleAs<VolumeSearch>(find) == nullptr || !sim::closeTableHandle(find)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           FindFirstVolumeMountPointW   (kernel32.dll)
 */
HANDLE FindFirstVolumeMountPointW(LPCWSTR rootPath, LPWSTR mountPoint, DWORD length) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"FindFirstVolumeMountPointW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    const std::u16string_view root = textOf(rootPath);
    if (rootPath == nullptr || mountPoint == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    }
    if (root.empty() || root.back() != u'\\') {
        return sim::fail(ERROR_INVALID_NAME, INVALID_HANDLE_VALUE);
    }
    const sim::Volume* volume = machine->volumeAtRoot(root);
    if (volume == nullptr) {
        return sim::fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    const auto& mountPoints = machine->sharedMountPointsOn(*volume);
    if (mountPoints->empty()) {
        return sim::fail(ERROR_NO_MORE_FILES, INVALID_HANDLE_VALUE);
    }
    if (!copyOut(mountPoints->front(), mountPoint, length)) {
        return sim::fail(ERROR_MORE_DATA, INVALID_HANDLE_VALUE);
    }
    auto search = std::make_unique<MountPointSearch>();
    search->mountPoints = mountPoints;
    search->next = 1;
    return sim::registerHandle(std::move(search));
}

/***********************************************************************
 *           FindNextVolumeMountPointW   (kernel32.dll)
 */
BOOL FindNextVolumeMountPointW(HANDLE find, LPWSTR mountPoint, DWORD length) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindNextVolumeMountPointW">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* search = sim::lookupHandleAs<MountPointSearch>(find);
    if (search == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (mountPoint == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (search->next >= search->mountPoints->size()) {
        return sim::fail(ERROR_NO_MORE_FILES, FALSE);
    }
    if (!copyOut((*search->mountPoints)[search->next], mountPoint, length)) {
        return sim::fail(ERROR_MORE_DATA, FALSE);
    }
    ++search->next;
    return TRUE;
}

/***********************************************************************
 *           FindVolumeMountPointClose   (kernel32.dll)
 */
BOOL FindVolumeMountPointClose(HANDLE find) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindVolumeMountPointClose">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (sim::lookupHandleAs<MountPointSearch>(find) == nullptr || !sim::closeTableHandle(find)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           GetVolumePathNameW   (kernel32.dll)
 */
BOOL GetVolumePathNameW(LPCWSTR fileName, LPWSTR volumePathName, DWORD length) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetVolumePathNameW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    const std::u16string_view name = textOf(fileName);
    if (name.empty() || volumePathName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    const auto resolved = machine->resolve(name);
    if (!resolved) {
        return sim::fail(ERROR_PATH_NOT_FOUND, FALSE);
    }
    if (!copyOut(resolved->rootPath, volumePathName, length)) {
        return sim::fail(ERROR_FILENAME_EXCED_RANGE, FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           GetVolumeNameForVolumeMountPointW   (kernel32.dll)
 */
BOOL GetVolumeNameForVolumeMountPointW(LPCWSTR mountPoint, LPWSTR volumeName, DWORD length) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetVolumeNameForVolumeMountPointW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    const std::u16string_view path = textOf(mountPoint);
    if (path.empty()) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (path.back() != u'\\') {
        return sim::fail(ERROR_INVALID_NAME, FALSE);
    }
    if (length < kVolumeNameBuffer) {
        return sim::fail(ERROR_FILENAME_EXCED_RANGE, FALSE);
    }
    if (volumeName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    // A drive root, a mount point or a GUID name (with a mount point below
    // it): straight from the indexes.
    if (const sim::Volume* volume = machine->volumeAtMountPoint(path)) {
        copyOut(volume->guidName, volumeName, length);
        return TRUE;
    }
    const auto resolved = machine->resolve(path);
    if (!resolved) {
        return sim::fail(ERROR_FILE_NOT_FOUND, FALSE);
    }
    if (!resolved->relative.empty()) {
        // A folder of the volume: a mount point only if a volume is mounted
        // there, which resolve() would have found as the longer root.
        struct stat info {};
        if (::stat(resolved->hostPath.c_str(), &info) == 0) {
            return sim::fail(ERROR_NOT_A_REPARSE_POINT, FALSE);
        }
        return sim::fail(ERROR_FILE_NOT_FOUND, FALSE);
    }
    copyOut(resolved->volume->guidName, volumeName, length);
    return TRUE;
}

/***********************************************************************
 *           GetLogicalDriveStringsW   (kernel32.dll)
 */
DWORD GetLogicalDriveStringsW(DWORD length, LPWSTR buffer) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetLogicalDriveStringsW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, DWORD{0});
    }
    const std::u16string& list = machine->logicalDriveStrings();
    const auto needed = static_cast<DWORD>(list.size() + 1);
    if (length < needed) {
        return needed;
    }
    if (buffer == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, DWORD{0});
    }
    std::copy(list.begin(), list.end(), buffer);
    buffer[list.size()] = u'\0';
    return static_cast<DWORD>(list.size());
}

/***********************************************************************
 *           GetDriveTypeW   (kernel32.dll)
 */
UINT GetDriveTypeW(LPCWSTR rootPath) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetDriveTypeW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, DRIVE_UNKNOWN);
    }
    const std::u16string_view root = textOf(rootPath);
    if (root.empty()) {
        return DRIVE_NO_ROOT_DIR;
    }
    if (root.back() != u'\\' && !isGuidName(root)) {
        return DRIVE_NO_ROOT_DIR;
    }
    const sim::Volume* volume = machine->volumeAtRoot(root);
    if (volume == nullptr) {
        return DRIVE_NO_ROOT_DIR;
    }
    return static_cast<UINT>(volume->type);
}

/***********************************************************************
 *           GetVolumeInformationW   (kernel32.dll)
 */
BOOL GetVolumeInformationW(LPCWSTR rootPath, LPWSTR volumeName, DWORD volumeNameSize,
                           DWORD* serialNumber, DWORD* maxComponentLength, DWORD* fileSystemFlags,
                           LPWSTR fileSystemName, DWORD fileSystemNameSize) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetVolumeInformationW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    if (rootPath == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    const std::u16string_view root = textOf(rootPath);
    if (root.empty() || root.back() != u'\\') {
        return sim::fail(ERROR_INVALID_NAME, FALSE);
    }
    const sim::Volume* volume = machine->volumeAtRoot(root);
    if (volume == nullptr) {
        return sim::fail(machine->resolve(root) ? ERROR_DIR_NOT_ROOT : ERROR_PATH_NOT_FOUND, FALSE);
    }
    if (const DWORD unusable = unusableVolumeError(*volume); unusable != ERROR_SUCCESS) {
        return sim::fail(unusable, FALSE);
    }
    // Both buffers are checked before either is written.
    if ((volumeName != nullptr && volume->label.size() + 1 > volumeNameSize) ||
        (fileSystemName != nullptr && volume->fileSystem.size() + 1 > fileSystemNameSize)) {
        return sim::fail(ERROR_BAD_LENGTH, FALSE);
    }
    if (volumeName != nullptr) {
        copyOut(volume->label, volumeName, volumeNameSize);
    }
    if (fileSystemName != nullptr) {
        copyOut(volume->fileSystem, fileSystemName, fileSystemNameSize);
    }
    if (serialNumber != nullptr) {
        *serialNumber = volume->serialNumber;
    }
    if (maxComponentLength != nullptr) {
        *maxComponentLength = kMaxComponentLength;
    }
    if (fileSystemFlags != nullptr) {
        *fileSystemFlags = os::fileSystemFlags(*volume);
    }
    return TRUE;
}

/***********************************************************************
 *           GetDiskFreeSpaceExW   (kernel32.dll)
 */
BOOL GetDiskFreeSpaceExW(LPCWSTR directoryName, PULARGE_INTEGER freeBytesAvailableToCaller,
                         PULARGE_INTEGER totalNumberOfBytes,
                         PULARGE_INTEGER totalNumberOfFreeBytes) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetDiskFreeSpaceExW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    if (directoryName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    // The root of a volume (the usual question) is answered from the
    // indexes; any other folder must exist.
    const sim::Volume* volume = machine->volumeAtMountPoint(textOf(directoryName));
    if (volume == nullptr) {
        const auto resolved = machine->resolve(textOf(directoryName));
        if (!resolved) {
            return sim::fail(ERROR_PATH_NOT_FOUND, FALSE);
        }
        volume = resolved->volume;
        if (const DWORD unusable = unusableVolumeError(*volume); unusable != ERROR_SUCCESS) {
            return sim::fail(unusable, FALSE);
        }
        if (!resolved->relative.empty()) {
            struct stat info {};
            if (::stat(resolved->hostPath.c_str(), &info) != 0) {
                return sim::fail(ERROR_PATH_NOT_FOUND, FALSE);
            }
        }
    } else if (const DWORD unusable = unusableVolumeError(*volume); unusable != ERROR_SUCCESS) {
        return sim::fail(unusable, FALSE);
    }
    if (freeBytesAvailableToCaller != nullptr) {
        freeBytesAvailableToCaller->QuadPart = volume->freeBytes;
    }
    if (totalNumberOfBytes != nullptr) {
        totalNumberOfBytes->QuadPart = volume->totalBytes;
    }
    if (totalNumberOfFreeBytes != nullptr) {
        totalNumberOfFreeBytes->QuadPart = volume->freeBytes;
    }
    return TRUE;
}

}  // namespace os
