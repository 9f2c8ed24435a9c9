// fihost: loads the fikiv plug-in the way the framework host does and drives
// it from the command line, one subcommand per task.
#include <CLI/CLI.hpp>

#include <iostream>
#include <vector>

#include "commands.h"

int main(int argc, char** argv) {
    CLI::App app{"Loads the fikiv snapshot provider and drives it as the framework host does"};
    app.require_subcommand(1);
    // Global options may also follow the subcommand: fihost providers --plugin PATH
    app.fallthrough();

    fihost::GlobalOptions options;
    options.pluginPath = fihost::defaultPluginPath();
    app.add_option("--plugin", options.pluginPath, "Path of the plug-in library")
        ->capture_default_str();

    const std::vector<fihost::Command>& table = fihost::commandTable();
    std::vector<fihost::CommandRun> runners(table.size());
    std::vector<CLI::App*> subcommands(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        subcommands[i] = app.add_subcommand(table[i].name, table[i].description);
        runners[i] = table[i].configure(*subcommands[i]);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version requests exit 0; every other parse failure is a usage error.
        return app.exit(error) == 0 ? fihost::kExitOk : fihost::kExitUsage;
    }

    for (std::size_t i = 0; i < table.size(); ++i) {
        if (subcommands[i]->parsed()) {
            return runners[i](options);
        }
    }
    return fihost::kExitFailed;
}
