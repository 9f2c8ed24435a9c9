// Reading back the simulated machine's event log.
//
// os::ReportEventW appends one JSON object per record, one to a line, to
// "eventlog.jsonl" in the machine's state directory, with the fields "time"
// (UTC, "YYYY-MM-DDTHH:MM:SS.mmmZ"), "source", "type", "category", "eventId",
// "strings" (texts in UTF-8) and "pid". Writers from several processes append
// under an exclusive flock, so lines never interleave.
#ifndef PLATFORM_SIM_INCLUDE_SIM_EVENTLOG_H_
#define PLATFORM_SIM_INCLUDE_SIM_EVENTLOG_H_

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sim {

struct EventRecord {
    std::string time;
    std::string source;      // UTF-8
    std::uint16_t type = 0;  // os::EVENTLOG_*_TYPE
    std::uint16_t category = 0;
    std::uint32_t eventId = 0;
    std::vector<std::string> strings;  // UTF-8
    std::int64_t pid = 0;
};

// The log file of the current machine. Throws MachineError like Machine::current().
std::filesystem::path eventLogPath();

// Every record of the current machine's log in the order written; empty when
// there is no log yet. Lines that are not records (a torn write of a killed
// process) are skipped. Throws MachineError like Machine::current().
std::vector<EventRecord> readEventLog();

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_EVENTLOG_H_
