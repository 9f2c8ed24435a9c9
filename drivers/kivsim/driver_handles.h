// What a driver handle stands for. Every driver handle is a Linux file
// descriptor in descriptor-handle form (sim/handles.h), so it can be taken
// into another process and closed with os::CloseHandle there:
//   - a source volume: the volume's backing directory;
//   - a snapshot volume: "<state>/driver/snapshots/<id>";
//   - a prepared snapshot set: "<state>/driver/sets/<id>".
// The descriptor is mapped back through the folder it names in
// /proc/self/fd, so a handle received from another process is understood the
// same way as one opened here. The driver's folders and the volumes' backing
// directories are resolved once per loaded machine (again only when a
// descriptor names none of them), so identifying a handle costs one readlink
// and a hash lookup whatever the number of volumes.
//
// Thread-safe.
#ifndef DRIVERS_KIVSIM_DRIVER_HANDLES_H_
#define DRIVERS_KIVSIM_DRIVER_HANDLES_H_

#include <cstdint>
#include <filesystem>

#include "sim/machine.h"

namespace kivsim {

using DriverHandle = std::uint64_t;

struct HandleTarget {
    enum class Kind { None, Volume, Snapshot, Set };
    Kind kind = Kind::None;
    const sim::Volume* volume = nullptr;  // Kind::Volume
    std::uint64_t id = 0;                 // Kind::Snapshot, Kind::Set
    // The folder behind a snapshot or set handle was removed (destroyed);
    // the handle can only be closed.
    bool removed = false;
    int fd = -1;
};

HandleTarget identifyHandle(const sim::Machine& machine, DriverHandle handle);

// Opens `directory` and returns its handle through `handle`; 0 or a Win32 code.
std::uint32_t openDirectoryHandle(const std::filesystem::path& directory, DriverHandle* handle);

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_DRIVER_HANDLES_H_
