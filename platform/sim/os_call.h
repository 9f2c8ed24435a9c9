// The common start of every os:: function of the simulated machine.
//
//   if (sim::faultOnEntry<"FindNextVolumeW">(&error)) return sim::fail(error, FALSE);
//   const sim::Machine* machine = sim::enterCall<"GetDriveTypeW">(&error);
//
// Each function keeps a reference to its own call site (sim/hooks.h), found
// by name once, so the common case costs no lookup.
#ifndef PLATFORM_SIM_OS_CALL_H_
#define PLATFORM_SIM_OS_CALL_H_

#include "os/error.h"
#include "sim/hooks.h"
#include "sim/machine.h"

namespace sim {

// Counts the call of `name` and applies an injected fault: true with *error
// set when the call is to fail.
template <FunctionName name>
bool faultOnEntry(os::DWORD* error) {
    return takeFault<name>(error);
}

// Counts the call of `name` and applies an injected fault, then loads the
// machine. Returns the machine, or null with *error set: the fault's code, or
// ERROR_NOT_READY when the machine description cannot be loaded (the
// description's own message is kept by Machine::currentOrNull).
template <FunctionName name>
const Machine* enterCall(os::DWORD* error) {
    if (faultOnEntry<name>(error)) {
        return nullptr;
    }
    const Machine* machine = Machine::currentOrNull();
    if (machine == nullptr) {
        *error = os::ERROR_NOT_READY;
    }
    return machine;
}

}  // namespace sim

#endif  // PLATFORM_SIM_OS_CALL_H_
