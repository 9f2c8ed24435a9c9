// fihost events: the machine's event-log records, oldest first so that the
// newest is the last line, filtered by time and level.
#include <CLI/CLI.hpp>

#include <cctype>
#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "output.h"
#include "sim/eventlog.h"
#include "sim/machine.h"

namespace fihost {
namespace {

struct EventsOptions {
    std::string since;
    std::string level;
};

// The event types as the event log names them.
std::string typeName(std::uint16_t type) {
    switch (type) {
        case 1:
            return "error";
        case 2:
            return "warning";
        case 4:
            return "info";
        case 8:
            return "audit-success";
        case 16:
            return "audit-failure";
        default:
            return "type " + std::to_string(type);
    }
}

int runEvents(const GlobalOptions& options, const EventsOptions& events) {
    std::vector<sim::EventRecord> records;
    try {
        records = sim::readEventLog();
    } catch (const sim::MachineError& error) {
        std::cerr << "fihost events: " << error.what() << "\n";
        return kExitFailed;
    }
    nlohmann::json facts = nlohmann::json::array();
    for (const sim::EventRecord& record : records) {
        // Times are UTC in one fixed format, so text order is time order and
        // a prefix such as "2026-11-23T14" selects from that hour on.
        if (!events.since.empty() && record.time < events.since) {
            continue;
        }
        const std::string level = typeName(record.type);
        if (!events.level.empty() && level != events.level) {
            continue;
        }
        std::string text;
        for (const std::string& part : record.strings) {
            text += (text.empty() ? "" : " ") + part;
        }
        facts.push_back({{"time", record.time},
                         {"source", record.source},
                         {"level", level},
                         {"eventId", record.eventId},
                         {"pid", record.pid},
                         {"text", text}});
        if (!options.output->json()) {
            std::cout << record.time << "  " << level << "  " << record.source << "  event "
                      << record.eventId << "  process " << record.pid << "\n  " << text << "\n";
        }
    }
    options.output->result({{"events", facts}});
    if (facts.empty() && !options.output->json()) {
        std::cout << "no event-log records"
                  << (events.since.empty() && events.level.empty() ? "" : " match") << "\n";
    }
    return kExitOk;
}

}  // namespace

CommandRun configureEvents(CLI::App& command) {
    auto events = std::make_shared<EventsOptions>();
    command
        .add_option("--since", events->since,
                    "Only records from this UTC time on, such as 2026-11-23T14:00 or 2026-11-23")
        ->check([](const std::string& value) {
            return value.size() >= 4 && std::isdigit(static_cast<unsigned char>(value[0]))
                       ? std::string()
                       : "a time reads YYYY-MM-DD[THH:MM[:SS]] (UTC)";
        });
    command.add_option("--level", events->level, "Only records of this level")
        ->check(CLI::IsMember({"error", "warning", "info"}));
    command.footer(
        "Examples:\n"
        "  fihost events                        every record, the newest last\n"
        "  fihost events --level error --since 2026-11-23T14:00");
    return [events](const GlobalOptions& options) { return runEvents(options, *events); };
}

}  // namespace fihost
