// Snapshot preparation (KivNode::prepare): automatic configuration of the
// sources that ask for it (cache placement under the provider mutex and
// snapshot volume names), one KIV_Prepare for all sources, and the dump of
// the parameters handed to the driver.
#ifndef PROVIDERS_KIV_KIVPREPARE_H_
#define PROVIDERS_KIV_KIVPREPARE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/cachefile/kivapi.h"
#include "kiv/kivconfig/splitconfig.h"
#include "kiv/kivsnapshotparameters.h"
#include "tarn/records.h"

// A new snapshot volume name. On major version 4: the first "\\.\Snap<n>:"
// that the driver cannot open, n counting on from a process-wide counter that
// starts at 0. Otherwise "\\?\" followed by KIV_GenerateVolumeName's text;
// when the driver fails (reported as MSG_ERROR_KIVAPI_2) the name is empty.
// One process-wide critical section (spin count 4000) is held throughout, so
// concurrent callers never get the same name.
std::string generateSnapshotVolumeName(KivApi* api);

// Places cache files for the sources (the list, or the entry alone) whose
// configuration asks for automatic preparation and stores their split
// settings. 0 when no source asks for it or the placement failed (reported),
// 1 on success, 6 when mutex creation or placement raised a system error
// (reported). Every source must have a KivNode.
std::int32_t autoConfigure(KivApi* api, tarn_fi_entry* entry, tarn_fi_entry** list,
                           std::uint32_t count);

// Writes the dump of `parameters` (with the source names of the same
// positions) and the quiesce times straight to the host's message callback,
// one line per call at level 1, converted with mbstowcs. Throws what
// replaceByVolumePath throws.
void dumpSnapshotParameters(const std::vector<KivSnapshotParameters>& parameters,
                            const std::vector<std::u16string>& sourceNames,
                            const QuiesceConfig& quiesce);

// Hands `line` to the host's message callback without the log prefix;
// dropped when there is no context or callback.
void sendLineToHost(const std::string& line, std::uint32_t level);

#endif  // PROVIDERS_KIV_KIVPREPARE_H_
