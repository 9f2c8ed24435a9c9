// Libraries of the simulated machine. "kernel32.dll" is a module that is
// always there and resolves the os:: functions by their Win32 names; every
// other "name.dll" is the shared library "libname.so" ("kivapi.dll" is the
// driver library libkivapi.so), loaded with dlopen from the directories of
// FIKIV_LIBRARY_PATH (a colon-separated list), then from the directory of this
// platform library, then through the normal search of the dynamic loader.
// Threads get no attach notifications here, so DisableThreadLibraryCalls has
// nothing to turn off.
//
// All functions are thread-safe.
#include "os/module.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/time.h"
#include "os/version.h"
#include "os/volume.h"
#include "os_call.h"
#include "sim/errors.h"
#include "sim/hooks.h"
#include "sim/text.h"

namespace os {
namespace {

constexpr std::string_view kKernel32 = "kernel32.dll";

struct LoadedModule {
    std::string name;  // lower-case file name, "kivapi.dll"
    int references = 0;
};

struct ModuleTable {
    std::mutex mutex;
    std::map<void*, LoadedModule> modules;  // by dlopen handle
};

ModuleTable& moduleTable() {
    static ModuleTable* instance = new ModuleTable;
    return *instance;
}

// The kernel32 pseudo-module: an address that no dlopen handle can have.
HMODULE kernel32Handle() {
    static const char marker = 0;
    return reinterpret_cast<HMODULE>(const_cast<char*>(&marker));
}

template <class Function>
FARPROC procOf(Function* function) {
    return reinterpret_cast<FARPROC>(function);
}

struct Export {
    const char* name;
    FARPROC address;
};

FARPROC kernel32Export(std::string_view name) {
    static const Export kExports[] = {
        {"FindFirstVolumeW", procOf(&FindFirstVolumeW)},
        {"FindNextVolumeW", procOf(&FindNextVolumeW)},
        {"FindVolumeClose", procOf(&FindVolumeClose)},
        {"FindFirstVolumeMountPointW", procOf(&FindFirstVolumeMountPointW)},
        {"FindNextVolumeMountPointW", procOf(&FindNextVolumeMountPointW)},
        {"FindVolumeMountPointClose", procOf(&FindVolumeMountPointClose)},
        {"GetVolumePathNameW", procOf(&GetVolumePathNameW)},
        {"GetVolumeNameForVolumeMountPointW", procOf(&GetVolumeNameForVolumeMountPointW)},
        {"GetLogicalDriveStringsW", procOf(&GetLogicalDriveStringsW)},
        {"GetDriveTypeW", procOf(&GetDriveTypeW)},
        {"GetVolumeInformationW", procOf(&GetVolumeInformationW)},
        {"GetDiskFreeSpaceExW", procOf(&GetDiskFreeSpaceExW)},
        {"GetFileAttributesW", procOf(&GetFileAttributesW)},
        {"CreateDirectoryW", procOf(&CreateDirectoryW)},
        {"FindFirstFileW", procOf(&FindFirstFileW)},
        {"FindNextFileW", procOf(&FindNextFileW)},
        {"FindClose", procOf(&FindClose)},
        {"GetVersionExW", procOf(&GetVersionExW)},
        {"GetLastError", procOf(&GetLastError)},
        {"SetLastError", procOf(&SetLastError)},
        {"CloseHandle", procOf(&CloseHandle)},
        {"Sleep", procOf(&Sleep)},
        {"GetTickCount64", procOf(&GetTickCount64)},
        {"LoadLibraryW", procOf(&LoadLibraryW)},
        {"GetProcAddress", procOf(&GetProcAddress)},
        {"FreeLibrary", procOf(&FreeLibrary)},
        {"GetModuleHandleW", procOf(&GetModuleHandleW)},
    };
    // Looked up by hash: programs bind these on every use.
    static const auto* table = [] {
        auto* byName = new std::unordered_map<std::string_view, FARPROC>;
        for (const Export& entry : kExports) {
            byName->emplace(entry.name, entry.address);
        }
        return byName;
    }();
    auto found = table->find(name);
    return found == table->end() ? nullptr : found->second;
}

// Whether the last component of `path` is "kernel32.dll" or "kernel32" in
// any case, without converting it.
bool namesKernel32(std::u16string_view path) {
    const std::size_t cut = path.find_last_of(u"\\/");
    const std::u16string_view name = cut == std::u16string_view::npos ? path : path.substr(cut + 1);
    constexpr std::u16string_view kName = u"kernel32.dll";
    if (name.size() != kName.size() && name.size() != kName.size() - 4) {
        return false;
    }
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t c = name[i] >= u'A' && name[i] <= u'Z' ? name[i] + 0x20 : name[i];
        if (c != kName[i]) {
            return false;
        }
    }
    return true;
}

// "C:\dir\KivApi.DLL" -> "kivapi.dll"
std::string moduleFileName(std::u16string_view path) {
    const std::size_t cut = path.find_last_of(u"\\/");
    return sim::lowerAscii(
        sim::toUtf8(cut == std::u16string_view::npos ? path : path.substr(cut + 1)));
}

bool isKernel32(std::string_view name) {
    return name == kKernel32 || name == "kernel32";
}

// "kivapi.dll" -> "libkivapi.so"
std::string sharedObjectName(std::string_view name) {
    std::string stem(name);
    if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".dll") == 0) {
        stem.resize(stem.size() - 4);
    } else if (stem.size() > 3 && stem.compare(stem.size() - 3, 3, ".so") == 0) {
        return stem;
    }
    return "lib" + stem + ".so";
}

std::string platformLibraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&LoadLibraryW), &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    std::string path = info.dli_fname;
    const std::size_t cut = path.find_last_of('/');
    return cut == std::string::npos ? std::string(".") : path.substr(0, cut);
}

bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// dlopen of the first candidate that exists; null when none loads.
void* openLibrary(const std::string& soName) {
    constexpr int kFlags = RTLD_NOW | RTLD_LOCAL;
    if (soName.find('/') != std::string::npos) {
        return dlopen(soName.c_str(), kFlags);
    }
    std::string directories;
    if (const char* configured = std::getenv("FIKIV_LIBRARY_PATH"); configured != nullptr) {
        directories = configured;
    }
    const std::string own = platformLibraryDirectory();
    if (!own.empty()) {
        directories += (directories.empty() ? "" : ":") + own;
    }
    std::size_t start = 0;
    while (start <= directories.size()) {
        std::size_t end = directories.find(':', start);
        if (end == std::string::npos) {
            end = directories.size();
        }
        const std::string directory = directories.substr(start, end - start);
        start = end + 1;
        if (directory.empty()) {
            continue;
        }
        const std::string candidate = directory + "/" + soName;
        if (fileExists(candidate)) {
            if (void* handle = dlopen(candidate.c_str(), kFlags)) {
                return handle;
            }
        }
    }
    return dlopen(soName.c_str(), kFlags);
}

}  // namespace

/***********************************************************************
 *           LoadLibraryW   (kernel32.dll)
 */
HMODULE LoadLibraryW(LPCWSTR fileName) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"LoadLibraryW">(&error)) {
        return sim::fail(error, HMODULE{nullptr});
    }
    if (fileName == nullptr || fileName[0] == u'\0') {
        return sim::fail(ERROR_INVALID_PARAMETER, HMODULE{nullptr});
    }
    const std::string name = moduleFileName(fileName);
    if (sim::isLibraryMissing(name) || (isKernel32(name) && sim::isLibraryMissing(kKernel32))) {
        return sim::fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
    }
    if (isKernel32(name)) {
        return kernel32Handle();
    }
    const std::u16string_view path(fileName);
    const bool linuxPath = path.find(u'/') != std::u16string_view::npos;
    void* handle = openLibrary(linuxPath ? sim::toUtf8(path) : sharedObjectName(name));
    if (handle == nullptr) {
        return sim::fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
    }
    ModuleTable& table = moduleTable();
    std::lock_guard lock(table.mutex);
    LoadedModule& module = table.modules[handle];
    module.name = name;
    ++module.references;
    return reinterpret_cast<HMODULE>(handle);
}

/***********************************************************************
 *           GetProcAddress   (kernel32.dll)
 */
FARPROC GetProcAddress(HMODULE module, LPCSTR procName) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"GetProcAddress">(&error)) {
        return sim::fail(error, FARPROC{nullptr});
    }
    if (module == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FARPROC{nullptr});
    }
    if (procName == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FARPROC{nullptr});
    }
    // An ordinal (a number below 0x10000 in place of the name): no module
    // here exports by ordinal.
    if (reinterpret_cast<std::uintptr_t>(procName) < 0x10000) {
        return sim::fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
    }
    if (module == kernel32Handle()) {
        FARPROC address =
            sim::isUnbindable(kKernel32, procName) ? nullptr : kernel32Export(procName);
        return address != nullptr ? address : sim::fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
    }
    std::string name;
    {
        ModuleTable& table = moduleTable();
        std::lock_guard lock(table.mutex);
        auto found = table.modules.find(reinterpret_cast<void*>(module));
        if (found == table.modules.end()) {
            return sim::fail(ERROR_MOD_NOT_FOUND, FARPROC{nullptr});
        }
        name = found->second.name;
    }
    if (sim::isUnbindable(name, procName)) {
        return sim::fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
    }
    void* symbol = dlsym(reinterpret_cast<void*>(module), procName);
    if (symbol == nullptr) {
        return sim::fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
    }
    return reinterpret_cast<FARPROC>(symbol);
}

/***********************************************************************
 *           FreeLibrary   (kernel32.dll)
 */
BOOL FreeLibrary(HMODULE module) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"FreeLibrary">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (module == kernel32Handle()) {
        return TRUE;
    }
    void* handle = reinterpret_cast<void*>(module);
    {
        ModuleTable& table = moduleTable();
        std::lock_guard lock(table.mutex);
        auto found = table.modules.find(handle);
        if (found == table.modules.end() || found->second.references == 0) {
            return sim::fail(ERROR_INVALID_HANDLE, FALSE);
        }
        if (--found->second.references > 0) {
            return TRUE;
        }
        table.modules.erase(found);
    }
    dlclose(handle);
    return TRUE;
}

/***********************************************************************
 *           GetModuleHandleW   (kernel32.dll)
 */
HMODULE GetModuleHandleW(LPCWSTR moduleName) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"GetModuleHandleW">(&error)) {
        return sim::fail(error, HMODULE{nullptr});
    }
    ModuleTable& table = moduleTable();
    if (moduleName == nullptr) {
        // The program itself; registered so GetProcAddress can search it.
        void* program = dlopen(nullptr, RTLD_NOW);
        std::lock_guard lock(table.mutex);
        LoadedModule& module = table.modules[program];
        if (module.references == 0) {
            module.references = 1;
        } else {
            dlclose(program);
        }
        return reinterpret_cast<HMODULE>(program);
    }
    if (namesKernel32(moduleName)) {
        // "kernel32" may be made missing under its short name too.
        if (sim::isLibraryMissing(kKernel32) ||
            (std::u16string_view(moduleName).ends_with(u"2") &&
             sim::isLibraryMissing(moduleFileName(moduleName)))) {
            return sim::fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
        }
        return kernel32Handle();
    }
    const std::string name = moduleFileName(moduleName);
    if (sim::isLibraryMissing(name)) {
        return sim::fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
    }
    std::lock_guard lock(table.mutex);
    for (const auto& [handle, module] : table.modules) {
        if (module.name == name) {
            return reinterpret_cast<HMODULE>(handle);
        }
    }
    return sim::fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
}

/***********************************************************************
 *           DisableThreadLibraryCalls   (kernel32.dll)
 */
BOOL DisableThreadLibraryCalls(HMODULE /*module*/) {
    std::uint32_t error = 0;
    if (sim::faultOnEntry<"DisableThreadLibraryCalls">(&error)) {
        return sim::fail(error, FALSE);
    }
    return TRUE;
}

}  // namespace os
