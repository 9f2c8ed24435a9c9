// The snapshot driver's machine-wide changes: preparing a snapshot set
// (checking its elements and making its cache files), creating its snapshot
// volumes, destroying them, giving up a preparation, and numbering generated
// volume names. Each runs as one transaction on the driver store
// (driver_store.h) and answers 0 or a Win32 code; unexpected failures throw
// as the store does.
#ifndef DRIVERS_KIVSIM_SNAPSHOT_SETS_H_
#define DRIVERS_KIVSIM_SNAPSHOT_SETS_H_

#include <cstdint>
#include <string>

#include "driver_handles.h"
#include "kivsim/kivapi.h"
#include "sim/machine.h"

namespace kivsim {

// Checks the `count` records, makes each cache file at its initial size and
// records the set; its handle goes to `handle`. Nothing is left behind when
// it fails.
std::uint32_t prepareSet(const sim::Machine& machine, const KivSnapshotParametersRecord* records,
                         std::uint16_t count, DriverHandle* handle);
// Makes the snapshot volumes of prepared set `setId` hold their sources as
// they are now; the quiesce values are kept with the set.
std::uint32_t createSet(const sim::Machine& machine, std::uint64_t setId, std::uint32_t quiesceWait,
                        std::uint32_t quiesceTimeout);
// Removes set `setId` with all its snapshot volumes and cache files.
std::uint32_t destroySet(const sim::Machine& machine, std::uint64_t setId);
// Removes one snapshot volume of a created set and its cache file.
std::uint32_t destroySnapshot(const sim::Machine& machine, std::uint64_t snapshotId);
// Gives up set `setId` with its cache files if it was prepared but never
// created (its handle is being closed).
void giveUpPreparation(const sim::Machine& machine, std::uint64_t setId);
// "GLOBALROOT\Device\KivSnapshot<N>" with the machine's next N.
std::string nextVolumeName(const sim::Machine& machine);

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_SNAPSHOT_SETS_H_
