// A stand-in for the backup agent inside a test process: a thread that serves
// the rendezvous pipe "\\.\Pipe\ORBHandleRendevous" of the current machine,
// one client at a time, records the bytes of every request and answers each
// with the reply a test scripted.
//
// The default answer is status 0 with this process's id and a handle of 0.
// Requests are recorded in arrival order. Thread-safe.
#ifndef TESTS_SUPPORT_SCRIPTED_PIPE_SERVER_H_
#define TESTS_SUPPORT_SCRIPTED_PIPE_SERVER_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orbhandle/protocol.h"

namespace testsupport {

class ScriptedPipeServer {
  public:
    using Responder = std::function<orbhandle::Reply(const orbhandle::Request&)>;

    // Starts serving; the pipe exists when the constructor returns.
    ScriptedPipeServer();
    // Stops serving and joins the thread.
    ~ScriptedPipeServer();
    ScriptedPipeServer(const ScriptedPipeServer&) = delete;
    ScriptedPipeServer& operator=(const ScriptedPipeServer&) = delete;

    // Answers the next requests, one each, with these statuses (then the
    // default answer again).
    void scriptStatuses(std::initializer_list<std::uint32_t> statuses);
    // Answers every request without a scripted status through `responder`.
    void setResponder(Responder responder);

    // Every request received, as sent (536 bytes each, unless a client sent
    // another size).
    std::vector<std::vector<unsigned char>> rawRequests() const;
    std::vector<orbhandle::Request> requests() const;
    // The volume names of the requests, in order, as UTF-8.
    std::vector<std::string> names() const;
    std::vector<std::uint32_t> codes() const;

  private:
    void serve();
    orbhandle::Reply answer(const orbhandle::Request& request);

    mutable std::mutex mutex_;
    std::deque<std::uint32_t> statuses_;
    Responder responder_;
    std::vector<std::vector<unsigned char>> requests_;
    bool stopping_ = false;
    void* pipe_ = nullptr;
    std::thread thread_;
};

// UTF-8 of a NUL-terminated request name.
std::string requestName(const orbhandle::Request& request);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_SCRIPTED_PIPE_SERVER_H_
