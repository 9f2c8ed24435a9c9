// Naming and opening volumes for the snapshot driver: removing the provider's
// tag from an object name, and opening a volume by its narrow name.
//
// Stateless; safe from any thread.
#ifndef PROVIDERS_KIV_KIVVOLUME_H_
#define PROVIDERS_KIV_KIVVOLUME_H_

#include <string>

#include "kiv/cachefile/kivapi.h"

// Removes from the start of `name` the longest run of characters that each
// occur in the tag "<kiv>". This works on the set of characters, not on the
// tag as a prefix: "<kiv>\\?\Volume{...}" loses exactly the tag, and a name
// such as "kiv>data" without the tag loses its first four characters too.
void stripKivTag(std::u16string& name);

// Opens a volume by its UTF-8 name with KIV_Open (3, 128, 3, 1000). A name
// with a colon is turned into a device name first: a bare drive "E:" becomes
// "\\.\E:", a longer name such as "E:\mnt" becomes "\\.\E:\mnt" unless it
// already begins with "\\.\" or "\\?\"; "E:\" and names of four characters or
// fewer stay as they are. Returns the handle, or kInvalidKivHandle when the
// driver refuses; nothing is reported.
KivHandle openVolumeByName(KivApi* api, const std::string& name);

#endif  // PROVIDERS_KIV_KIVVOLUME_H_
