// fihost machine: the machine's volumes with their paths, types, file
// systems, space and the snapshot driver's attributes, asked the way any
// program asks them.
#include <CLI/CLI.hpp>

#include <iostream>

#include "commands.h"
#include "machine_view.h"
#include "os/version.h"
#include "output.h"
#include "sim/machine.h"

namespace fihost {
namespace {

int runMachine(const GlobalOptions& options) {
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    os::GetVersionExW(&version);
    const std::string file = sim::Machine::currentFile().string();
    const std::vector<VolumeView> volumes = readVolumes();

    nlohmann::json facts = nlohmann::json::array();
    for (const VolumeView& volume : volumes) {
        facts.push_back(volume.toJson());
    }
    options.output->result({{"machine", file},
                            {"windows",
                             {{"major", version.dwMajorVersion},
                              {"minor", version.dwMinorVersion},
                              {"build", version.dwBuildNumber}}},
                            {"volumes", facts}});
    if (options.output->json()) {
        return kExitOk;
    }
    std::cout << "machine " << file << "\nWindows " << version.dwMajorVersion << "."
              << version.dwMinorVersion << " build " << version.dwBuildNumber << "\n";
    for (const VolumeView& volume : volumes) {
        std::cout << "\n" << volume.guidName << "\n";
        std::string paths;
        for (const std::string& path : volume.paths) {
            paths += (paths.empty() ? "" : ", ") + path;
        }
        std::cout << "  paths        " << (paths.empty() ? "(none)" : paths) << "\n";
        std::cout << "  type         " << volume.type << "\n";
        if (volume.fileSystem.empty()) {
            std::cout << "  file system  " << volume.fileSystemProblem << "\n";
        } else {
            std::cout << "  file system  " << volume.fileSystem << ", label \"" << volume.label
                      << "\"\n";
        }
        if (volume.totalBytes && volume.freeBytes) {
            std::cout << "  space        " << sizeText(*volume.freeBytes) << " free of "
                      << sizeText(*volume.totalBytes) << "\n";
        } else {
            std::cout << "  space        unknown\n";
        }
        std::cout << "  driver       "
                  << (volume.driverAttributes ? attributeText(*volume.driverAttributes)
                                              : std::string("does not answer"))
                  << "\n";
        std::cout << "  files        " << volume.files << "\n";
    }
    return kExitOk;
}

}  // namespace

CommandRun configureMachine(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost machine                         the default machine's volumes\n"
        "  fihost --machine lab.json machine      another machine (docs/machine.md)\n"
        "  fihost --json machine                  the same facts as JSON");
    return &runMachine;
}

}  // namespace fihost
