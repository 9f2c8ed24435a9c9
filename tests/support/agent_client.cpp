#include "support/agent_client.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "os/error.h"
#include "os/pipe.h"

namespace testsupport {

AgentExchange exchangeWithAgent(std::uint32_t code, const std::u16string& volumeName,
                                std::uint64_t handle, os::DWORD timeOut) {
    orbhandle::Request request{};
    request.code = code;
    request.processId = static_cast<std::uint32_t>(getpid());
    request.handle = handle;
    std::memcpy(request.volumeName, volumeName.data(),
                std::min(volumeName.size(), orbhandle::kMaxVolumeNameLength) * sizeof(char16_t));
    AgentExchange result;
    os::DWORD got = 0;
    result.ok = os::CallNamedPipeW(orbhandle::kPipeName, &request, sizeof(request), &result.reply,
                                   sizeof(result.reply), &got, timeOut) != os::FALSE;
    result.error = result.ok ? 0 : os::GetLastError();
    return result;
}

}  // namespace testsupport
