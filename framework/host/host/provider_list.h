// The provider's identity and its methods, read from the list nodes that the
// plug-in's get_provider_info and enumerate_fims answer. The host frees the
// list nodes once it has read them.
#ifndef FRAMEWORK_HOST_HOST_PROVIDER_LIST_H_
#define FRAMEWORK_HOST_HOST_PROVIDER_LIST_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "host/status.h"
#include "tarn/records.h"

namespace host {

class PluginHost;

struct ProviderInfo {
    std::string name;
    std::uint32_t numberA = 0;
    std::uint32_t numberB = 0;
    tarn_version version{};
    std::uint32_t flags = 0;
};

struct MethodInfo {
    std::string name;
    std::array<std::uint32_t, 6> words{};
    std::string description;
    std::string versionText;
    std::string extra;
    std::string provider;
};

// "7.0.0.0" for the words 7, 0, 0, 0.
std::string versionString(const tarn_version& version);

// Asks the plug-in who it is. A failing status code, or an answer without a
// list node, is an error.
Status readProviderInfo(PluginHost& plugin, ProviderInfo* info);
// Asks the plug-in for its methods. A failing status code is an error; an
// answer without a list node is an empty list.
Status readMethods(PluginHost& plugin, std::vector<MethodInfo>* methods);

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_PROVIDER_LIST_H_
