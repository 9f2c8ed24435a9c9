#include "fault_table.h"

#include <map>
#include <string>

#include "os/error.h"

namespace faultsweep {
namespace {

// Driver statuses that have no os:: constant.
constexpr std::uint32_t ERROR_GEN_FAILURE = 31;
constexpr std::uint32_t ERROR_SHARING_VIOLATION = 32;

using namespace os;

}  // namespace

const std::vector<FallibleFunction>& fallibleFunctions() {
    // The codes each function's contract names for conditions a correct
    // caller can meet (missing or unready volumes, access, busy or broken
    // pipes, a full disk), plus the driver's own failures.
    static const std::vector<FallibleFunction> table = {
        // Libraries.
        {"LoadLibraryW", {ERROR_MOD_NOT_FOUND}},
        {"GetProcAddress", {ERROR_PROC_NOT_FOUND}},
        {"GetModuleHandleW", {ERROR_MOD_NOT_FOUND}},
        {"FreeLibrary", {ERROR_INVALID_HANDLE}, true},
        {"DisableThreadLibraryCalls", {ERROR_INVALID_HANDLE}},
        // Volumes.
        {"FindFirstVolumeW", {ERROR_NO_MORE_FILES, ERROR_NOT_READY}},
        {"FindNextVolumeW", {ERROR_NO_MORE_FILES, ERROR_NOT_READY}},
        {"FindVolumeClose", {ERROR_INVALID_HANDLE}, true},
        {"FindFirstVolumeMountPointW",
         {ERROR_NO_MORE_FILES, ERROR_FILE_NOT_FOUND, ERROR_MORE_DATA, ERROR_NOT_READY}},
        {"FindNextVolumeMountPointW", {ERROR_NO_MORE_FILES, ERROR_MORE_DATA}},
        {"FindVolumeMountPointClose", {ERROR_INVALID_HANDLE}, true},
        {"GetVolumePathNameW", {ERROR_PATH_NOT_FOUND, ERROR_FILENAME_EXCED_RANGE}},
        {"GetVolumeNameForVolumeMountPointW",
         {ERROR_FILE_NOT_FOUND, ERROR_NOT_A_REPARSE_POINT, ERROR_FILENAME_EXCED_RANGE}},
        {"GetLogicalDriveStringsW", {ERROR_NOT_READY}},
        {"GetDriveTypeW", {ERROR_PATH_NOT_FOUND}},
        {"GetVolumeInformationW",
         {ERROR_UNRECOGNIZED_VOLUME, ERROR_PATH_NOT_FOUND, ERROR_NOT_READY}},
        {"GetDiskFreeSpaceExW", {ERROR_PATH_NOT_FOUND, ERROR_NOT_READY, ERROR_UNRECOGNIZED_VOLUME}},
        // Files.
        {"GetFileAttributesW",
         {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_NOT_READY, ERROR_ACCESS_DENIED}},
        {"CreateDirectoryW",
         {ERROR_ALREADY_EXISTS, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_DISK_FULL}},
        {"FindFirstFileW", {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_NOT_READY}},
        {"FindNextFileW", {ERROR_NO_MORE_FILES}},
        {"FindClose", {ERROR_INVALID_HANDLE}, true},
        {"ReadFile", {ERROR_BROKEN_PIPE, ERROR_INVALID_HANDLE}},
        {"WriteFile", {ERROR_NO_DATA, ERROR_INVALID_HANDLE}},
        // Synchronisation.
        {"InitializeCriticalSectionAndSpinCount", {ERROR_NOT_ENOUGH_MEMORY}},
        {"CreateMutexW", {ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE, ERROR_NOT_ENOUGH_MEMORY}},
        {"WaitForSingleObject", {ERROR_INVALID_HANDLE}},
        {"ReleaseMutex", {ERROR_NOT_OWNER}},
        // The agent's pipe, processes and handles.
        {"CallNamedPipeW",
         {ERROR_FILE_NOT_FOUND, ERROR_PIPE_BUSY, ERROR_MORE_DATA, ERROR_BROKEN_PIPE}},
        {"CloseHandle", {ERROR_INVALID_HANDLE}, true},
        {"OpenProcess", {ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED}},
        {"DuplicateHandle", {ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED}},
        {"OpenProcessToken", {ERROR_ACCESS_DENIED}},
        {"LookupPrivilegeValueW", {ERROR_NO_SUCH_PRIVILEGE}},
        {"AdjustTokenPrivileges", {ERROR_ACCESS_DENIED}},
        // Event log and version.
        {"RegisterEventSourceW", {ERROR_ACCESS_DENIED}},
        {"ReportEventW", {ERROR_INVALID_HANDLE, ERROR_DISK_FULL}},
        {"GetVersionExW", {ERROR_INSUFFICIENT_BUFFER}},
        // The snapshot driver.
        {"KIV_Open",
         {ERROR_FILE_NOT_FOUND, ERROR_NOT_READY, ERROR_ACCESS_DENIED, ERROR_GEN_FAILURE}},
        {"KIV_Close", {ERROR_INVALID_HANDLE, ERROR_NOT_READY}, true},
        {"KIV_GetVolumeInformation", {ERROR_INVALID_HANDLE, ERROR_NOT_READY, ERROR_GEN_FAILURE}},
        {"KIV_GenerateVolumeName", {ERROR_NOT_READY, ERROR_NOT_ENOUGH_MEMORY}},
        {"KIV_Prepare",
         {ERROR_DISK_FULL, ERROR_SHARING_VIOLATION, ERROR_ALREADY_EXISTS, ERROR_PATH_NOT_FOUND,
          ERROR_ACCESS_DENIED, ERROR_NOT_READY, ERROR_NOT_ENOUGH_MEMORY}},
        {"KIV_Create",
         {ERROR_INVALID_HANDLE, ERROR_ALREADY_EXISTS, ERROR_FILE_NOT_FOUND, ERROR_DISK_FULL,
          ERROR_NOT_READY, ERROR_GEN_FAILURE}},
        {"KIV_Destroy", {ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE, ERROR_NOT_READY}},
        {"KIV_FreeResource", {ERROR_INVALID_PARAMETER}},
        {"KIV_DeviceIoControl", {ERROR_NOT_SUPPORTED, ERROR_INVALID_HANDLE}},
        {"KIV_Read", {ERROR_NOT_SUPPORTED, ERROR_INVALID_HANDLE}},
        {"KIV_GetAsyncResult", {ERROR_NOT_SUPPORTED}},
        {"KIV_CancelAsyncOperation", {ERROR_NOT_SUPPORTED}},
        {"KIV_GetCacheMap", {ERROR_NOT_SUPPORTED}},
    };
    return table;
}

std::string_view errorName(std::uint32_t error) {
// The constant's name next to its value.
#define NAMED(error) \
    { error, #error }
    static const std::map<std::uint32_t, std::string_view> names = {
        // clang-format off
        NAMED(ERROR_FILE_NOT_FOUND), NAMED(ERROR_PATH_NOT_FOUND), NAMED(ERROR_ACCESS_DENIED),
        NAMED(ERROR_INVALID_HANDLE), NAMED(ERROR_NOT_ENOUGH_MEMORY), NAMED(ERROR_NO_MORE_FILES),
        NAMED(ERROR_NOT_READY), NAMED(ERROR_GEN_FAILURE), NAMED(ERROR_SHARING_VIOLATION),
        NAMED(ERROR_NOT_SUPPORTED), NAMED(ERROR_INVALID_PARAMETER), NAMED(ERROR_BROKEN_PIPE),
        NAMED(ERROR_DISK_FULL), NAMED(ERROR_INSUFFICIENT_BUFFER), NAMED(ERROR_MOD_NOT_FOUND),
        NAMED(ERROR_PROC_NOT_FOUND), NAMED(ERROR_ALREADY_EXISTS), NAMED(ERROR_FILENAME_EXCED_RANGE),
        NAMED(ERROR_PIPE_BUSY), NAMED(ERROR_NO_DATA), NAMED(ERROR_MORE_DATA),
        NAMED(ERROR_NOT_OWNER), NAMED(ERROR_UNRECOGNIZED_VOLUME), NAMED(ERROR_NO_SUCH_PRIVILEGE),
        NAMED(ERROR_NOT_A_REPARSE_POINT),
        // clang-format on
    };
#undef NAMED
    auto found = names.find(error);
    return found == names.end() ? std::string_view("an error") : found->second;
}

}  // namespace faultsweep
