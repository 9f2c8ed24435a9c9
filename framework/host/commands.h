// The fihost subcommands. Each lives in its own file and is listed once in the
// command table; fihost.cpp turns the table into CLI11 subcommands.
#ifndef FRAMEWORK_HOST_COMMANDS_H_
#define FRAMEWORK_HOST_COMMANDS_H_

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "host/status.h"

namespace CLI {
class App;
}

namespace host {
class PluginHost;
struct HostMessage;
}  // namespace host

namespace fihost {

class Output;

// Options that every subcommand shares.
struct GlobalOptions {
    std::string pluginPath;
    // --machine: the machine description the command works on. The frame
    // points FIKIV_MACHINE at it before the command runs; empty leaves
    // FIKIV_MACHINE, or the default machine, in charge.
    std::string machineFile;
    // --lang: the catalogue locale handed to the plug-in; empty for none.
    std::string locale;
    // Where the command's facts and the plug-in's messages go (--json, -v,
    // --trace). Never null while a command runs.
    Output* output = nullptr;
};

// Runs a parsed subcommand; the result is the program's exit code.
using CommandRun = std::function<int(const GlobalOptions& options)>;

struct Command {
    const char* name;
    const char* description;
    // Adds the subcommand's own options to `command` and returns what runs it
    // once the command line is parsed.
    CommandRun (*configure)(CLI::App& command);
};

// Every subcommand, in the order the help lists them.
const std::vector<Command>& commandTable();

// libfikiv.so in the lib directory next to the directory of this program.
std::string defaultPluginPath();

// Loads the plug-in named by the options, and says on stderr why not.
host::Status loadPlugin(const GlobalOptions& options, host::PluginHost& plugin);

// "status 3: The request is invalid." for a status the plug-in answered, the
// text from the framework's TarnError catalogue in the --lang locale.
std::string statusText(std::int32_t status, const GlobalOptions& options);

// A usage error found after parsing: "fihost <command>: <text>" and where to
// read the usage, on stderr; answers kExitUsage.
int usageFailure(const char* command, const std::string& text);

// Prints one message of the plug-in's callback: its level, the first text and,
// when it has one, the second text on its own line.
void printMessage(std::ostream& out, const host::HostMessage& message);

// Exit codes of the subcommands.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// One configure function per subcommand file.
CommandRun configureInit(CLI::App& command);
CommandRun configureProviders(CLI::App& command);
CommandRun configureMachine(CLI::App& command);
CommandRun configureVolumes(CLI::App& command);
CommandRun configureConfigInfo(CLI::App& command);
CommandRun configureConfigSet(CLI::App& command);
CommandRun configurePlan(CLI::App& command);
CommandRun configureSnapshot(CLI::App& command);
CommandRun configureList(CLI::App& command);
CommandRun configureDelete(CLI::App& command);
CommandRun configureCaches(CLI::App& command);
CommandRun configureEvents(CLI::App& command);
CommandRun configureAgent(CLI::App& command);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_COMMANDS_H_
