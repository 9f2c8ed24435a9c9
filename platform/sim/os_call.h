// The common start of the os:: functions that answer from the machine
// description.
#ifndef PLATFORM_SIM_OS_CALL_H_
#define PLATFORM_SIM_OS_CALL_H_

#include <string_view>

#include "os/error.h"
#include "sim/hooks.h"
#include "sim/machine.h"

namespace sim {

// Counts the call of `function` and applies an injected fault, then loads the
// machine. Returns the machine, or null with *error set: the fault's code, or
// ERROR_NOT_READY when the machine description cannot be loaded (the
// description's own message is kept by Machine::currentOrNull).
inline const Machine* enterCall(std::string_view function, os::DWORD* error) {
    std::uint32_t injected = 0;
    if (takeFault(function, &injected)) {
        *error = injected;
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
