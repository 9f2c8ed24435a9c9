// What a fihost command hands back besides its exit code: the facts of its
// answer for --json, and the plug-in's callback messages that -v and --trace
// show.
//
// Text goes to std::cout as each command prints it. With --json the frame
// collects instead: a command that describes its answer calls result(), and
// the frame writes one JSON document on stdout at the end; a command that
// does not is represented by the lines it printed. Not thread-safe except
// message(), which the plug-in may call from any thread.
#ifndef FRAMEWORK_HOST_OUTPUT_H_
#define FRAMEWORK_HOST_OUTPUT_H_

#include <cstdint>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace host {
struct HostMessage;
}

namespace fihost {

// Which callback messages reach stderr.
enum class Verbosity : std::uint8_t {
    kQuiet,  // none; commands show what they need themselves
    kLog,    // -v: information, warnings and errors, with their levels
    kTrace,  // --trace: traces too
};

class Output {
  public:
    Output(bool json, Verbosity verbosity) : json_(json), verbosity_(verbosity) {}

    bool json() const { return json_; }
    Verbosity verbosity() const { return verbosity_; }

    // The facts of the command's answer; the JSON document's "result".
    void result(nlohmann::json facts) { result_ = std::move(facts); }
    const nlohmann::json& result() const { return result_; }
    bool hasResult() const { return !result_.is_null(); }

    // One message of the plug-in's callback: printed on stderr as it arrives
    // when the verbosity asks for it, and kept for the JSON document.
    void message(const host::HostMessage& message);
    nlohmann::json messages() const;

  private:
    bool json_;
    Verbosity verbosity_;
    nlohmann::json result_;
    mutable std::mutex mutex_;
    nlohmann::json messages_ = nlohmann::json::array();
};

// "info", "warning", "error", "trace" for the callback's levels 1 to 4.
std::string levelName(std::uint32_t level);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_OUTPUT_H_
