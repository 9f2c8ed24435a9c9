// --settings FILE of fihost snapshot: a settings document with quiesce and
// cache keys, such as
//
//   <SET_CONFIG_INFO_LIST>
//     <SET_CONFIG_INFO key=quiesceWait value=5 />
//     <SET_CONFIG_INFO key=cachefileDir value=snapshots\cache />
//   </SET_CONFIG_INFO_LIST>
//
// Line ends count as blanks and lines starting with '#' are comments; the
// document is then read by the provider's own settings reader. Its keys are
// merged into the command's options, a key set twice being a conflict.
#ifndef FRAMEWORK_HOST_SETTINGS_FILE_H_
#define FRAMEWORK_HOST_SETTINGS_FILE_H_

#include <cstdint>
#include <optional>
#include <string>

#include "placement_options.h"

namespace fihost {

struct QuiesceOptions {
    std::optional<std::uint32_t> wait;
    std::optional<std::uint32_t> timeout;
};

// Reads `file` into the options. Empty on success; otherwise one line saying
// what is wrong (the file, the key) and what to do. A key that an option
// already set is a conflict.
std::string mergeSettingsFile(const std::string& file, PlacementOptions& placement,
                              QuiesceOptions& quiesce);

}  // namespace fihost

#endif  // FRAMEWORK_HOST_SETTINGS_FILE_H_
