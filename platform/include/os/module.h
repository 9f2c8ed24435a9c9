// Dynamic libraries: loading the snapshot driver's API library and binding
// operating-system functions at run time.
//
// "kernel32.dll" is always loaded in every process; GetProcAddress on it
// resolves the volume functions of os/volume.h by their Win32 names. Library
// names ignore case.
#ifndef PLATFORM_INCLUDE_OS_MODULE_H_
#define PLATFORM_INCLUDE_OS_MODULE_H_

#include "os/types.h"

namespace os {

// NULL with ERROR_MOD_NOT_FOUND when the library cannot be found or loaded.
HMODULE LoadLibraryW(LPCWSTR fileName);
// NULL with ERROR_PROC_NOT_FOUND when the module has no export of that name
// (export names are case-sensitive; ordinals are not supported),
// ERROR_INVALID_HANDLE for a null module, ERROR_MOD_NOT_FOUND for a handle
// that names no loaded module.
FARPROC GetProcAddress(HMODULE module, LPCSTR procName);
// Drops one reference of LoadLibraryW; the library is unloaded with the last.
// FALSE with ERROR_INVALID_HANDLE for a module that is not loaded.
BOOL FreeLibrary(HMODULE module);
// Handle of an already loaded module ("kernel32.dll", case-insensitive), or
// NULL with ERROR_MOD_NOT_FOUND.
HMODULE GetModuleHandleW(LPCWSTR moduleName);
// Turns off the thread attach and detach notifications of `module`. TRUE;
// FALSE with the reason in last error.
BOOL DisableThreadLibraryCalls(HMODULE module);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_MODULE_H_
