// Snapshot disposal (KivNode::dispose): get a handle to the snapshot volume
// (opening it, or duplicating the backup agent's), have the agent release
// its own handle, and destroy the snapshot with KIV_Destroy.
#ifndef PROVIDERS_KIV_KIVDISPOSE_H_
#define PROVIDERS_KIV_KIVDISPOSE_H_

#include <cstdint>
#include <string>

#include "kiv/cachefile/kivapi.h"

// Agent requests retried while its pipe is busy: at most kAgentRetries + 1
// attempts, each followed by a wait of kDisposeWaitMs.
inline constexpr std::uint32_t kAgentRetries = 30;
inline constexpr std::uint32_t kDisposeWaitMs = 1000;
// KIV_Destroy calls while the driver answers 5 (busy), each 5 followed by a
// wait of kDisposeWaitMs.
inline constexpr std::uint32_t kDestroyAttempts = 100;
inline constexpr std::uint32_t kDestroyBusy = 5;

// A duplicate of the agent's handle to `volumeName` into `*handle`, retrying
// while the pipe is busy. False (reported) when there is none.
bool retrieveAgentHandle(const std::u16string& volumeName, KivHandle* handle);

// Asks the agent to let go of its handle to `volumeName`, retrying while the
// pipe is busy; a failure is reported and not returned.
void releaseAgentHandle(const std::u16string& volumeName);

// Calls KIV_Destroy on `handle` until it answers something other than 5, at
// most kDestroyAttempts times; returns the last status.
std::uint32_t destroySnapshot(KivApi* api, KivHandle* handle);

#endif  // PROVIDERS_KIV_KIVDISPOSE_H_
