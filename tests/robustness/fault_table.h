// The platform and driver functions the fault sweep fails, each with the
// error codes it can answer on a working machine. Functions that cannot
// fail (Sleep, GetTickCount64, EnterCriticalSection, ...) are not listed.
#ifndef TESTS_FAULTS_FAULT_TABLE_H_
#define TESTS_FAULTS_FAULT_TABLE_H_

#include <cstdint>
#include <string_view>
#include <vector>

namespace faultsweep {

struct FallibleFunction {
    std::string_view name;
    std::vector<std::uint32_t> errors;
    // The injected failure leaves the handle open by definition (the close
    // did not happen), so a descriptor left in the host is the fault's own.
    bool closesHandle = false;
};

const std::vector<FallibleFunction>& fallibleFunctions();

// The constant's name, such as "ERROR_PIPE_BUSY".
std::string_view errorName(std::uint32_t error);

}  // namespace faultsweep

#endif  // TESTS_FAULTS_FAULT_TABLE_H_
