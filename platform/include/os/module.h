// Dynamic libraries: loading the snapshot driver's API library and binding
// operating-system functions at run time.
//
// "kernel32.dll" is always loaded; GetProcAddress on it resolves the volume
// functions of os/volume.h by their Win32 names. LoadLibraryW("kivapi.dll")
// loads the driver library (libkivapi.so) from the directory named by the
// environment variable FIKIV_LIBRARY_PATH, else from the directory that holds
// the platform library itself.
#ifndef PLATFORM_INCLUDE_OS_MODULE_H_
#define PLATFORM_INCLUDE_OS_MODULE_H_

#include "os/types.h"

namespace os {

// NULL with ERROR_MOD_NOT_FOUND when the library cannot be found or loaded.
HMODULE LoadLibraryW(LPCWSTR fileName);
// NULL with ERROR_PROC_NOT_FOUND when the module has no export of that name,
// ERROR_INVALID_HANDLE for a null module.
FARPROC GetProcAddress(HMODULE module, LPCSTR procName);
BOOL FreeLibrary(HMODULE module);
// Handle of an already loaded module ("kernel32.dll", case-insensitive), or
// NULL with ERROR_MOD_NOT_FOUND.
HMODULE GetModuleHandleW(LPCWSTR moduleName);
// Turns off per-thread attach notifications; nothing to do here, always TRUE.
BOOL DisableThreadLibraryCalls(HMODULE module);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_MODULE_H_
