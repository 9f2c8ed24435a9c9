// Runs the real fihost program as a user does and keeps what it says: the
// exit code, stdout and stderr apart. The child inherits the environment, so
// a TempMachine of the test is the machine it works on.
#ifndef TESTS_PLUGIN_FIHOST_RUN_H_
#define TESTS_PLUGIN_FIHOST_RUN_H_

#include <string>

#include <nlohmann/json.hpp>

namespace testsupport {

struct FihostResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// `arguments` is shell text after the program name, such as "plan 'C:'".
FihostResult runFihost(const std::string& arguments);

// stdout parsed as JSON; a discarded value when it does not parse.
nlohmann::json jsonOf(const FihostResult& result);

// The machine the fihost tests run on: C: to snapshot (40 GiB free), D:
// disabled by the driver, E: with the most free space (300 GiB), and F:, a
// CD-ROM without a disc.
nlohmann::json fihostMachine();

inline bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace testsupport

#endif  // TESTS_PLUGIN_FIHOST_RUN_H_
