// What a snapshot can leave behind on a simulated machine, read from the
// outside: snapshot sets in the driver's state, cache files on the volumes,
// handles the backup agent holds, and the descriptors of this process.
//
// Every function reads files only; none changes the machine.
#ifndef TESTS_SUPPORT_LEFTOVERS_H_
#define TESTS_SUPPORT_LEFTOVERS_H_

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

// What each open descriptor of this process refers to, sorted.
std::vector<std::string> openDescriptors();
// Cache files anywhere under the machine's directory (every volume's files
// live there).
std::vector<std::string> cacheFiles(const std::filesystem::path& machineDirectory);
// The snapshot sets the driver holds for the machine whose description is
// machineDirectory/machine.json.
std::size_t driverSets(const std::filesystem::path& machineDirectory);
// One field of every snapshot in the driver, sorted: "snapshotName", or
// "cacheKey" (the cache file as the driver compares it: volume GUID and path,
// folded).
std::vector<std::string> driverSnapshotFields(const std::filesystem::path& machineDirectory,
                                              const char* field);
// The names the machine's running agent holds handles for.
std::vector<std::string> agentHolds(const std::filesystem::path& machineDirectory);
// Everything above except the descriptors, one line each ("cache file ...",
// "driver snapshot sets: 2", "agent holds ..."); empty when nothing is left.
std::vector<std::string> machineLeftovers(const std::filesystem::path& machineDirectory);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_LEFTOVERS_H_
