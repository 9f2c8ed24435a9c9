// Base of the search handles (volume, mount point and file searches). They
// are table handles like any other, but each has its own closer on Windows
// (FindVolumeClose, FindVolumeMountPointClose, FindClose): CloseHandle refuses
// them, so a caller that closes a search the wrong way sees the failure here.
#ifndef PLATFORM_SIM_SEARCH_HANDLE_H_
#define PLATFORM_SIM_SEARCH_HANDLE_H_

#include "sim/handles.h"

namespace sim {

class SearchObject : public HandleObject {};

}  // namespace sim

#endif  // PLATFORM_SIM_SEARCH_HANDLE_H_
