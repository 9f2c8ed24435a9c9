// A started provider: the plug-in loaded through the host library and
// initialised with a context that collects its messages. The subcommands
// that talk to the provider start from one.
#ifndef FRAMEWORK_HOST_SESSION_H_
#define FRAMEWORK_HOST_SESSION_H_

#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "host/host_context.h"
#include "host/plugin_host.h"

namespace fihost {

class ProviderSession {
  public:
    explicit ProviderSession(std::optional<std::string> locale);
    // With the catalogue locale that --lang names.
    explicit ProviderSession(const GlobalOptions& options);

    // Loads and initialises the plug-in; says on stderr why not. The
    // plug-in's callback messages go to the options' output (-v, --trace).
    bool start(const GlobalOptions& options);

    host::PluginHost& plugin() { return plugin_; }
    host::HostContext& context() { return context_; }

  private:
    host::HostContext context_;
    host::PluginHost plugin_;
};

// The message as a user reads it: a log line without the plug-in name and
// time stamp in front, a catalogue report in the --lang locale's wording.
std::string readableText(const host::HostMessage& message);

// Prints the messages below `maxLevel` (4 includes traces), indented.
void printMessages(const std::vector<host::HostMessage>& messages, std::uint32_t maxLevel,
                   const char* indent);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_SESSION_H_
