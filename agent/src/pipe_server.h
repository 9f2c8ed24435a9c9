// Serves "\\.\Pipe\ORBHandleRendevous": one thread per pipe instance takes a
// client, reads its request, learns who it is from the system, answers with
// handleRequest and logs the exchange. A client that finds every instance
// busy sees ERROR_PIPE_BUSY from the pipe itself.
//
// start() and stop() are called from one thread.
#ifndef AGENT_SRC_PIPE_SERVER_H_
#define AGENT_SRC_PIPE_SERVER_H_

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "agent_log.h"
#include "os/types.h"
#include "request.h"

namespace kivagent {

class PipeServer {
  public:
    PipeServer(RequestContext& context, AgentLog& log) : context_(context), log_(log) {}
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;
    ~PipeServer() { stop(); }

    // Creates `instances` instances and their threads. When it returns 0 the
    // pipe is served: a client that connects now is answered. Otherwise a
    // Win32 error code (ERROR_ACCESS_DENIED: another process serves the
    // name), with nothing left running.
    os::DWORD start(unsigned instances);
    // Finishes the exchanges under way, stops every thread and stops serving.
    void stop();

  private:
    void serve(os::HANDLE instance);
    void exchange(os::HANDLE instance);

    RequestContext& context_;
    AgentLog& log_;
    std::vector<os::HANDLE> instances_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned> running_{0};
};

}  // namespace kivagent

#endif  // AGENT_SRC_PIPE_SERVER_H_
