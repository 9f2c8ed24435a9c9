#include "support/leftovers.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "kivagent/agent_state.h"

namespace testsupport {

namespace fs = std::filesystem;

std::vector<std::string> openDescriptors() {
    std::vector<std::string> open;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        open.push_back(fs::read_symlink(entry.path(), error).string());
    }
    std::sort(open.begin(), open.end());
    return open;
}

std::vector<std::string> cacheFiles(const fs::path& machineDirectory) {
    std::vector<std::string> found;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(machineDirectory, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (it->path().filename().string().starts_with("_tarnKivCacheFile_")) {
            found.push_back(it->path().string());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

namespace {

// The driver's snapshot sets; an empty array when it has none.
nlohmann::json driverSetList(const fs::path& machineDirectory) {
    std::ifstream in(machineDirectory / "machine.state" / "driver" / "state.json");
    if (!in) {
        return nlohmann::json::array();
    }
    nlohmann::json document = nlohmann::json::parse(in, nullptr, false);
    if (document.is_discarded() || !document.contains("sets") || !document["sets"].is_array()) {
        return nlohmann::json::array();
    }
    return document["sets"];
}

}  // namespace

std::size_t driverSets(const fs::path& machineDirectory) {
    return driverSetList(machineDirectory).size();
}

std::vector<std::string> driverSnapshotFields(const fs::path& machineDirectory,
                                              const char* field) {
    std::vector<std::string> values;
    for (const nlohmann::json& set : driverSetList(machineDirectory)) {
        for (const nlohmann::json& element : set.value("elements", nlohmann::json::array())) {
            values.push_back(element.value(field, std::string()));
        }
    }
    std::sort(values.begin(), values.end());
    return values;
}

std::vector<std::string> agentHolds(const fs::path& machineDirectory) {
    std::vector<std::string> names;
    for (const kivagent::HeldVolume& held :
         kivagent::readAgentStatus(machineDirectory / "machine.state").held) {
        names.push_back(held.volumeName);
    }
    return names;
}

std::vector<std::string> machineLeftovers(const fs::path& machineDirectory) {
    std::vector<std::string> found;
    if (std::size_t sets = driverSets(machineDirectory); sets != 0) {
        found.push_back("driver snapshot sets: " + std::to_string(sets));
    }
    for (const std::string& file : cacheFiles(machineDirectory)) {
        found.push_back("cache file " + file);
    }
    for (const std::string& name : agentHolds(machineDirectory)) {
        found.push_back("agent holds " + name);
    }
    return found;
}

}  // namespace testsupport
