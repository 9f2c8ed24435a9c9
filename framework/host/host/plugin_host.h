// Loads a provider plug-in and calls its entry points.
//
// load() opens the library and resolves every fikiv_fi_pgn_* entry point by
// name; an entry point the library lacks is remembered as missing, and calling
// it through the host answers 15 (entry point not found) without touching the
// plug-in. Each entry point has a typed wrapper of the same name; wrappers of
// entry points that return nothing answer 0 once the call is made.
//
// A PluginHost is not thread-safe, and the plug-in expects its calls one at a
// time anyway. Destroying the host unloads the library.
#ifndef FRAMEWORK_HOST_HOST_PLUGIN_HOST_H_
#define FRAMEWORK_HOST_HOST_PLUGIN_HOST_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "host/entry_points.h"
#include "host/status.h"
#include "tarn/records.h"

namespace host {

class PluginHost {
  public:
    PluginHost() = default;
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // Opens the library at `path` (resolving all its symbols now) and binds
    // the entry points. A missing file is kNotFound; a file the loader refuses
    // is kLoadFailed with the loader's text. A library already loaded is
    // unloaded first.
    Status load(const std::string& path);
    // Unloads the library; every entry point becomes missing.
    void unload();

    bool loaded() const { return handle_ != nullptr; }
    const std::string& path() const { return path_; }

    bool has(Entry entry) const { return entries_[static_cast<std::size_t>(entry)] != nullptr; }
    // Names (without the prefix) of the entry points the library lacks.
    std::vector<std::string> missingEntryPoints() const;

    // One wrapper per entry point, e.g. init(context, version).
#define FIKIV_HOST_WRAPPER(name, result, parameters, arguments) std::int32_t name parameters;
    FIKIV_HOST_ENTRY_POINTS(FIKIV_HOST_WRAPPER)
#undef FIKIV_HOST_WRAPPER

  private:
    void* address(Entry entry) const {
        return entries_[static_cast<std::size_t>(entry)];
    }

    void* handle_ = nullptr;
    std::string path_;
    std::array<void*, kEntryPointCount> entries_{};
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_PLUGIN_HOST_H_
