// The result of a host operation: success, or a code with a text saying what
// failed. Success carries nothing.
#ifndef FRAMEWORK_HOST_HOST_STATUS_H_
#define FRAMEWORK_HOST_HOST_STATUS_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace host {

class [[nodiscard]] Status {
  public:
    // What went wrong, as far as the host can tell.
    enum class Code : std::uint8_t {
        kOk = 0,
        kNotFound,         // a file or an entry point is missing
        kLoadFailed,       // the dynamic loader refused the library
        kPluginFailed,     // the plug-in answered a failing status code
        kInvalidArgument,  // the caller passed something unusable
        kReserved,         // keeps switches over codes honest: use a default
    };

    Status() = default;

    static Status ok() { return Status(); }
    static Status notFound(std::string what) { return Status(Code::kNotFound, std::move(what)); }
    static Status loadFailed(std::string what) {
        return Status(Code::kLoadFailed, std::move(what));
    }
    // `what` names the call; the plug-in's status is kept as well.
    static Status pluginFailed(std::string what, std::int32_t pluginStatus) {
        Status status(Code::kPluginFailed,
                      std::move(what) + ": status " + std::to_string(pluginStatus));
        status.state_->pluginStatus = pluginStatus;
        return status;
    }
    static Status invalidArgument(std::string what) {
        return Status(Code::kInvalidArgument, std::move(what));
    }

    bool isOk() const { return state_ == nullptr; }
    Code code() const { return state_ == nullptr ? Code::kOk : state_->code; }
    // The plug-in's status code for kPluginFailed, 0 otherwise.
    std::int32_t pluginStatus() const { return state_ == nullptr ? 0 : state_->pluginStatus; }
    // "ok", or the description given when the status was made.
    std::string toString() const { return state_ == nullptr ? "ok" : state_->text; }

  private:
    struct State {
        Code code;
        std::string text;
        std::int32_t pluginStatus = 0;
    };

    Status(Code code, std::string text)
        : state_(std::make_shared<State>(State{code, std::move(text), 0})) {}

    std::shared_ptr<State> state_;
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_STATUS_H_
