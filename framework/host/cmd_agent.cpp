// fihost agent start|stop|status: the backup agent of this machine, which
// holds the snapshot volumes handed to it.
#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

#include "commands.h"
#include "host/agent_process.h"
#include "kivagent/agent_state.h"
#include "output.h"
#include "sim/machine.h"

namespace fihost {
namespace {

struct AgentOptions {
    std::string action;
    std::string program = host::defaultAgentPath();
};

nlohmann::json statusFacts(const kivagent::AgentStatus& status) {
    nlohmann::json held = nlohmann::json::array();
    for (const kivagent::HeldVolume& volume : status.held) {
        held.push_back(volume.volumeName);
    }
    return {{"running", status.running},
            {"pid", status.running ? nlohmann::json(status.processId) : nlohmann::json()},
            {"holds", held}};
}

kivagent::AgentStatus currentStatus() {
    return kivagent::readAgentStatus(sim::Machine::current().stateDirectory());
}

int runAgent(const GlobalOptions& options, const AgentOptions& agentOptions) {
    const bool text = !options.output->json();
    kivagent::AgentStatus before = currentStatus();
    if (agentOptions.action == "status") {
        options.output->result(statusFacts(before));
        if (text && !before.running) {
            std::cout << "no backup agent runs on this machine\n";
        } else if (text) {
            std::cout << "the backup agent runs, process " << before.processId << ", holding "
                      << before.held.size()
                      << (before.held.size() == 1 ? " snapshot volume" : " snapshot volumes")
                      << "\n";
            for (const kivagent::HeldVolume& volume : before.held) {
                std::cout << "  " << volume.volumeName << "\n";
            }
        }
        return kExitOk;
    }
    host::AgentProcess agent(agentOptions.program);
    if (agentOptions.action == "start") {
        if (before.running) {
            options.output->result(statusFacts(before));
            if (text) {
                std::cout << "the backup agent already runs, process " << before.processId << "\n";
            }
            return kExitOk;
        }
        host::Status started = agent.start();
        if (!started.isOk()) {
            std::cerr << "fihost agent start: " << started.toString() << "\n";
            return kExitFailed;
        }
        agent.release();
        options.output->result(statusFacts(currentStatus()));
        if (text) {
            std::cout << "backup agent started, process " << currentStatus().processId << "\n";
        }
        return kExitOk;
    }
    if (!before.running) {
        options.output->result(statusFacts(before));
        if (text) {
            std::cout << "no backup agent runs on this machine\n";
        }
        return kExitOk;
    }
    host::Status stopped = agent.stopRunning();
    if (!stopped.isOk()) {
        std::cerr << "fihost agent stop: " << stopped.toString() << "\n";
        return kExitFailed;
    }
    options.output->result(statusFacts(currentStatus()));
    if (text) {
        std::cout << "backup agent stopped, process " << before.processId << "\n";
        if (!before.held.empty()) {
            std::cout << "it held " << before.held.size()
                      << " snapshot volume(s); they still exist ('fihost list'), and 'fihost "
                         "delete' still disposes of them\n";
        }
    }
    return kExitOk;
}

}  // namespace

CommandRun configureAgent(CLI::App& command) {
    auto agentOptions = std::make_shared<AgentOptions>();
    command.add_option("action", agentOptions->action, "start, stop or status")
        ->required()
        ->check(CLI::IsMember({"start", "stop", "status"}));
    command.add_option("--agent", agentOptions->program, "Path of the kivagent program")
        ->capture_default_str();
    command.footer(
        "Examples:\n"
        "  fihost agent start        start the backup agent in the background\n"
        "  fihost agent status       whether it runs and which snapshot volumes it holds\n"
        "  fihost agent stop         stop it (kept snapshots stay; it lets go of them)");
    return
        [agentOptions](const GlobalOptions& options) { return runAgent(options, *agentOptions); };
}

}  // namespace fihost
