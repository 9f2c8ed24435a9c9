// fihost volumes: every volume of the machine and whether the provider takes
// it for a snapshot (interpose), and why not: the provider's own warnings.
//
// The volumes are asked through the os:: volume functions, like any program;
// each is then offered to the plug-in by its first path, as a user names it.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "host/host_node.h"
#include "host/text.h"
#include "machine_view.h"
#include "output.h"
#include "session.h"

namespace fihost {
namespace {

int runVolumes(const GlobalOptions& options) {
    ProviderSession session(options);
    if (!session.start(options)) {
        return kExitFailed;
    }
    session.context().takeMessages();
    nlohmann::json facts = nlohmann::json::array();
    for (const VolumeView& volume : readVolumes()) {
        const std::string name = volume.paths.empty() ? volume.guidName : volume.paths.front();
        host::HostNode record(host::toUtf16(name));
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        const bool taken =
            session.plugin().interpose(record.record(), &identity, &groups, &count) == 1 &&
            identity != nullptr;
        // The provider's catalogue reports say why in words; its log warnings
        // are the reason only when it reported nothing else.
        std::vector<std::string> reports;
        std::vector<std::string> warnings;
        for (const host::HostMessage& message : session.context().takeMessages()) {
            if (message.level == 2 || message.level == 3) {
                (message.secondText.has_value() ? reports : warnings)
                    .push_back(readableText(message));
            }
        }
        std::vector<std::string> reasons = reports.empty() ? warnings : reports;
        if (!taken && reasons.empty()) {
            reasons.push_back(volume.driverAttributes
                                  ? "the provider gave no reason (fihost -v volumes shows its log)"
                                  : "the snapshot driver does not answer for it; without the "
                                    "driver library (kivapi.dll) the provider takes no volume");
        }
        nlohmann::json fact = volume.toJson();
        fact["name"] = volume.displayName();
        fact["taken"] = taken;
        fact["object"] = taken ? nlohmann::json(host::toUtf8(identity->name)) : nlohmann::json();
        fact["reasons"] = reasons;
        facts.push_back(fact);
        if (options.output->json()) {
            continue;
        }
        std::cout << volume.displayName() << "  " << volume.type << ", "
                  << (volume.fileSystem.empty() ? volume.fileSystemProblem : volume.fileSystem);
        if (volume.freeBytes) {
            std::cout << ", " << sizeText(*volume.freeBytes) << " free";
        }
        std::cout << "\n  " << (taken ? "taken for snapshots" : "not taken") << "\n";
        for (const std::string& reason : reasons) {
            std::cout << "    " << reason << "\n";
        }
    }
    options.output->result({{"volumes", facts}});
    return kExitOk;
}

}  // namespace

CommandRun configureVolumes(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost volumes               which volumes the provider takes, and why not\n"
        "  fihost -v volumes            with the provider's log lines\n"
        "  fihost --lang de volumes     the reasons in German");
    return &runVolumes;
}

}  // namespace fihost
