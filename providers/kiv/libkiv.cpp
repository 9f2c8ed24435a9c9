// The plug-in's exported entry points, resolved by name by the framework host.
//
// No entry point takes a lock; the host calls into the plug-in one call at a
// time. No exception leaves an entry point.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tarn/records.h"
#include "tarn/tarnutil.h"

#define FIKIV_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

constexpr char16_t kProviderName[] = u"fikiv";
constexpr char16_t kMethodName[] = u"KIV_fim";
constexpr char16_t kMethodDescription[] = u"Kiv Snapshot Provider";
constexpr char16_t kMethodVersionText[] = u"1.05";
constexpr char16_t kMethodListExtra[] = u"none";

// The host's two fixed numbers for a provider-list node.
constexpr std::uint32_t kProviderListNumberA = 8;
constexpr std::uint32_t kProviderListNumberB = 4;

// A zero-filled framework buffer holding `text` and its terminator, or null.
// `bytes` receives the size the buffer was allocated with.
template <std::size_t N>
char16_t* allocTextBuffer(const char16_t (&text)[N], std::uint64_t* bytes) {
    *bytes = 2 * N;  // N counts the terminator already
    auto* buffer = static_cast<char16_t*>(tarn_alloc_buf(*bytes));
    if (buffer == nullptr) {
        return nullptr;
    }
    std::memset(buffer, 0, *bytes);
    std::memcpy(buffer, text, 2 * (N - 1));
    return buffer;
}

}  // namespace

// Who the provider is and which interface version it speaks.
FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_provider_info(tarn_list_node** out) {
    if (out == nullptr) {
        return kTarnInvalidRequest;
    }
    tarn_version version{{7, 0, 0, 0}};
    *out = tarn_build_providerlist_node(kProviderName, kProviderListNumberA, kProviderListNumberB,
                                        &version, /*flags=*/0);
    return kTarnSuccess;
}

// The one frozen-image method the provider offers. An allocation failure is
// answered 0 with nothing written and no buffer left allocated; the host is
// expected to have cleared its list pointer.
FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enumerate_fims(tarn_list_node** out) {
    if (out == nullptr) {
        return kTarnInvalidRequest;
    }
    tarn_fim_info info{};
    const std::uint32_t words[6] = {0, 1, 1, 0, 0, 1};
    std::memcpy(info.words, words, sizeof(words));

    std::uint64_t descriptionBytes = 0;
    info.description = allocTextBuffer(kMethodDescription, &descriptionBytes);
    if (info.description == nullptr) {
        return kTarnSuccess;
    }
    std::uint64_t versionBytes = 0;
    info.version_text = allocTextBuffer(kMethodVersionText, &versionBytes);
    if (info.version_text == nullptr) {
        tarn_free_buf(info.description, descriptionBytes);
        return kTarnSuccess;
    }
    // The list node takes over both buffers.
    *out = tarn_build_fim_list_node(kMethodName, &info, kMethodListExtra, kProviderName);
    return kTarnSuccess;
}
