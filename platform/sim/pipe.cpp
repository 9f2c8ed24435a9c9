// Named pipes of the simulated machine: the os:: functions, which check their
// arguments and hand the work to the client (pipe_call.h) or the server
// (pipe_server.h); both speak the transport of pipe_transport.h, Unix-domain
// stream sockets in the machine's state directory.
#include "os/pipe.h"

#include <string>

#include "os/error.h"
#include "os_call.h"
#include "pipe_call.h"
#include "pipe_server.h"
#include "pipe_transport.h"
#include "sim/errors.h"
#include "sim/observer.h"
#include "sim/pipe_client.h"

namespace os {
namespace {

constexpr DWORD kPipeNowait = 0x1;
constexpr DWORD kFileFlagOverlapped = 0x40000000;
constexpr DWORD kPipeAccessMask = 0x3;

}  // namespace

/***********************************************************************
 *           CallNamedPipeW   (kernel32.dll)
 */
BOOL CallNamedPipeW(LPCWSTR pipeName, LPVOID inBuffer, DWORD inBufferSize, LPVOID outBuffer,
                    DWORD outBufferSize, DWORD* bytesRead, DWORD timeOut) {
    sim::PipeExchangeNotice notice(pipeName, inBuffer, inBufferSize, outBuffer);
    DWORD error = 0;
    if (sim::faultOnEntry<"CallNamedPipeW">(&error)) {
        return sim::fail(error, FALSE);
    }
    std::u16string local;
    if (DWORD invalid = sim::parsePipeName(pipeName, &local); invalid != 0) {
        return sim::fail(invalid, FALSE);
    }
    if ((inBuffer == nullptr && inBufferSize > 0) || (outBuffer == nullptr && outBufferSize > 0)) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    DWORD delivered = 0;
    const BOOL called =
        sim::callPipe(local, inBuffer, inBufferSize, outBuffer, outBufferSize, &delivered, timeOut);
    if (bytesRead != nullptr) {
        *bytesRead = delivered;
    }
    if (called) {
        notice.succeeded(delivered);
    }
    return called;
}

/***********************************************************************
 *           CreateNamedPipeW   (kernel32.dll)
 */
HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                        DWORD /*outBufferSize*/, DWORD /*inBufferSize*/, DWORD defaultTimeOut,
                        LPSECURITY_ATTRIBUTES /*securityAttributes*/) {
    DWORD error = 0;
    if (sim::faultOnEntry<"CreateNamedPipeW">(&error)) {
        return sim::fail(error, INVALID_HANDLE_VALUE);
    }
    std::u16string local;
    if (DWORD invalid = sim::parsePipeName(name, &local); invalid != 0) {
        return sim::fail(invalid, INVALID_HANDLE_VALUE);
    }
    if (maxInstances == 0 || maxInstances > PIPE_UNLIMITED_INSTANCES ||
        (openMode & kPipeAccessMask) == 0) {
        return sim::fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    }
    // Only blocking, non-overlapped instances are simulated.
    if ((pipeMode & kPipeNowait) != 0 || (openMode & kFileFlagOverlapped) != 0) {
        return sim::fail(ERROR_NOT_SUPPORTED, INVALID_HANDLE_VALUE);
    }

    DWORD failed = 0;
    HANDLE instance = sim::createPipeInstance(local, maxInstances, defaultTimeOut, &failed);
    return instance == INVALID_HANDLE_VALUE ? sim::fail(failed, INVALID_HANDLE_VALUE) : instance;
}

/***********************************************************************
 *           ConnectNamedPipe   (kernel32.dll)
 */
BOOL ConnectNamedPipe(HANDLE namedPipe, LPVOID overlapped) {
    DWORD error = 0;
    if (sim::faultOnEntry<"ConnectNamedPipe">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (!sim::isPipeInstance(namedPipe)) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (overlapped != nullptr) {
        return sim::fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (DWORD failed = sim::connectPipeInstance(namedPipe); failed != 0) {
        return sim::fail(failed, FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           DisconnectNamedPipe   (kernel32.dll)
 */
BOOL DisconnectNamedPipe(HANDLE namedPipe) {
    DWORD error = 0;
    if (sim::faultOnEntry<"DisconnectNamedPipe">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (DWORD failed = sim::disconnectPipeInstance(namedPipe); failed != 0) {
        return sim::fail(failed, FALSE);
    }
    return TRUE;
}

/***********************************************************************
 *           GetNamedPipeClientProcessId   (kernel32.dll)
 */
BOOL GetNamedPipeClientProcessId(HANDLE pipe, ULONG* clientProcessId) {
    DWORD error = 0;
    if (sim::faultOnEntry<"GetNamedPipeClientProcessId">(&error)) {
        return sim::fail(error, FALSE);
    }
    if (clientProcessId == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    sim::PipeClientCredentials client;
    if (DWORD failed = sim::getPipeClientCredentials(pipe, &client); failed != 0) {
        return sim::fail(failed, FALSE);
    }
    *clientProcessId = static_cast<ULONG>(client.processId);
    return TRUE;
}

}  // namespace os
