// fihost init: starts the plug-in the way the framework does, with a context
// whose callback prints what the plug-in reports, and shows the version it
// writes.
#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "commands.h"
#include "host/host_context.h"
#include "host/plugin_host.h"
#include "host/provider_list.h"

namespace fihost {

namespace {

struct InitOptions {
    std::string locale;
    bool noCallback = false;
};

int runInit(const GlobalOptions& options, const InitOptions& init) {
    host::HostContextOptions contextOptions;
    contextOptions.withCallback = !init.noCallback;
    if (!init.locale.empty()) {
        contextOptions.locale = init.locale;
    } else if (!options.locale.empty()) {
        contextOptions.locale = options.locale;
    }
    host::HostContext context(contextOptions);
    context.setListener([](const host::HostMessage& message) { printMessage(std::cout, message); });

    // The plug-in keeps the context and still reports while it is unloaded,
    // so the plug-in is declared after the context and goes first.
    host::PluginHost plugin;
    if (!loadPlugin(options, plugin).isOk()) {
        return kExitFailed;
    }

    tarn_version version{};
    std::int32_t status = plugin.init(context.context(), &version);
    std::cout << "init: status " << status << ", version " << host::versionString(version) << "\n";
    plugin.fini();
    return status == kTarnSuccess ? kExitOk : kExitFailed;
}

}  // namespace

CommandRun configureInit(CLI::App& command) {
    auto init = std::make_shared<InitOptions>();
    command.add_option("--locale", init->locale,
                       "Locale handed to the plug-in, e.g. de (the global --lang does the same)");
    command.footer(
        "Examples:\n"
        "  fihost init                          start-up, with every message of the plug-in\n"
        "  fihost --lang de init                the same with the German catalogue\n"
        "  fihost init --no-callback            a context without message callback");
    command.add_flag("--no-callback", init->noCallback, "Hand a context without message callback");
    return [init](const GlobalOptions& options) { return runInit(options, *init); };
}

}  // namespace fihost
