#include "host/plugin_host.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <string>
#include <type_traits>

namespace host {

static_assert(kEntryPointCount == 49, "the plug-in exports 49 entry points");

PluginHost::~PluginHost() {
    unload();
}

Status PluginHost::load(const std::string& path) {
    unload();
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return Status::notFound("no plug-in library at " + path);
    }
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = dlerror();
        return Status::loadFailed("cannot load " + path + ": " +
                                  (reason != nullptr ? reason : "unknown reason"));
    }
    handle_ = handle;
    path_ = path;
    for (std::size_t i = 0; i < kEntryPointCount; ++i) {
        std::string symbol = std::string(kEntryPointPrefix) + kEntryPointNames[i];
        entries_[i] = dlsym(handle_, symbol.c_str());
    }
    return Status::ok();
}

void PluginHost::unload() {
    entries_.fill(nullptr);
    if (handle_ != nullptr) {
        dlclose(handle_);
        handle_ = nullptr;
    }
    path_.clear();
}

std::vector<std::string> PluginHost::missingEntryPoints() const {
    std::vector<std::string> missing;
    for (std::size_t i = 0; i < kEntryPointCount; ++i) {
        if (entries_[i] == nullptr) {
            missing.emplace_back(kEntryPointNames[i]);
        }
    }
    return missing;
}

namespace {

// Calls a resolved entry point with the wrapper's arguments; 15 when it is
// missing, 0 after an entry point that returns nothing.
template <typename Function>
struct EntryCaller {
    Function function;

    template <typename... Arguments>
    std::int32_t operator()(Arguments... arguments) const {
        if (function == nullptr) {
            return kTarnEntryPointNotFound;
        }
        if constexpr (std::is_void_v<std::invoke_result_t<Function, Arguments...>>) {
            function(arguments...);
            return kTarnSuccess;
        } else {
            return function(arguments...);
        }
    }
};

}  // namespace

#define FIKIV_HOST_WRAPPER(name, result, parameters, arguments)                   \
    std::int32_t PluginHost::name parameters {                                    \
        return EntryCaller<EntryPoint_##name>{                                    \
            reinterpret_cast<EntryPoint_##name>(address(Entry::name))} arguments; \
    }
FIKIV_HOST_ENTRY_POINTS(FIKIV_HOST_WRAPPER)
#undef FIKIV_HOST_WRAPPER

}  // namespace host
