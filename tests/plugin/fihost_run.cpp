#include "fihost_run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/temp_machine.h"

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

nlohmann::json fihostMachine() {
    constexpr std::uint64_t kGiB = 1ull << 30;
    nlohmann::json cdrom = TempMachine::volume(4, {"F:\\"}, "cdrom", "CDFS", 0, 0, 0);
    cdrom["mediaPresent"] = false;
    return {{"volumes",
             {TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100 * kGiB, 40 * kGiB),
              TempMachine::volume(2, {"D:\\"}, "fixed", "NTFS", 900 * kGiB, 800 * kGiB, 0x4),
              TempMachine::volume(3, {"E:\\"}, "fixed", "NTFS", 400 * kGiB, 300 * kGiB), cdrom}}};
}

}  // namespace testsupport
