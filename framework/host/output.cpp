#include "output.h"

#include <iostream>

#include "host/host_context.h"
#include "session.h"

namespace fihost {

std::string levelName(std::uint32_t level) {
    switch (level) {
        case 1:
            return "info";
        case 2:
            return "warning";
        case 3:
            return "error";
        case 4:
            return "trace";
        default:
            return "level " + std::to_string(level);
    }
}

void Output::message(const host::HostMessage& message) {
    const bool trace = message.level >= 4;
    if (trace && verbosity_ != Verbosity::kTrace) {
        return;
    }
    const std::string text = readableText(message);
    std::lock_guard<std::mutex> lock(mutex_);
    if (verbosity_ != Verbosity::kQuiet) {
        std::cerr << "[" << levelName(message.level) << "] " << text << "\n";
    }
    messages_.push_back({{"level", levelName(message.level)}, {"text", text}});
}

nlohmann::json Output::messages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

}  // namespace fihost
