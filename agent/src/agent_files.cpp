#include "agent_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "kivagent/agent_state.h"
#include "sim/text.h"

namespace kivagent {

AgentLock::~AgentLock() {
    if (fd_ >= 0) {
        // Unlink while still locked: a new agent then makes a new file.
        unlink(path_.c_str());
        close(fd_);
    }
}

AgentLock::Result AgentLock::acquire(const std::filesystem::path& stateDirectory,
                                     pid_t* otherProcess, std::string* error) {
    std::error_code ignored;
    std::filesystem::create_directories(agentDirectory(stateDirectory), ignored);
    path_ = pidFilePath(stateDirectory);
    for (;;) {
        int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            *error = "cannot open " + path_.string() + ": " + std::strerror(errno);
            return Result::kFailed;
        }
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
            int lockError = errno;
            char text[32] = {};
            ssize_t got = pread(fd, text, sizeof(text) - 1, 0);
            close(fd);
            if (lockError == EAGAIN || lockError == EACCES) {
                *otherProcess = got > 0 ? static_cast<pid_t>(std::atol(text)) : 0;
                return Result::kAlreadyRunning;
            }
            *error = "cannot lock " + path_.string() + ": " + std::strerror(lockError);
            return Result::kFailed;
        }
        // An agent that was stopping may have unlinked the file we opened
        // before we locked it: lock the file that is there now.
        struct stat opened {};
        struct stat named {};
        if (fstat(fd, &opened) != 0 || stat(path_.c_str(), &named) != 0 ||
            opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
            close(fd);
            continue;
        }
        std::string text = std::to_string(getpid()) + "\n";
        if (ftruncate(fd, 0) != 0 ||
            pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            *error = "cannot write " + path_.string() + ": " + std::strerror(errno);
            close(fd);
            return Result::kFailed;
        }
        fd_ = fd;
        return Result::kAcquired;
    }
}

bool writeHeldFile(const std::filesystem::path& stateDirectory, pid_t agentProcess,
                   const std::vector<HeldHandle>& held) {
    nlohmann::json list = nlohmann::json::array();
    for (const HeldHandle& entry : held) {
        list.push_back({{"volumeName", sim::toUtf8(entry.volumeName)},
                        {"handle", entry.handle},
                        {"registeredBy", entry.registeredBy},
                        {"sourceHandle", entry.sourceHandle}});
    }
    nlohmann::json document = {{"processId", agentProcess}, {"held", std::move(list)}};
    std::filesystem::path path = heldFilePath(stateDirectory);
    std::filesystem::path temporary = path;
    temporary += ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << document.dump(2) << '\n';
        if (!out.flush()) {
            return false;
        }
    }
    std::error_code failed;
    std::filesystem::rename(temporary, path, failed);
    return !failed;
}

void removeHeldFile(const std::filesystem::path& stateDirectory) {
    std::error_code ignored;
    std::filesystem::remove(heldFilePath(stateDirectory), ignored);
}

}  // namespace kivagent
