// COM library calls.
#ifndef PLATFORM_INCLUDE_OS_COM_H_
#define PLATFORM_INCLUDE_OS_COM_H_

#include "os/types.h"

namespace os {

// A number unique to the calling thread for the life of the process, never
// reused by a later thread (counts up from 1 in the order threads first ask).
DWORD CoGetCurrentProcess();

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_COM_H_
