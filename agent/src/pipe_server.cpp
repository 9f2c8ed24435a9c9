#include "pipe_server.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "orbhandle/protocol.h"
#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/pipe.h"
#include "sim/pipe_client.h"

namespace kivagent {
namespace {

// Requests are 536 bytes; a longer message is read whole (the pipe has it in
// memory already) so that it can be judged and logged by its real size.
constexpr os::DWORD kReadChunk = 4096;
constexpr os::DWORD kDefaultWaitMs = 50;

// Reads one whole message. 0 or a Win32 error code.
os::DWORD readMessage(os::HANDLE instance, std::vector<unsigned char>* message) {
    message->clear();
    for (;;) {
        std::size_t offset = message->size();
        message->resize(offset + kReadChunk);
        os::DWORD got = 0;
        os::BOOL ok = os::ReadFile(instance, message->data() + offset, kReadChunk, &got, nullptr);
        message->resize(offset + got);
        if (ok) {
            return 0;
        }
        os::DWORD error = os::GetLastError();
        if (error != os::ERROR_MORE_DATA) {
            return error;
        }
    }
}

}  // namespace

os::DWORD PipeServer::start(unsigned instances) {
    stopping_ = false;
    for (unsigned i = 0; i < instances; ++i) {
        os::HANDLE instance = os::CreateNamedPipeW(
            orbhandle::kPipeName, os::PIPE_ACCESS_DUPLEX,
            os::PIPE_TYPE_MESSAGE | os::PIPE_READMODE_MESSAGE | os::PIPE_WAIT, instances,
            sizeof(orbhandle::Reply), sizeof(orbhandle::Request), kDefaultWaitMs, nullptr);
        if (instance == os::INVALID_HANDLE_VALUE) {
            os::DWORD error = os::GetLastError();
            for (os::HANDLE created : instances_) {
                os::CloseHandle(created);
            }
            instances_.clear();
            return error;
        }
        instances_.push_back(instance);
    }
    running_ = instances;
    for (os::HANDLE instance : instances_) {
        threads_.emplace_back([this, instance] { serve(instance); });
    }
    return 0;
}

void PipeServer::stop() {
    if (threads_.empty()) {
        return;
    }
    stopping_ = true;
    // A thread waiting for a client wakes when one connects: connect to
    // ourselves until every thread has seen the flag. Threads in the middle
    // of an exchange finish it first.
    while (running_.load() > 0) {
        char reply = 0;
        os::DWORD got = 0;
        os::CallNamedPipeW(orbhandle::kPipeName, nullptr, 0, &reply, sizeof(reply), &got,
                           /*timeOut=*/100);
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
    for (os::HANDLE instance : instances_) {
        os::CloseHandle(instance);
    }
    instances_.clear();
}

void PipeServer::serve(os::HANDLE instance) {
    while (!stopping_) {
        if (!os::ConnectNamedPipe(instance, nullptr) &&
            os::GetLastError() != os::ERROR_PIPE_CONNECTED) {
            os::DWORD error = os::GetLastError();
            if (!stopping_) {
                log_.write("waiting for a client failed with " + std::to_string(error));
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            continue;
        }
        if (!stopping_) {
            exchange(instance);
        }
        os::DisconnectNamedPipe(instance);
    }
    --running_;
}

void PipeServer::exchange(os::HANDLE instance) {
    os::ULONG processId = 0;
    sim::PipeClientCredentials credentials;
    if (!os::GetNamedPipeClientProcessId(instance, &processId)) {
        log_.write("cannot tell which process connected: error " +
                   std::to_string(os::GetLastError()));
        return;
    }
    if (os::DWORD error = sim::getPipeClientCredentials(instance, &credentials); error != 0) {
        log_.write("peer " + std::to_string(processId) + ": cannot tell its user: error " +
                   std::to_string(error));
        return;
    }
    std::vector<unsigned char> message;
    if (os::DWORD error = readMessage(instance, &message); error != 0) {
        log_.write("peer " + std::to_string(processId) + ": no request read: error " +
                   std::to_string(error));
        return;
    }
    Peer peer{processId, static_cast<std::uint32_t>(credentials.userId)};
    Outcome outcome = handleRequest(message, peer, context_);
    // Logged before the reply goes out, so whoever has the reply finds the line.
    log_.write(formatLogRecord(outcome.record));
    os::DWORD written = 0;
    if (!os::WriteFile(instance, &outcome.reply, sizeof(outcome.reply), &written, nullptr)) {
        log_.write("peer " + std::to_string(processId) + ": reply lost: error " +
                   std::to_string(os::GetLastError()));
    }
}

}  // namespace kivagent
