#include "request.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "os/error.h"
#include "sim/text.h"

namespace kivagent {
namespace {

constexpr std::uint64_t kNoHandle = ~std::uint64_t{0};

std::string hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// The name field up to its NUL; false when there is none within the field.
bool readName(const orbhandle::Request& request, std::u16string* name) {
    const char16_t* field = request.volumeName;
    const std::size_t capacity = orbhandle::kMaxVolumeNameLength + 1;
    std::size_t length = 0;
    while (length < capacity && field[length] != u'\0') {
        ++length;
    }
    name->assign(field, length);
    return length < capacity;
}

Outcome answer(Outcome outcome, os::DWORD status, std::string note) {
    outcome.reply.status = status;
    outcome.record.status = status;
    outcome.record.note = std::move(note);
    return outcome;
}

Outcome registerHandle(Outcome outcome, const orbhandle::Request& request,
                       RequestContext& context) {
    if (request.handle == 0 || request.handle == kNoHandle) {
        return answer(std::move(outcome), os::ERROR_INVALID_HANDLE, "no handle to register");
    }
    bool replaced = false;
    os::DWORD status =
        context.table.add(outcome.record.volumeName, request.processId, request.handle, &replaced);
    if (status != 0) {
        return answer(std::move(outcome), status,
                      "cannot duplicate handle " + hex(request.handle) + " of the caller");
    }
    std::uint64_t held = 0;
    context.table.find(outcome.record.volumeName, &held);
    std::string note = "holding " + hex(held) + " for the caller's " + hex(request.handle);
    if (replaced) {
        note += ", replacing the handle held under this name";
    }
    return answer(std::move(outcome), 0, std::move(note));
}

Outcome retrieveHandle(Outcome outcome, RequestContext& context) {
    std::uint64_t held = 0;
    if (!context.table.find(outcome.record.volumeName, &held)) {
        return answer(std::move(outcome), os::ERROR_FILE_NOT_FOUND, "no handle held by that name");
    }
    outcome.reply.processId = context.agentProcessId;
    outcome.reply.handle = held;
    return answer(std::move(outcome), 0, "answered " + hex(held));
}

Outcome releaseHandle(Outcome outcome, RequestContext& context) {
    os::DWORD status = context.table.remove(outcome.record.volumeName);
    if (status == os::ERROR_FILE_NOT_FOUND) {
        return answer(std::move(outcome), status, "no handle held by that name");
    }
    if (status != 0) {
        return answer(std::move(outcome), status, "closing the handle failed; name forgotten");
    }
    return answer(std::move(outcome), 0, "closed");
}

void appendEscaped(std::string* out, std::string_view text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f || c == '"') {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            *out += escaped;
        } else {
            *out += static_cast<char>(c);
        }
    }
}

}  // namespace

void Faults::setBusy(std::uint32_t exchanges) {
    std::lock_guard lock(mutex_);
    busy_ = exchanges;
}

void Faults::setFailure(std::uint32_t code, os::DWORD status, std::uint32_t count) {
    std::lock_guard lock(mutex_);
    failures_[code] = {status, count};
}

bool Faults::takeBusy() {
    std::lock_guard lock(mutex_);
    if (busy_ == 0) {
        return false;
    }
    --busy_;
    return true;
}

bool Faults::takeFailure(std::uint32_t code, os::DWORD* status) {
    std::lock_guard lock(mutex_);
    auto found = failures_.find(code);
    if (found == failures_.end() || found->second.left == 0) {
        return false;
    }
    if (found->second.left != kEveryRequest) {
        --found->second.left;
    }
    *status = found->second.status;
    return true;
}

Outcome handleRequest(std::span<const unsigned char> message, const Peer& peer,
                      RequestContext& context) {
    Outcome outcome;
    outcome.record.peerProcessId = peer.processId;
    outcome.record.size = message.size();

    // Read what the message holds, for the log, before judging it.
    orbhandle::Request request{};
    if (!message.empty()) {
        std::memcpy(&request, message.data(), std::min(message.size(), sizeof(request)));
    }
    if (message.size() >= sizeof(request.code)) {
        outcome.record.hasCode = true;
        outcome.record.code = request.code;
    }
    const bool wholeRequest = message.size() == sizeof(request);
    const bool terminated = readName(request, &outcome.record.volumeName);

    // A handle whose snapshot volume was destroyed without its release
    // reaching the agent (the provider goes on to destroy when release
    // fails) is let go of at the next exchange, whoever sends it.
    context.table.dropGone();
    if (context.faults != nullptr && context.faults->takeBusy()) {
        return answer(std::move(outcome), os::ERROR_PIPE_BUSY, "answered busy (test option)");
    }
    if (peer.userId != context.agentUserId && peer.userId != 0) {
        return answer(std::move(outcome), os::ERROR_ACCESS_DENIED,
                      "caller runs as user " + std::to_string(peer.userId) + ", the agent as " +
                          std::to_string(context.agentUserId));
    }
    if (!wholeRequest) {
        return answer(std::move(outcome), os::ERROR_BAD_LENGTH,
                      "request of " + std::to_string(message.size()) + " bytes, not " +
                          std::to_string(sizeof(request)));
    }
    if (request.code != orbhandle::kRegisterVolumeHandle &&
        request.code != orbhandle::kRetrieveHandle &&
        request.code != orbhandle::kReleaseVolumeHandle) {
        return answer(std::move(outcome), os::ERROR_INVALID_FUNCTION, "unknown request code");
    }
    if (!terminated) {
        return answer(std::move(outcome), os::ERROR_INVALID_NAME,
                      "volume name not terminated within " +
                          std::to_string(orbhandle::kMaxVolumeNameLength) + " characters");
    }
    if (outcome.record.volumeName.empty()) {
        return answer(std::move(outcome), os::ERROR_INVALID_NAME, "empty volume name");
    }
    if (request.processId != peer.processId) {
        return answer(std::move(outcome), os::ERROR_ACCESS_DENIED,
                      "request names process " + std::to_string(request.processId) +
                          ", the caller is " + std::to_string(peer.processId));
    }
    os::DWORD injected = 0;
    if (context.faults != nullptr && context.faults->takeFailure(request.code, &injected)) {
        return answer(std::move(outcome), injected, "answered by test option");
    }
    switch (request.code) {
        case orbhandle::kRegisterVolumeHandle:
            return registerHandle(std::move(outcome), request, context);
        case orbhandle::kRetrieveHandle:
            return retrieveHandle(std::move(outcome), context);
        case orbhandle::kReleaseVolumeHandle:
            return releaseHandle(std::move(outcome), context);
        default:
            return answer(std::move(outcome), os::ERROR_INVALID_FUNCTION, "unknown request code");
    }
}

std::string formatLogRecord(const LogRecord& record) {
    std::string line = "peer " + std::to_string(record.peerProcessId);
    if (record.hasCode) {
        line += " code " + std::to_string(record.code) + " " + orbhandle::requestName(record.code);
    } else {
        line += " code -";
    }
    line += " name \"";
    appendEscaped(&line, sim::toUtf8(record.volumeName));
    line += "\" status " + std::to_string(record.status);
    if (!record.note.empty()) {
        line += ": ";
        appendEscaped(&line, record.note);
    }
    return line;
}

}  // namespace kivagent
