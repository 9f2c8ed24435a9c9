#include "session.h"

#include <iostream>

#include "output.h"

namespace fihost {
namespace {

// "<plug-in name>:" followed by "Www Mmm dd yyyy hh:mm:ss.uuuuuu " starts every
// log line.
constexpr std::size_t kTimeStampLength = 31;

std::string withoutLogPrefix(const std::string& line) {
    std::size_t colon = line.find(':');
    if (colon == std::string::npos || line.size() < colon + 1 + kTimeStampLength + 1) {
        return line;
    }
    std::string text = line.substr(colon + 1 + kTimeStampLength + 1);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

ProviderSession::ProviderSession(std::optional<std::string> locale)
    : context_(host::HostContextOptions{.locale = std::move(locale)}) {}

ProviderSession::ProviderSession(const GlobalOptions& options)
    : ProviderSession(options.locale.empty() ? std::nullopt
                                             : std::optional<std::string>(options.locale)) {}

bool ProviderSession::start(const GlobalOptions& options) {
    if (Output* output = options.output) {
        context_.setListener(
            [output](const host::HostMessage& message) { output->message(message); });
    }
    if (!loadPlugin(options, plugin_).isOk()) {
        return false;
    }
    tarn_version version{};
    std::int32_t status = plugin_.init(context_.context(), &version);
    if (status != 0) {
        std::cerr << "fihost: init answered " << status << "\n";
        return false;
    }
    return true;
}

std::string readableText(const host::HostMessage& message) {
    // A catalogue report: the locale's wording when there is one, else the root's.
    if (message.secondText.has_value()) {
        return message.text.value_or(*message.secondText);
    }
    return withoutLogPrefix(message.text.value_or(""));
}

void printMessages(const std::vector<host::HostMessage>& messages, std::uint32_t maxLevel,
                   const char* indent) {
    for (const host::HostMessage& message : messages) {
        if (message.level > maxLevel) {
            continue;
        }
        std::cout << indent << levelName(message.level) << ": " << readableText(message) << "\n";
    }
}

}  // namespace fihost
