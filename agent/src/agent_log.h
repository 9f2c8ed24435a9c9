// The agent's log: one line per event, with a UTC time stamp, to stderr and
// appended to a file. Each line goes out in one write, so lines from the
// pipe's instance threads never interleave.
//
// Thread-safe.
#ifndef AGENT_SRC_AGENT_LOG_H_
#define AGENT_SRC_AGENT_LOG_H_

#include <filesystem>
#include <string>
#include <string_view>

namespace kivagent {

class AgentLog {
  public:
    AgentLog() = default;
    AgentLog(const AgentLog&) = delete;
    AgentLog& operator=(const AgentLog&) = delete;
    ~AgentLog();

    // Appends to `path` from now on. False (with the reason) when it cannot
    // be opened; the log then goes to stderr only.
    bool openFile(const std::filesystem::path& path, std::string* error);
    // Writes "<time> <line>\n".
    void write(std::string_view line);

  private:
    int fd_ = -1;
};

}  // namespace kivagent

#endif  // AGENT_SRC_AGENT_LOG_H_
