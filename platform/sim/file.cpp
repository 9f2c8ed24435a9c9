// Files and directories of the simulated machine's volumes, kept in each
// volume's backing directory on Linux. Reading and writing through handles is
// in handle_io.cpp.
//
// Windows names ignore case: a name is matched against the entries on disk
// without regard to case, and a new entry keeps the spelling it was given.
#include "os/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
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

// Seconds from 1601-01-01 (the FILETIME epoch) to 1970-01-01.
constexpr std::uint64_t kEpochDifferenceSeconds = 11644473600ull;

class FileSearch final : public sim::SearchObject {
  public:
    std::vector<WIN32_FIND_DATAW> results;
    std::size_t next = 0;
};

std::u16string_view textOf(LPCWSTR text) {
    return text == nullptr ? std::u16string_view() : std::u16string_view(text);
}

bool hasWildcard(std::u16string_view text) {
    return text.find_first_of(u"*?") != std::u16string_view::npos;
}

// Characters Windows refuses in a file name (wildcards are checked apart).
bool hasBadNameCharacter(std::u16string_view relative) {
    for (char16_t c : relative) {
        if (c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'|') {
            return true;
        }
    }
    return false;
}

bool isLongPathForm(std::u16string_view path) {
    return path.size() >= 4 && path.substr(0, 4) == u"\\\\?\\";
}

// Resolves a path for a file function. On failure returns nullopt with
// *error set: ERROR_FILENAME_EXCED_RANGE for a path of MAX_PATH characters
// or more (unless in the "\\?\" form), ERROR_PATH_NOT_FOUND when no volume
// holds it, ERROR_NOT_READY / ERROR_UNRECOGNIZED_VOLUME for a volume without
// media or file system, ERROR_INVALID_NAME for a forbidden character.
std::optional<sim::ResolvedPath> resolveFile(const sim::Machine& machine, std::u16string_view path,
                                             DWORD* error) {
    if (path.size() >= MAX_PATH && !isLongPathForm(path)) {
        *error = ERROR_FILENAME_EXCED_RANGE;
        return std::nullopt;
    }
    auto resolved = machine.resolve(path);
    if (!resolved) {
        *error = ERROR_PATH_NOT_FOUND;
        return std::nullopt;
    }
    if (!resolved->volume->mediaPresent) {
        *error = ERROR_NOT_READY;
        return std::nullopt;
    }
    if (resolved->volume->fileSystem == u"RAW") {
        *error = ERROR_UNRECOGNIZED_VOLUME;
        return std::nullopt;
    }
    if (hasBadNameCharacter(resolved->relative)) {
        *error = ERROR_INVALID_NAME;
        return std::nullopt;
    }
    return resolved;
}

// FILE_NOT_FOUND when only the last component is missing, PATH_NOT_FOUND
// when a folder on the way is missing or is a file.
DWORD missingError(const std::filesystem::path& hostPath) {
    struct stat parent {};
    if (::stat(hostPath.parent_path().c_str(), &parent) == 0 && S_ISDIR(parent.st_mode)) {
        return ERROR_FILE_NOT_FOUND;
    }
    return ERROR_PATH_NOT_FOUND;
}

DWORD attributesOf(const struct stat& info) {
    if (S_ISDIR(info.st_mode)) {
        return FILE_ATTRIBUTE_DIRECTORY;
    }
    if ((info.st_mode & S_IWUSR) == 0) {
        return FILE_ATTRIBUTE_READONLY;
    }
    return FILE_ATTRIBUTE_NORMAL;
}

FILETIME fileTime(const struct timespec& time) {
    const std::uint64_t ticks =
        (static_cast<std::uint64_t>(time.tv_sec) + kEpochDifferenceSeconds) * 10000000ull +
        static_cast<std::uint64_t>(time.tv_nsec) / 100;
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

WIN32_FIND_DATAW findData(const struct stat& info, std::u16string_view name) {
    WIN32_FIND_DATAW data{};
    data.dwFileAttributes = attributesOf(info);
    data.ftCreationTime = fileTime(info.st_ctim);
    data.ftLastAccessTime = fileTime(info.st_atim);
    data.ftLastWriteTime = fileTime(info.st_mtim);
    if (!S_ISDIR(info.st_mode)) {
        const auto size = static_cast<std::uint64_t>(info.st_size);
        data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
        data.nFileSizeLow = static_cast<DWORD>(size);
    }
    const std::size_t length = std::min<std::size_t>(name.size(), MAX_PATH - 1);
    std::copy_n(name.begin(), length, data.cFileName);
    data.cFileName[length] = u'\0';
    return data;
}

// Wildcard match without regard to case: "*" any run, "?" one character.
bool matches(std::u16string_view pattern, std::u16string_view name) {
    std::size_t p = 0;
    std::size_t n = 0;
    std::size_t starAt = std::u16string_view::npos;
    std::size_t resumeAt = 0;
    while (n < name.size()) {
        if (p < pattern.size() &&
            (pattern[p] == u'?' || sim::foldCase(pattern[p]) == sim::foldCase(name[n]))) {
            ++p;
            ++n;
        } else if (p < pattern.size() && pattern[p] == u'*') {
            starAt = p++;
            resumeAt = n;
        } else if (starAt != std::u16string_view::npos) {
            p = starAt + 1;
            n = ++resumeAt;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*') {
        ++p;
    }
    return p == pattern.size();
}

std::u16string lastComponent(std::u16string_view path) {
    path = sim::withoutTrailingBackslashes(path);
    const std::size_t cut = path.find_last_of(u"\\/");
    return std::u16string(cut == std::u16string_view::npos ? path : path.substr(cut + 1));
}

}  // namespace

/***********************************************************************
 *           GetFileAttributesW   (kernel32.dll)
 */
DWORD GetFileAttributesW(LPCWSTR fileName) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"GetFileAttributesW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, INVALID_FILE_ATTRIBUTES);
    }
    if (fileName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_FILE_ATTRIBUTES);
    }
    const std::u16string_view name = textOf(fileName);
    if (name.empty()) {
        return sim::fail(ERROR_PATH_NOT_FOUND, INVALID_FILE_ATTRIBUTES);
    }
    const auto resolved = resolveFile(*machine, name, &error);
    if (!resolved) {
        return sim::fail(error, INVALID_FILE_ATTRIBUTES);
    }
    if (hasWildcard(resolved->relative)) {
        return sim::fail(ERROR_INVALID_NAME, INVALID_FILE_ATTRIBUTES);
    }
    if (resolved->relative.empty()) {
        return FILE_ATTRIBUTE_DIRECTORY;
    }
    struct stat info {};
    if (::stat(resolved->hostPath.c_str(), &info) != 0) {
        const int code = errno;
        return sim::fail(
            code == ENOENT ? missingError(resolved->hostPath) : sim::win32FromErrno(code),
            INVALID_FILE_ATTRIBUTES);
    }
    return attributesOf(info);
}

/***********************************************************************
 *           CreateDirectoryW   (kernel32.dll)
 */
BOOL CreateDirectoryW(LPCWSTR pathName, LPSECURITY_ATTRIBUTES /*securityAttributes*/) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"CreateDirectoryW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, FALSE);
    }
    const std::u16string_view name = textOf(pathName);
    if (name.empty()) {
        return sim::fail(ERROR_PATH_NOT_FOUND, FALSE);
    }
    const auto resolved = resolveFile(*machine, name, &error);
    if (!resolved) {
        return sim::fail(error, FALSE);
    }
    if (hasWildcard(resolved->relative)) {
        return sim::fail(ERROR_INVALID_NAME, FALSE);
    }
    // A volume root or mount point is always there.
    if (resolved->relative.empty()) {
        return sim::fail(ERROR_ALREADY_EXISTS, FALSE);
    }
    if (::mkdir(resolved->hostPath.c_str(), 0777) != 0) {
        const int code = errno;
        if (code == ENOENT || code == ENOTDIR) {
            return sim::fail(ERROR_PATH_NOT_FOUND, FALSE);
        }
        return sim::fail(sim::win32FromErrno(code), FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           FindFirstFileW   (kernel32.dll)
 */
HANDLE FindFirstFileW(LPCWSTR fileName, WIN32_FIND_DATAW* findFileData) {
    DWORD error = 0;
    const sim::Machine* machine = sim::enterCall<"FindFirstFileW">(&error);
    if (machine == nullptr) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    if (fileName == nullptr || findFileData == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    }
    const std::u16string_view name = textOf(fileName);
    if (name.empty()) {
        return sim::fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    const auto resolved = resolveFile(*machine, name, &error);
    if (!resolved) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    // "C:\dir\" names no file: a search needs a last component.
    if (name.back() == u'\\' || name.back() == u'/') {
        return sim::fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    auto search = std::make_unique<FileSearch>();
    struct stat info {};
    if (resolved->relative.empty()) {
        // The folder where a volume is mounted is an entry of its parent
        // folder; a drive root or GUID root is not an entry of anything.
        const bool folderMount = resolved->rootPath.size() > 3 &&
                                 !sim::startsWithIgnoreCase(resolved->rootPath, u"\\\\?\\Volume");
        if (!folderMount || ::stat(resolved->hostPath.c_str(), &info) != 0) {
            return sim::fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
        }
        search->results.push_back(findData(info, lastComponent(resolved->rootPath)));
    } else if (hasWildcard(lastComponent(resolved->relative))) {
        const std::u16string pattern = lastComponent(resolved->relative);
        if (hasWildcard(resolved->relative.substr(0, resolved->relative.size() - pattern.size()))) {
            return sim::fail(ERROR_INVALID_NAME, INVALID_HANDLE_VALUE);
        }
        const std::filesystem::path folder = resolved->hostPath.parent_path();
        std::error_code listError;
        std::filesystem::directory_iterator entries(folder, listError);
        if (listError) {
            return sim::fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
        }
        for (const auto& entry : entries) {
            const std::u16string entryName = sim::fromUtf8(entry.path().filename().string());
            if (matches(pattern, entryName) && ::stat(entry.path().c_str(), &info) == 0) {
                search->results.push_back(findData(info, entryName));
            }
        }
        // NTFS lists a folder in name order, ignoring case.
        std::sort(
            search->results.begin(), search->results.end(),
            [](const WIN32_FIND_DATAW& a, const WIN32_FIND_DATAW& b) {
                std::u16string_view left(a.cFileName);
                std::u16string_view right(b.cFileName);
                return std::lexicographical_compare(
                    left.begin(), left.end(), right.begin(), right.end(),
                    [](char16_t x, char16_t y) { return sim::foldCase(x) < sim::foldCase(y); });
            });
        if (search->results.empty()) {
            return sim::fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
        }
    } else {
        if (::stat(resolved->hostPath.c_str(), &info) != 0) {
            const int code = errno;
            return sim::fail(
                code == ENOENT ? missingError(resolved->hostPath) : ERROR_PATH_NOT_FOUND,
                INVALID_HANDLE_VALUE);
        }
        search->results.push_back(
            findData(info, sim::fromUtf8(resolved->hostPath.filename().string())));
    }
    *findFileData = search->results.front();
    search->next = 1;
    return sim::registerHandle(std::move(search));
}

/***********************************************************************
 *           FindNextFileW   (kernel32.dll)
 */
BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* findFileData) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindNextFileW">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* search = sim::lookupHandleAs<FileSearch>(find);
    if (search == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (findFileData == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (search->next >= search->results.size()) {
        return sim::fail(ERROR_NO_MORE_FILES, FALSE);
    }
    *findFileData = search->results[search->next++];
    return TRUE;
}

/***********************************************************************
 *           FindClose   (kernel32.dll)
 */
BOOL FindClose(HANDLE find) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FindClose">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (sim::lookupHandleAs<FileSearch>(find) == nullptr || !sim::closeTableHandle(find)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    return TRUE;
}

}  // namespace os
