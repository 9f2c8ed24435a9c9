// Reading the agent's state files. The agent locks its pid file with an
// open-file-description lock; a reader only tests for that lock (F_OFD_GETLK)
// and never takes it, so a reader can never make a starting agent believe
// another one runs.
#include "kivagent/agent_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

namespace kivagent {

std::filesystem::path agentDirectory(const std::filesystem::path& stateDirectory) {
    return stateDirectory / "agent";
}

std::filesystem::path pidFilePath(const std::filesystem::path& stateDirectory) {
    return stateDirectory / "kivagent.pid";
}

std::filesystem::path heldFilePath(const std::filesystem::path& stateDirectory) {
    return agentDirectory(stateDirectory) / "held.json";
}

std::filesystem::path logFilePath(const std::filesystem::path& stateDirectory) {
    return agentDirectory(stateDirectory) / "kivagent.log";
}

AgentStatus readAgentStatus(const std::filesystem::path& stateDirectory) {
    AgentStatus status;
    int fd = open(pidFilePath(stateDirectory).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return status;
    }
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    bool locked = fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
    char text[32] = {};
    ssize_t got = pread(fd, text, sizeof(text) - 1, 0);
    close(fd);
    if (!locked) {
        return status;
    }
    status.running = true;
    status.processId = got > 0 ? static_cast<pid_t>(std::atol(text)) : 0;

    std::ifstream in(heldFilePath(stateDirectory));
    nlohmann::json document = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object() || !document.contains("held") || !document["held"].is_array()) {
        return status;
    }
    for (const nlohmann::json& entry : document["held"]) {
        if (!entry.is_object()) {
            continue;
        }
        HeldVolume volume;
        try {
            volume.volumeName = entry.value("volumeName", "");
            volume.handle = entry.value("handle", std::uint64_t{0});
            volume.registeredBy = entry.value("registeredBy", std::uint32_t{0});
        } catch (const nlohmann::json::exception&) {
            continue;  // an entry of another shape; show the others
        }
        status.held.push_back(std::move(volume));
    }
    return status;
}

}  // namespace kivagent
