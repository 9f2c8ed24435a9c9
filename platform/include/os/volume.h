// Volume management: volume GUID names, mount points, drive letters, drive
// types, file systems and free space of the machine.
//
// Volume GUID names have the form "\\?\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}\"
// (49 characters with the trailing backslash). Paths compare case-insensitively.
// All functions are safe to call from several threads.
#ifndef PLATFORM_INCLUDE_OS_VOLUME_H_
#define PLATFORM_INCLUDE_OS_VOLUME_H_

#include "os/types.h"

namespace os {

constexpr UINT DRIVE_UNKNOWN = 0;
constexpr UINT DRIVE_NO_ROOT_DIR = 1;
constexpr UINT DRIVE_REMOVABLE = 2;
constexpr UINT DRIVE_FIXED = 3;
constexpr UINT DRIVE_REMOTE = 4;
constexpr UINT DRIVE_CDROM = 5;
constexpr UINT DRIVE_RAMDISK = 6;

// File-system flags of GetVolumeInformationW.
constexpr DWORD FILE_CASE_SENSITIVE_SEARCH = 0x00000001;
constexpr DWORD FILE_CASE_PRESERVED_NAMES = 0x00000002;
constexpr DWORD FILE_UNICODE_ON_DISK = 0x00000004;
constexpr DWORD FILE_PERSISTENT_ACLS = 0x00000008;
constexpr DWORD FILE_READ_ONLY_VOLUME = 0x00080000;

// Starts a search over every volume of the machine. Writes the first volume
// GUID name into `volumeName` (capacity `length` characters). Returns a search
// handle to close with FindVolumeClose, or INVALID_HANDLE_VALUE with last error
// ERROR_FILENAME_EXCED_RANGE when the buffer is too small (fewer than 50
// characters), ERROR_INVALID_PARAMETER for a null buffer, ERROR_NO_MORE_FILES
// when the machine has no volume. The length is checked before the buffer,
// so a null buffer of length 0 gives ERROR_FILENAME_EXCED_RANGE. Volumes come
// in the order of the machine description.
HANDLE FindFirstVolumeW(LPWSTR volumeName, DWORD length);
// Next volume of the search. FALSE with ERROR_INVALID_HANDLE for a handle that
// is not an open volume search (checked first), ERROR_FILENAME_EXCED_RANGE when
// the buffer is too small (the search does not advance, so the caller may
// retry), ERROR_NO_MORE_FILES at the end.
BOOL FindNextVolumeW(HANDLE find, LPWSTR volumeName, DWORD length);
BOOL FindVolumeClose(HANDLE find);

// Mount points (folders where other volumes are mounted) on the volume named by
// its GUID name `rootPath`. Each result is relative to that volume's root and
// ends in a backslash ("mnt\data\"). FindFirstVolumeMountPointW answers
// INVALID_HANDLE_VALUE with ERROR_NO_MORE_FILES when the volume has none,
// ERROR_FILE_NOT_FOUND when the volume does not exist, ERROR_MORE_DATA when
// the buffer is too small, ERROR_INVALID_NAME when `rootPath` lacks its
// trailing backslash, ERROR_INVALID_PARAMETER for a null argument. A drive
// root or mount point of the volume is accepted as well as its GUID name.
// FindNextVolumeMountPointW answers ERROR_MORE_DATA without advancing, and
// ERROR_NO_MORE_FILES at the end.
HANDLE FindFirstVolumeMountPointW(LPCWSTR rootPath, LPWSTR mountPoint, DWORD length);
BOOL FindNextVolumeMountPointW(HANDLE find, LPWSTR mountPoint, DWORD length);
BOOL FindVolumeMountPointClose(HANDLE find);

// Root of the volume that holds `fileName` (a drive root or mount point,
// always ending in a backslash), spelled as in `fileName`. FALSE with
// ERROR_FILENAME_EXCED_RANGE when the buffer is too small (nothing written),
// ERROR_INVALID_PARAMETER for a null or empty name or a null buffer,
// ERROR_PATH_NOT_FOUND when no volume of the machine holds the path.
BOOL GetVolumePathNameW(LPCWSTR fileName, LPWSTR volumePathName, DWORD length);
// GUID name of the volume mounted at `mountPoint`, which must end in a
// backslash (else ERROR_INVALID_NAME). A buffer below 50 characters gives
// ERROR_FILENAME_EXCED_RANGE; an existing folder that is no mount point gives
// ERROR_NOT_A_REPARSE_POINT; a path or drive that does not exist
// ERROR_FILE_NOT_FOUND. A volume GUID name maps to itself. Checked in this
// order: null or empty name (ERROR_INVALID_PARAMETER), trailing backslash,
// buffer length, null buffer (ERROR_INVALID_PARAMETER).
BOOL GetVolumeNameForVolumeMountPointW(LPCWSTR mountPoint, LPWSTR volumeName, DWORD length);

// Drive roots "C:\" followed by NUL each, the list ending in a second NUL.
// Returns the length written without the final NUL, or, when the buffer is too
// small, the length needed including it (nothing written, last error
// unchanged). Letters come in alphabetical order, upper case.
DWORD GetLogicalDriveStringsW(DWORD length, LPWSTR buffer);
// Type of the drive or volume at `rootPath` (drive root, mount point or volume
// GUID name; a missing trailing backslash is tolerated only for volume GUID
// names). DRIVE_NO_ROOT_DIR when the path names no volume or is null (there
// is no current directory here), DRIVE_UNKNOWN with last error set when the
// machine cannot be loaded.
UINT GetDriveTypeW(LPCWSTR rootPath);
// Volume label, serial, maximum component length, flags and file-system name
// of the volume whose root (ending in a backslash) is `rootPath`. Any output may
// be null. FALSE with ERROR_UNRECOGNIZED_VOLUME for a volume without a
// recognised file system (RAW), ERROR_PATH_NOT_FOUND for a path that names no
// volume, ERROR_NOT_READY for an empty removable or CD-ROM drive,
// ERROR_INVALID_NAME without the trailing backslash, ERROR_DIR_NOT_ROOT for a
// folder of a volume that is no mount point, ERROR_BAD_LENGTH when a non-null
// name buffer is too small for its text and NUL (nothing written then),
// ERROR_INVALID_PARAMETER for a null `rootPath`.
BOOL GetVolumeInformationW(LPCWSTR rootPath, LPWSTR volumeName, DWORD volumeNameSize,
                           DWORD* serialNumber, DWORD* maxComponentLength, DWORD* fileSystemFlags,
                           LPWSTR fileSystemName, DWORD fileSystemNameSize);
// Free and total bytes of the volume that holds `directoryName`. Any output may
// be null. FALSE with ERROR_PATH_NOT_FOUND when no volume holds the path or
// the folder does not exist, ERROR_NOT_READY for an empty removable or CD-ROM
// drive, ERROR_UNRECOGNIZED_VOLUME for a RAW volume, ERROR_INVALID_PARAMETER
// for a null name. The bytes available to the caller equal the free bytes
// (no quotas).
BOOL GetDiskFreeSpaceExW(LPCWSTR directoryName, PULARGE_INTEGER freeBytesAvailableToCaller,
                         PULARGE_INTEGER totalNumberOfBytes,
                         PULARGE_INTEGER totalNumberOfFreeBytes);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_VOLUME_H_
