#include "support/shell.h"

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <iterator>

namespace testsupport {

CommandRun runCommand(const std::string& command) {
    CommandRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[4096];
    while (std::size_t got = std::fread(buffer, 1, sizeof(buffer), pipe)) {
        run.output.append(buffer, got);
    }
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace testsupport
