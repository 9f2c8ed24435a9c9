// A rendezvous request as a client sends it: 536 bytes with the fields set
// and the name copied as given, up to the whole field (so a test can send a
// name without its terminating NUL).
#ifndef TESTS_AGENT_REQUEST_BYTES_H_
#define TESTS_AGENT_REQUEST_BYTES_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "orbhandle/protocol.h"

inline std::vector<unsigned char> requestBytes(std::uint32_t code, std::uint32_t pid,
                                               std::uint64_t handle, const std::u16string& name) {
    orbhandle::Request request{};
    request.code = code;
    request.processId = pid;
    request.handle = handle;
    std::memcpy(request.volumeName, name.data(),
                std::min(name.size(), orbhandle::kMaxVolumeNameLength + 1) * sizeof(char16_t));
    std::vector<unsigned char> bytes(sizeof(request));
    std::memcpy(bytes.data(), &request, sizeof(request));
    return bytes;
}

#endif  // TESTS_AGENT_REQUEST_BYTES_H_
