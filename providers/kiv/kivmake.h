// Snapshot creation (KivNode::make): KIV_Create with the group's quiesce
// times, an object identity for every snapshot volume, and the registration
// of each snapshot volume's handle with the backup agent.
#ifndef PROVIDERS_KIV_KIVMAKE_H_
#define PROVIDERS_KIV_KIVMAKE_H_

#include <cstdint>
#include <string>

#include "kiv/cachefile/kivapi.h"
#include "tarn/records.h"

// Agent registrations retried while the pipe is busy, per snapshot volume: at
// most kRegisterRetries + 1 attempts, each followed by kAgentWaitMs.
inline constexpr std::uint32_t kRegisterRetries = 30;
inline constexpr std::uint32_t kAgentWaitMs = 1000;

// Registers `handle` to the snapshot volume `volumeName` with the agent,
// retrying while its pipe is busy; failures are reported. Returns the last
// status.
std::uint32_t registerSnapshotVolume(KivHandle handle, const std::u16string& volumeName);

// Marks `record` made (status bit 0x1), makes the identity of its snapshot
// volume, opens the volume and registers it with the agent, then closes this
// process's handle. Null when the record has no KivNode or no identity could
// be made. `volumeName` receives the wide snapshot volume name.
tarn_objid* makeSnapshotVolume(KivApi* api, tarn_node* record, std::u16string& volumeName);

#endif  // PROVIDERS_KIV_KIVMAKE_H_
