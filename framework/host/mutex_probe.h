// What fihost can tell about the machine-wide provider mutex, which every
// cache placement holds: the provider itself only learns that it could not
// get it, so a time-out and an owner that died holding it read alike.
#ifndef FRAMEWORK_HOST_MUTEX_PROBE_H_
#define FRAMEWORK_HOST_MUTEX_PROBE_H_

#include <cstdint>
#include <string>

namespace fihost {

enum class MutexState : std::uint8_t {
    kFree,         // nobody held it
    kHeld,         // another process holds it right now
    kAbandoned,    // its owner ended while holding it; fihost took it and let it go
    kUnavailable,  // it could not be opened or waited for
};

// Looks at the provider mutex without waiting. An abandoned mutex is taken
// and released at once, so the placement that follows finds it free.
MutexState probeProviderMutex();

// One line for an administrator: what a failed placement means for `before`,
// the state seen just before it; for kAbandoned, that it was repaired.
std::string mutexFailureText(MutexState before);

// "error 5: Access is denied." for a system error code.
std::string systemErrorText(std::uint32_t code);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_MUTEX_PROBE_H_
