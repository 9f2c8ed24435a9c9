// fihost providers: asks the plug-in who it is and which frozen-image methods
// it offers, and prints both.
#include <CLI/CLI.hpp>

#include <iostream>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "output.h"
#include "host/plugin_host.h"
#include "host/provider_list.h"

namespace fihost {

namespace {

int runProviders(const GlobalOptions& options) {
    host::PluginHost plugin;
    if (!loadPlugin(options, plugin).isOk()) {
        return kExitFailed;
    }
    host::ProviderInfo provider;
    host::Status status = host::readProviderInfo(plugin, &provider);
    if (!status.isOk()) {
        std::cerr << "fihost: provider information: " << status.toString() << "\n";
        return kExitFailed;
    }
    std::vector<host::MethodInfo> methods;
    status = host::readMethods(plugin, &methods);
    if (!status.isOk()) {
        std::cerr << "fihost: method list: " << status.toString() << "\n";
        return kExitFailed;
    }
    nlohmann::json methodFacts = nlohmann::json::array();
    for (const host::MethodInfo& method : methods) {
        methodFacts.push_back({{"name", method.name},
                               {"description", method.description},
                               {"version", method.versionText}});
    }
    options.output->result({{"provider", provider.name},
                            {"interfaceVersion", host::versionString(provider.version)},
                            {"methods", methodFacts}});
    if (options.output->json()) {
        return kExitOk;
    }
    std::cout << "provider " << provider.name << "\n";
    std::cout << "  interface version " << host::versionString(provider.version) << "\n";
    if (methods.empty()) {
        std::cout << "  no methods\n";
    }
    for (const host::MethodInfo& method : methods) {
        std::cout << "  method " << method.name << ": " << method.description << ", version "
                  << method.versionText << "\n";
    }
    return kExitOk;
}

}  // namespace

CommandRun configureProviders(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost providers                     name, interface version and method\n"
        "  fihost --plugin ./libfikiv.so providers");
    return &runProviders;
}

}  // namespace fihost
