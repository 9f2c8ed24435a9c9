#include "host/driver_state.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace host {

namespace fs = std::filesystem;

Status readExistingSnapshots(const fs::path& stateDirectory,
                             std::vector<ExistingSnapshot>* snapshots) {
    snapshots->clear();
    const fs::path file = stateDirectory / "driver" / "state.json";
    std::ifstream in(file);
    if (!in) {
        return Status::ok();
    }
    std::ostringstream text;
    text << in.rdbuf();
    const nlohmann::json document = nlohmann::json::parse(text.str(), nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        return Status::invalidArgument("the snapshot driver's state " + file.string() +
                                       " does not parse");
    }
    try {
        for (const nlohmann::json& set : document.value("sets", nlohmann::json::array())) {
            if (!set.value("created", false)) {
                continue;
            }
            for (const nlohmann::json& element : set.value("elements", nlohmann::json::array())) {
                ExistingSnapshot snapshot;
                snapshot.setId = set.value("id", std::uint64_t{0});
                snapshot.snapshotName = element.value("snapshotName", "");
                snapshot.source = element.value("source", "");
                snapshot.cacheFile = element.value("cacheFileName", "");
                snapshot.cacheHostPath = element.value("cacheHostPath", "");
                snapshot.initialCacheMb = element.value("initialSizeMb", 0u);
                snapshot.maximumCacheMb = element.value("maximumSizeMb", 0u);
                snapshot.contentPath = stateDirectory / "driver" / "snapshots" /
                                       std::to_string(element.value("snapshotId", 0ull));
                std::error_code error;
                fs::file_time_type made = fs::last_write_time(snapshot.contentPath, error);
                if (!error) {
                    snapshot.made = made;
                }
                snapshots->push_back(std::move(snapshot));
            }
        }
    } catch (const nlohmann::json::exception& error) {
        return Status::invalidArgument("the snapshot driver's state " + file.string() +
                                       " is not as expected: " + error.what());
    }
    return Status::ok();
}

std::string utcText(fs::file_time_type time) {
    const auto system = std::chrono::file_clock::to_sys(time);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(system);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

}  // namespace host
