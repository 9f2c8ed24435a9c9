// fihost volumes: lists every volume of the machine with its paths, type, file
// system, space and driver attributes, and whether the provider would
// interpose it, or why not.
#include <CLI/CLI.hpp>

#include <cinttypes>
#include <cstdio>
#include <iostream>

#include "host/host_node.h"
#include "host/text.h"
#include "session.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace fihost {
namespace {

struct VolumesOptions {
    std::string locale;
    bool traces = false;
};

std::string gibibytes(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
    return text;
}

int runVolumes(const GlobalOptions& options, const VolumesOptions& volumesOptions) {
    const sim::Machine* machine = nullptr;
    try {
        machine = &sim::Machine::current();
    } catch (const sim::MachineError& error) {
        std::cerr << "fihost: " << error.what() << "\n";
        return kExitFailed;
    }
    ProviderSession session(volumesOptions.locale.empty()
                                ? std::nullopt
                                : std::optional<std::string>(volumesOptions.locale));
    if (!session.start(options)) {
        return kExitFailed;
    }
    std::cout << "machine " << machine->file().string() << "\n";
    for (const sim::Volume& volume : machine->volumes()) {
        std::cout << "\n" << host::toUtf8(volume.guidName) << "\n";
        std::cout << "  paths:";
        if (volume.paths.empty()) {
            std::cout << " (none)";
        }
        for (const std::u16string& path : volume.paths) {
            std::cout << " " << host::toUtf8(path);
        }
        char attributes[16];
        std::snprintf(attributes, sizeof(attributes), "0x%" PRIx32, volume.driverAttributes);
        std::cout << "\n  " << sim::driveTypeName(static_cast<std::uint32_t>(volume.type)) << ", "
                  << host::toUtf8(volume.fileSystem) << ", " << gibibytes(volume.totalBytes)
                  << " total, " << gibibytes(volume.freeBytes) << " free, driver attributes "
                  << attributes << "\n";

        // The host names a volume by its first path, as a user would; a volume
        // without one by its GUID name.
        std::u16string name = volume.paths.empty() ? volume.guidName : volume.paths.front();
        host::HostNode record(name);
        session.context().takeMessages();
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        std::int32_t answer =
            session.plugin().interpose(record.record(), &identity, &groups, &count);
        if (answer == 1 && identity != nullptr) {
            std::cout << "  interposed as " << host::toUtf8(identity->name) << "\n";
        } else {
            std::cout << "  not interposed\n";
        }
        printMessages(session.context().takeMessages(), volumesOptions.traces ? 4 : 3, "    ");
    }
    return kExitOk;
}

}  // namespace

CommandRun configureVolumes(CLI::App& command) {
    auto volumesOptions = std::make_shared<VolumesOptions>();
    command.add_option("--locale", volumesOptions->locale, "Locale for catalogue messages");
    command.add_flag("--traces", volumesOptions->traces, "Show the provider's trace lines too");
    return [volumesOptions](const GlobalOptions& options) {
        return runVolumes(options, *volumesOptions);
    };
}

}  // namespace fihost
