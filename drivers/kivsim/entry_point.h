// The common start and end of the driver library's entry points.
//
//   return entryPoint<"KIV_Create">([&]() -> std::uint32_t {
//       const sim::Machine& machine = loadedMachine();
//       const HandleTarget set = handleOf(machine, snapshot, {Kind::Set});
//       ...
//   });
//
// entryPoint first takes a scripted answer from the test hooks under the entry
// point's name, then runs the body. Nothing throws across the library
// boundary: a Refusal becomes its status, an unreadable driver state
// ERROR_FILE_CORRUPT (and is reported once, naming the file), other failures
// their Win32 code.
#ifndef DRIVERS_KIVSIM_ENTRY_POINT_H_
#define DRIVERS_KIVSIM_ENTRY_POINT_H_

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string>

#include "driver_handles.h"
#include "os/error.h"
#include "sim/hooks.h"
#include "sim/machine.h"

namespace kivsim {

// "The file or directory is corrupted and unreadable": the driver state file
// holds no state of this driver.
inline constexpr std::uint32_t ERROR_FILE_CORRUPT = 1392;

// Ends an entry point with `status`.
struct Refusal {
    std::uint32_t status;
};

// The current machine; refuses with ERROR_NOT_READY when there is none.
const sim::Machine& loadedMachine();

// What `handle` stands for; refuses with ERROR_INVALID_HANDLE unless it is
// one of `kinds` and, for a snapshot or set, its folder still exists.
using Kind = HandleTarget::Kind;
HandleTarget handleOf(const sim::Machine& machine, DriverHandle handle,
                      std::initializer_list<Kind> kinds);
// Same for any driver handle, also one whose folder was removed: such a
// handle can still be closed.
HandleTarget anyHandle(const sim::Machine& machine, DriverHandle handle);

// Says once per process, on standard error and in the machine's event log,
// that the driver state cannot be used and why.
void reportUnusableState(const std::string& problem);

// The status of `failure`, the exception being handled.
std::uint32_t statusOf(std::exception_ptr failure);

template <sim::FunctionName name, class Body>
std::uint32_t entryPoint(Body&& body) {
    std::uint32_t scripted = 0;
    if (sim::takeFault<name>(&scripted)) {
        return scripted;
    }
    try {
        return body();
    } catch (...) {
        return statusOf(std::current_exception());
    }
}

// An entry point this driver does not support: it checks its arguments and
// handle, clears `answered` (when given), and answers ERROR_NOT_SUPPORTED.
template <sim::FunctionName name>
std::uint32_t unsupported(DriverHandle handle, bool argumentsGiven, std::uint32_t* answered) {
    return entryPoint<name>([&]() -> std::uint32_t {
        if (!argumentsGiven) {
            return os::ERROR_INVALID_PARAMETER;
        }
        anyHandle(loadedMachine(), handle);
        if (answered != nullptr) {
            *answered = 0;
        }
        return os::ERROR_NOT_SUPPORTED;
    });
}

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_ENTRY_POINT_H_
