#include "fihost_run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testsupport {

FihostResult runFihost(const std::string& arguments) {
    FihostResult result;
    std::string errors =
        (std::filesystem::temp_directory_path() / ("fihost-stderr-" + std::to_string(::getpid())))
            .string();
    std::string command = std::string(FIHOST_PATH) + " " + arguments + " 2>'" + errors + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    std::size_t read = 0;
    while ((read = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        result.out.append(buffer, read);
    }
    int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(errors);
    std::ostringstream text;
    text << in.rdbuf();
    result.err = text.str();
    std::remove(errors.c_str());
    return result;
}

nlohmann::json jsonOf(const FihostResult& result) {
    return nlohmann::json::parse(result.out, nullptr, /*allow_exceptions=*/false);
}

}  // namespace testsupport
