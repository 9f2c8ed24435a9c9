#include "agent_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kivagent {
namespace {

std::string timeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[80];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  now.tv_nsec / 1000000);
    return text;
}

void writeAll(int fd, const std::string& text) {
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

}  // namespace

AgentLog::~AgentLog() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool AgentLog::openFile(const std::filesystem::path& path, std::string* error) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot open " + path.string() + ": " + std::strerror(errno);
        return false;
    }
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = fd;
    return true;
}

void AgentLog::write(std::string_view line) {
    std::string text = timeStamp();
    text += ' ';
    text += line;
    text += '\n';
    writeAll(STDERR_FILENO, text);
    if (fd_ >= 0) {
        writeAll(fd_, text);
    }
}

}  // namespace kivagent
