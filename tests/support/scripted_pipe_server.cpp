#include "support/scripted_pipe_server.h"

#include <cstring>

#include "os/file.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "os/process.h"

namespace testsupport {

namespace {

// A request of this code ends the serving thread.
constexpr std::uint32_t kStopCode = 0xFFFFFFFF;

}  // namespace

std::string requestName(const orbhandle::Request& request) {
    std::string text;
    for (char16_t unit : request.volumeName) {
        if (unit == u'\0') {
            break;
        }
        // The names in tests are ASCII.
        text.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
    }
    return text;
}

ScriptedPipeServer::ScriptedPipeServer() {
    pipe_ = os::CreateNamedPipeW(orbhandle::kPipeName, os::PIPE_ACCESS_DUPLEX,
                                 os::PIPE_TYPE_MESSAGE | os::PIPE_READMODE_MESSAGE | os::PIPE_WAIT,
                                 /*maxInstances=*/1, sizeof(orbhandle::Reply),
                                 sizeof(orbhandle::Request), /*defaultTimeOut=*/0, nullptr);
    thread_ = std::thread([this] { serve(); });
}

ScriptedPipeServer::~ScriptedPipeServer() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    orbhandle::Request stop{};
    stop.code = kStopCode;
    orbhandle::Reply reply{};
    os::DWORD read = 0;
    os::CallNamedPipeW(orbhandle::kPipeName, &stop, sizeof(stop), &reply, sizeof(reply), &read,
                       os::NMPWAIT_WAIT_FOREVER);
    thread_.join();
    if (pipe_ != nullptr && pipe_ != os::INVALID_HANDLE_VALUE) {
        os::CloseHandle(pipe_);
    }
}

void ScriptedPipeServer::scriptStatuses(std::initializer_list<std::uint32_t> statuses) {
    std::lock_guard<std::mutex> lock(mutex_);
    statuses_.insert(statuses_.end(), statuses.begin(), statuses.end());
}

void ScriptedPipeServer::setResponder(Responder responder) {
    std::lock_guard<std::mutex> lock(mutex_);
    responder_ = std::move(responder);
}

std::vector<std::vector<unsigned char>> ScriptedPipeServer::rawRequests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::vector<orbhandle::Request> ScriptedPipeServer::requests() const {
    std::vector<orbhandle::Request> result;
    for (const std::vector<unsigned char>& bytes : rawRequests()) {
        orbhandle::Request request{};
        std::memcpy(&request, bytes.data(), std::min(bytes.size(), sizeof(request)));
        result.push_back(request);
    }
    return result;
}

std::vector<std::string> ScriptedPipeServer::names() const {
    std::vector<std::string> result;
    for (const orbhandle::Request& request : requests()) {
        result.push_back(requestName(request));
    }
    return result;
}

std::vector<std::uint32_t> ScriptedPipeServer::codes() const {
    std::vector<std::uint32_t> result;
    for (const orbhandle::Request& request : requests()) {
        result.push_back(request.code);
    }
    return result;
}

orbhandle::Reply ScriptedPipeServer::answer(const orbhandle::Request& request) {
    std::unique_lock<std::mutex> lock(mutex_);
    orbhandle::Reply reply{};
    reply.processId = os::GetCurrentProcessId();
    if (!statuses_.empty()) {
        reply.status = statuses_.front();
        statuses_.pop_front();
        return reply;
    }
    if (responder_) {
        Responder responder = responder_;
        lock.unlock();
        return responder(request);
    }
    return reply;
}

void ScriptedPipeServer::serve() {
    if (pipe_ == nullptr || pipe_ == os::INVALID_HANDLE_VALUE) {
        return;
    }
    for (;;) {
        if (!os::ConnectNamedPipe(pipe_, nullptr)) {
            return;
        }
        std::vector<unsigned char> bytes(sizeof(orbhandle::Request) + 64);
        os::DWORD got = 0;
        if (!os::ReadFile(pipe_, bytes.data(), static_cast<os::DWORD>(bytes.size()), &got,
                          nullptr)) {
            os::DisconnectNamedPipe(pipe_);
            continue;
        }
        bytes.resize(got);
        orbhandle::Request request{};
        std::memcpy(&request, bytes.data(), std::min(bytes.size(), sizeof(request)));
        bool stop = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop = stopping_ && request.code == kStopCode;
            if (!stop) {
                requests_.push_back(bytes);
            }
        }
        orbhandle::Reply reply = stop ? orbhandle::Reply{} : answer(request);
        os::DWORD written = 0;
        os::WriteFile(pipe_, &reply, sizeof(reply), &written, nullptr);
        os::DisconnectNamedPipe(pipe_);
        if (stop) {
            return;
        }
    }
}

}  // namespace testsupport
