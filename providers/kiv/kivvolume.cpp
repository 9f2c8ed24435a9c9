#include "kiv/kivvolume.h"

namespace {

bool beginsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

}  // namespace

void stripKivTag(std::u16string& name) {
    if (name.empty()) {
        return;
    }
    std::size_t kept = name.find_first_not_of(u"<kiv>");
    name.erase(0, kept == std::u16string::npos ? name.size() : kept);
}

KivHandle openVolumeByName(KivApi* api, const std::string& name) {
    std::string deviceName = name;
    // A drive ("C:") or a longer name with a colon that has no device
    // prefix yet gets "\\.\".
    const bool drive = name.size() == 2;
    const bool unprefixed = name.size() > 4 && !beginsWith(name, "\\\\.\\") &&
                            !beginsWith(name, "\\\\?\\");
    if (name.find(':') != std::string::npos && (drive || unprefixed)) {
        deviceName = "\\\\.\\" + name;
    }
    KivHandle handle = kInvalidKivHandle;
    std::uint32_t status = KIV_Open(api, deviceName.c_str(), /*access=*/3, /*flags=*/128,
                                    /*a=*/3, /*b=*/1000, &handle);
    if (status == 0 && isValidKivHandle(handle)) {
        return handle;
    }
    return kInvalidKivHandle;
}
