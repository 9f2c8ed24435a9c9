#include "commands.h"

#include <unistd.h>

#include <iostream>
#include <system_error>

#include "host/plugin_host.h"

namespace fihost {

const std::vector<Command>& commandTable() {
    static const std::vector<Command> table = {
        {"providers", "Show the provider's name, interface version and methods",
         &configureProviders},
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

host::Status loadPlugin(const GlobalOptions& options, host::PluginHost& plugin) {
    host::Status status = plugin.load(options.pluginPath);
    if (!status.isOk()) {
        std::cerr << "fihost: " << status.toString() << "\n";
    }
    return status;
}

}  // namespace fihost
