// The platform clock behind os::Sleep, os::GetTickCount64, the time-of-day
// calls and every timed wait of the simulated machine.
//
// Normally the clock is the real one. With sim::useVirtualClock(true)
// (sim/hooks.h) it becomes virtual: time stands still until something waits,
// and a wait that would block moves time forward by its whole length at once
// instead of blocking. Tests then see every wait without spending it.
//
// All functions are thread-safe.
#ifndef PLATFORM_SIM_INCLUDE_SIM_CLOCK_H_
#define PLATFORM_SIM_INCLUDE_SIM_CLOCK_H_

#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

namespace sim {

// Milliseconds since an arbitrary start that never goes backwards: virtual
// time while the virtual clock is on, CLOCK_MONOTONIC otherwise. Turning the
// virtual clock on starts virtual time at the real reading, so the value does
// not jump back.
std::uint64_t nowMs();

// Milliseconds since the Unix epoch (UTC). Under the virtual clock: the real
// time when it was turned on plus the virtual time that has passed since.
std::int64_t wallClockMs();

// Moves virtual time forward; does nothing while the virtual clock is off.
void advanceVirtualClock(std::uint64_t milliseconds);

// One timed wait on an object that was not available at once (the caller
// tries without blocking first).
//
// - Virtual clock on and a finite `timeoutMs` (not 0xFFFFFFFF): virtual time
//   advances by the whole time-out, the wait is recorded (recordedWaits), and
//   the result is false (timed out) without calling `realWait`. A time-out of 0
//   advances nothing and records nothing.
// - Otherwise `realWait` blocks for real: it gets the absolute CLOCK_REALTIME
//   deadline (null for an infinite wait, which also blocks for real under the
//   virtual clock, as the object can only come from another thread or
//   process) and returns true when it obtained the object, false when the
//   deadline passed. Its result is returned.
bool advanceOrWait(std::uint32_t timeoutMs,
                   const std::function<bool(const struct timespec* deadline)>& realWait);

// Time-outs of waits that ran on the virtual clock, in the order they ran.
std::vector<std::uint32_t> recordedWaits();
void clearRecordedWaits();
// Used by advanceOrWait.
void recordWait(std::uint32_t milliseconds);

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_CLOCK_H_
