// Files and directories on the machine's volumes, and reading or writing
// through a handle. Paths are Windows paths (drive root, mount point or volume
// GUID name followed by components), compared case-insensitively.
//
// Failures shared by the path functions: ERROR_FILENAME_EXCED_RANGE for a
// path of MAX_PATH characters or more (unless written "\\?\..."),
// ERROR_PATH_NOT_FOUND when no volume holds the path, ERROR_NOT_READY on an
// empty removable or CD-ROM drive, ERROR_UNRECOGNIZED_VOLUME on a RAW
// volume, ERROR_INVALID_NAME for a character Windows forbids in names.
#ifndef PLATFORM_INCLUDE_OS_FILE_H_
#define PLATFORM_INCLUDE_OS_FILE_H_

#include "os/types.h"

namespace os {

constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    WCHAR cFileName[MAX_PATH];
    WCHAR cAlternateFileName[14];
};

// Attributes of a file or directory, or INVALID_FILE_ATTRIBUTES with
// ERROR_FILE_NOT_FOUND (last component missing) or ERROR_PATH_NOT_FOUND (a
// parent is missing or no volume holds the path), ERROR_INVALID_PARAMETER for
// a null name. A volume root or mount point is a directory.
DWORD GetFileAttributesW(LPCWSTR fileName);
// Creates one directory. FALSE with ERROR_ALREADY_EXISTS when the name exists,
// ERROR_PATH_NOT_FOUND when the parent does not exist or the name is null or
// empty. A volume root or mount point already exists. The security
// attributes are ignored.
BOOL CreateDirectoryW(LPCWSTR pathName, LPSECURITY_ATTRIBUTES securityAttributes);
// Searches for `fileName` (no wildcards needed by the product; "*" and "?" in
// the last component are honoured). INVALID_HANDLE_VALUE with
// ERROR_FILE_NOT_FOUND when nothing matches or the name ends in a backslash,
// ERROR_PATH_NOT_FOUND when the folder is missing, ERROR_INVALID_PARAMETER for
// a null argument. Wildcard results come in name order, ignoring case, without
// "." and "..". Search handles are closed with FindClose, not CloseHandle.
HANDLE FindFirstFileW(LPCWSTR fileName, WIN32_FIND_DATAW* findFileData);
BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* findFileData);
BOOL FindClose(HANDLE find);

// Reads from or writes to a descriptor handle (file, volume or connected
// pipe). A file read returns the whole request unless the end of the file
// comes first; a pipe read returns what has arrived, and FALSE with
// ERROR_BROKEN_PIPE once the writer has gone. Writing to a pipe whose reader
// has gone gives ERROR_NO_DATA. ERROR_INVALID_HANDLE for any other handle,
// ERROR_INVALID_PARAMETER for a null count (or null buffer with a length),
// ERROR_NOT_SUPPORTED for overlapped operation.
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD numberOfBytesToRead, DWORD* numberOfBytesRead,
              LPVOID overlapped);
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD numberOfBytesToWrite, DWORD* numberOfBytesWritten,
               LPVOID overlapped);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_FILE_H_
