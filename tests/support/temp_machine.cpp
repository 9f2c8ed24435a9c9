#include "support/temp_machine.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "sim/hooks.h"
#include "sim/machine.h"

namespace testsupport {
namespace {

std::string guidText(int number) {
    char text[64];
    std::snprintf(text, sizeof(text), "{00000000-0000-0000-0000-%012d}", number);
    return text;
}

}  // namespace

TempMachine::TempMachine(const nlohmann::json& description) {
    std::string pattern = (std::filesystem::temp_directory_path() / "fikiv-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    directory_ = pattern;
    file_ = directory_ / "machine.json";
    std::ofstream(file_) << description.dump(2);
    if (const char* previous = std::getenv("FIKIV_MACHINE")) {
        previous_ = previous;
        hadPrevious_ = true;
    }
    setenv("FIKIV_MACHINE", file_.c_str(), 1);
    sim::clearFaults();
    sim::Machine::reset();
}

TempMachine::~TempMachine() {
    if (hadPrevious_) {
        setenv("FIKIV_MACHINE", previous_.c_str(), 1);
    } else {
        unsetenv("FIKIV_MACHINE");
    }
    sim::clearFaults();
    sim::Machine::reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

nlohmann::json TempMachine::volume(int number, std::initializer_list<const char*> paths,
                                   const char* type, const char* fileSystem,
                                   std::uint64_t totalBytes, std::uint64_t freeBytes,
                                   std::uint32_t attributes) {
    nlohmann::json pathList = nlohmann::json::array();
    for (const char* path : paths) {
        pathList.push_back(path);
    }
    return {{"guid", guidText(number)},
            {"paths", pathList},
            {"type", type},
            {"fileSystem", fileSystem},
            {"totalBytes", totalBytes},
            {"freeBytes", freeBytes},
            {"driver", {{"attributes", attributes}, {"value", 0}}}};
}

std::u16string TempMachine::guidName(int number) {
    std::string text = "\\\\?\\Volume" + guidText(number) + "\\";
    return std::u16string(text.begin(), text.end());
}

}  // namespace testsupport
