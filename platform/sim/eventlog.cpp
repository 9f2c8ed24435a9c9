// The event log of the simulated machine: a JSON-lines file in the machine's
// state directory, shared by every process of the machine. Each record is
// written with one write() on an O_APPEND descriptor while holding an
// exclusive flock, so concurrent writers never interleave.
#include "os/eventlog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "os/error.h"
#include "os/time.h"
#include "os_call.h"
#include "sim/errors.h"
#include "sim/eventlog.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace {

class EventSource final : public sim::HandleObject {
  public:
    explicit EventSource(std::string name) : name_(std::move(name)) {}
    const std::string& name() const { return name_; }

  private:
    std::string name_;
};

std::string utcTimeText() {
    os::SYSTEMTIME now{};
    os::GetSystemTime(&now);
    char text[64];
    std::snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", now.wYear, now.wMonth,
                  now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    return text;
}

// Appends one line under the file lock; a Win32 code, 0 on success.
os::DWORD appendLine(const std::filesystem::path& file, const std::string& line) {
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return sim::win32FromErrno(errno);
    }
    os::DWORD result = 0;
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            result = sim::win32FromErrno(errno);
            break;
        }
    }
    if (result == 0) {
        std::size_t done = 0;
        while (done < line.size()) {
            ssize_t written = ::write(fd, line.data() + done, line.size() - done);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                result = sim::win32FromErrno(errno);
                break;
            }
            done += static_cast<std::size_t>(written);
        }
        ::flock(fd, LOCK_UN);
    }
    ::close(fd);
    return result;
}

}  // namespace

namespace os {

HANDLE RegisterEventSourceW(LPCWSTR serverName, LPCWSTR sourceName) {
    DWORD fault = 0;
    if (sim::faultOnEntry<"RegisterEventSourceW">(&fault)) {
        return sim::fail(fault, HANDLE{nullptr});
    }
    if (serverName != nullptr || sourceName == nullptr || sourceName[0] == 0) {
        return sim::fail(ERROR_INVALID_PARAMETER, HANDLE{nullptr});
    }
    return sim::registerHandle(
        std::make_unique<EventSource>(sim::toUtf8(sourceName == nullptr ? u"" : sourceName)));
}

BOOL ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, PSID userSid,
                  WORD numStrings, DWORD dataSize, LPCWSTR* strings, LPVOID rawData) {
    (void)userSid;
    (void)rawData;
    (void)dataSize;
    DWORD fault = 0;
    if (sim::faultOnEntry<"ReportEventW">(&fault)) {
        return sim::fail(fault, FALSE);
    }
    auto* source = sim::lookupHandleAs<EventSource>(eventLog);
    if (source == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (numStrings > 0 && strings == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    nlohmann::json texts = nlohmann::json::array();
    for (WORD i = 0; i < numStrings; ++i) {
        texts.push_back(sim::toUtf8(strings[i] == nullptr ? u"" : strings[i]));
    }
    nlohmann::json record = {
        {"time", utcTimeText()},
        {"source", source->name()},
        {"type", type},
        {"category", category},
        {"eventId", eventId},
        {"strings", texts},
        {"pid", static_cast<std::int64_t>(::getpid())},
    };
    std::string line = record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    line.push_back('\n');
    std::filesystem::path file;
    try {
        file = sim::eventLogPath();
    } catch (const std::exception&) {
        return sim::fail(ERROR_NOT_READY, FALSE);
    }
    DWORD error = appendLine(file, line);
    if (error != 0) {
        return sim::fail(error, FALSE);
    }
    return TRUE;
}

BOOL DeregisterEventSource(HANDLE eventLog) {
    if (sim::lookupHandleAs<EventSource>(eventLog) == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    sim::closeTableHandle(eventLog);
    return TRUE;
}

}  // namespace os

namespace sim {

std::filesystem::path eventLogPath() {
    return Machine::current().stateDirectory() / "eventlog.jsonl";
}

std::vector<EventRecord> readEventLog() {
    std::vector<EventRecord> records;
    std::ifstream in(eventLogPath());
    std::string line;
    while (std::getline(in, line)) {
        nlohmann::json value = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
        if (!value.is_object()) {
            continue;
        }
        try {
            EventRecord record;
            record.time = value.at("time").get<std::string>();
            record.source = value.at("source").get<std::string>();
            record.type = value.at("type").get<std::uint16_t>();
            record.category = value.at("category").get<std::uint16_t>();
            record.eventId = value.at("eventId").get<std::uint32_t>();
            record.strings = value.at("strings").get<std::vector<std::string>>();
            record.pid = value.at("pid").get<std::int64_t>();
            records.push_back(std::move(record));
        } catch (const nlohmann::json::exception&) {
            continue;  // not a record of ours
        }
    }
    return records;
}

}  // namespace sim
