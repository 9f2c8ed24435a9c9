#include "commands.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>

#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/text.h"
#include "tarn/msgcatalog.h"

namespace fihost {

namespace {

// Log lines arrive with their own line end; the printer adds its own.
std::string withoutLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

const std::vector<Command>& commandTable() {
    static const std::vector<Command> table = {
        {"providers", "Show the provider's name, interface version and methods",
         &configureProviders},
        {"init", "Initialise the provider and print what it reports", &configureInit},
        {"machine", "Show the machine's volumes: paths, types, file systems, space, driver",
         &configureMachine},
        {"volumes", "List every volume and whether the provider takes it, and why not",
         &configureVolumes},
        {"config-info", "Print the provider's configuration information documents",
         &configureConfigInfo},
        {"config-set", "Hand the provider a settings document and show what it keeps",
         &configureConfigSet},
        {"plan", "Dry run: where the cache files of a snapshot would go, and why", &configurePlan},
        {"snapshot",
         "Take a snapshot of volumes, optionally run a command while it exists, dispose of it",
         &configureSnapshot},
        {"list", "List the snapshots that exist on the machine", &configureList},
        {"delete", "Dispose of kept snapshots (by snapshot volume name, or --all)",
         &configureDelete},
        {"caches", "Show the cache files on each volume and the free space", &configureCaches},
        {"events", "Show the event-log records of the machine, the newest last", &configureEvents},
        {"agent", "Start, stop or ask after the machine's backup agent", &configureAgent},
    };
    return table;
}

std::string defaultPluginPath() {
    std::string program(4096, '\0');
    ssize_t length = ::readlink("/proc/self/exe", program.data(), program.size() - 1);
    if (length <= 0) {
        return "libfikiv.so";
    }
    program.resize(static_cast<std::size_t>(length));
    std::size_t slash = program.rfind('/');
    std::string binDirectory = slash == std::string::npos ? "." : program.substr(0, slash);
    return binDirectory + "/../lib/libfikiv.so";
}

void printMessage(std::ostream& out, const host::HostMessage& message) {
    static const char* const kLevels[] = {"level 0", "info", "warning", "error", "trace"};
    std::string level = message.level < std::size(kLevels)
                            ? kLevels[message.level]
                            : "level " + std::to_string(message.level);
    out << "[" << level << "] " << withoutLineEnd(message.text.value_or("(none)")) << "\n";
    if (message.secondText.has_value()) {
        out << "        " << withoutLineEnd(*message.secondText) << "\n";
    }
}

std::string statusText(std::int32_t status, const GlobalOptions& options) {
    char id[32];
    std::snprintf(id, sizeof(id), "MSG_TARN_E%04d", status);
    tarp_MsgCatalog catalog("TarnError", options.locale.c_str(), false);
    const char16_t* text = catalog.getCachedMsg(id, false);
    std::string result = "status " + std::to_string(status);
    if (text != nullptr) {
        result += ": " + host::toUtf8(text);
    }
    return result;
}

int usageFailure(const char* command, const std::string& text) {
    std::cerr << "fihost " << command << ": " << text << "\nRun 'fihost " << command
              << " --help' for the usage.\n";
    return kExitUsage;
}

host::Status loadPlugin(const GlobalOptions& options, host::PluginHost& plugin) {
    host::Status status = plugin.load(options.pluginPath);
    if (!status.isOk()) {
        std::cerr << "fihost: " << status.toString() << "\n";
    }
    return status;
}

}  // namespace fihost
