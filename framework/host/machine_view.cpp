#include "machine_view.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <map>

#include "host/text.h"
#include "kivsim/kivapi.h"
#include "os/error.h"
#include "os/module.h"
#include "os/types.h"
#include "os/volume.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace fihost {
namespace {

// "\\?\Volume{...}\" and its NUL.
constexpr os::DWORD kVolumeNameLength = 50;

bool sameIgnoringCase(const std::string& a, const std::string& b) {
    return foldCase(a) == foldCase(b);
}

std::string withBackslash(std::string name) {
    if (name.empty() || name.back() != '\\') {
        name += '\\';
    }
    return name;
}

std::vector<std::u16string> volumeNames() {
    std::vector<std::u16string> names;
    char16_t buffer[os::MAX_PATH];
    os::HANDLE find = os::FindFirstVolumeW(buffer, os::MAX_PATH);
    if (find == os::INVALID_HANDLE_VALUE) {
        return names;
    }
    do {
        names.emplace_back(buffer);
    } while (os::FindNextVolumeW(find, buffer, os::MAX_PATH));
    os::FindVolumeClose(find);
    return names;
}

// Every path of every volume: drive letters first, then the mount points on
// volumes whose paths are already known, until nothing new appears.
std::map<std::u16string, std::vector<std::u16string>> volumePaths(
    const std::vector<std::u16string>& names) {
    std::map<std::u16string, std::vector<std::u16string>> paths;
    char16_t name[kVolumeNameLength];
    std::vector<char16_t> drives(os::GetLogicalDriveStringsW(0, nullptr) + 1, u'\0');
    const os::DWORD length =
        os::GetLogicalDriveStringsW(static_cast<os::DWORD>(drives.size()), drives.data());
    for (os::DWORD at = 0; at < length && drives[at] != u'\0';) {
        const std::u16string root(drives.data() + at);
        if (os::GetVolumeNameForVolumeMountPointW(root.c_str(), name, kVolumeNameLength)) {
            paths[name].push_back(root);
        }
        at += static_cast<os::DWORD>(root.size() + 1);
    }
    std::map<std::u16string, bool> expanded;
    char16_t mountPoint[os::MAX_PATH];
    for (bool grew = true; grew;) {
        grew = false;
        for (const std::u16string& volume : names) {
            auto known = paths.find(volume);
            if (expanded[volume] || known == paths.end()) {
                continue;
            }
            expanded[volume] = true;
            os::HANDLE find =
                os::FindFirstVolumeMountPointW(volume.c_str(), mountPoint, os::MAX_PATH);
            if (find == os::INVALID_HANDLE_VALUE) {
                continue;
            }
            const std::vector<std::u16string> bases = known->second;
            do {
                for (const std::u16string& base : bases) {
                    const std::u16string path = base + mountPoint;
                    if (os::GetVolumeNameForVolumeMountPointW(path.c_str(), name,
                                                              kVolumeNameLength)) {
                        paths[name].push_back(path);
                        grew = true;
                    }
                }
            } while (os::FindNextVolumeMountPointW(find, mountPoint, os::MAX_PATH));
            os::FindVolumeMountPointClose(find);
        }
    }
    return paths;
}

// The snapshot driver's attributes of a volume, asked of its library.
class DriverLibrary {
  public:
    DriverLibrary() {
        module_ = os::LoadLibraryW(u"kivapi.dll");
        if (module_ == nullptr) {
            return;
        }
        open_ = reinterpret_cast<KIV_Open_t>(os::GetProcAddress(module_, "KIV_Open"));
        close_ = reinterpret_cast<KIV_Close_t>(os::GetProcAddress(module_, "KIV_Close"));
        information_ = reinterpret_cast<KIV_GetVolumeInformation_t>(
            os::GetProcAddress(module_, "KIV_GetVolumeInformation"));
    }
    ~DriverLibrary() {
        if (module_ != nullptr) {
            os::FreeLibrary(module_);
        }
    }
    DriverLibrary(const DriverLibrary&) = delete;
    DriverLibrary& operator=(const DriverLibrary&) = delete;

    // Unset when the library is missing or does not answer for the volume.
    std::optional<std::uint32_t> attributes(const std::u16string& volumeName) const {
        if (open_ == nullptr || close_ == nullptr || information_ == nullptr) {
            return std::nullopt;
        }
        const std::string name = host::toUtf8(sim::withoutTrailingBackslashes(volumeName));
        KivHandle handle = kInvalidKivHandle;
        if (open_(name.c_str(), 3, 128, 3, 1000, &handle) != 0 || !isValidKivHandle(handle)) {
            return std::nullopt;
        }
        KivVolumeInformation information{};
        const std::uint32_t status = information_(handle, sizeof(information), &information);
        close_(&handle);
        if (status != 0) {
            return std::nullopt;
        }
        return information.attributes;
    }

  private:
    os::HMODULE module_ = nullptr;
    KIV_Open_t open_ = nullptr;
    KIV_Close_t close_ = nullptr;
    KIV_GetVolumeInformation_t information_ = nullptr;
};

void readFileSystem(const std::u16string& name, VolumeView& view) {
    char16_t label[os::MAX_PATH] = {};
    char16_t fileSystem[os::MAX_PATH] = {};
    if (os::GetVolumeInformationW(name.c_str(), label, os::MAX_PATH, nullptr, nullptr, nullptr,
                                  fileSystem, os::MAX_PATH)) {
        view.fileSystem = host::toUtf8(fileSystem);
        view.label = host::toUtf8(label);
        return;
    }
    const os::DWORD error = os::GetLastError();
    view.fileSystemProblem = error == os::ERROR_UNRECOGNIZED_VOLUME ? "unrecognised file system"
                             : error == os::ERROR_NOT_READY         ? "no media"
                                                                    : "file system unreadable";
}

}  // namespace

std::string VolumeView::displayName() const {
    if (paths.empty()) {
        return guidName;
    }
    // "C:\" reads as "C:"; a mount point keeps its backslash-free form too.
    std::string path = paths.front();
    if (path.size() > 1 && path.back() == '\\') {
        path.pop_back();
    }
    return path;
}

nlohmann::json VolumeView::toJson() const {
    nlohmann::json facts = {
        {"guidName", guidName},
        {"paths", paths},
        {"type", type},
        {"fileSystem", fileSystem.empty() ? nlohmann::json() : nlohmann::json(fileSystem)},
        {"label", label}};
    if (!fileSystemProblem.empty()) {
        facts["fileSystemProblem"] = fileSystemProblem;
    }
    facts["totalBytes"] = totalBytes ? nlohmann::json(*totalBytes) : nlohmann::json();
    facts["freeBytes"] = freeBytes ? nlohmann::json(*freeBytes) : nlohmann::json();
    facts["driverAttributes"] =
        driverAttributes ? nlohmann::json(*driverAttributes) : nlohmann::json();
    facts["files"] = files;
    return facts;
}

std::vector<VolumeView> readVolumes() {
    const std::vector<std::u16string> names = volumeNames();
    const auto paths = volumePaths(names);
    const DriverLibrary driver;
    std::vector<VolumeView> views;
    for (const std::u16string& name : names) {
        VolumeView view;
        view.guidName = host::toUtf8(name);
        if (auto found = paths.find(name); found != paths.end()) {
            for (const std::u16string& path : found->second) {
                view.paths.push_back(host::toUtf8(path));
            }
        }
        view.type = sim::driveTypeName(os::GetDriveTypeW(name.c_str()));
        readFileSystem(name, view);
        os::ULARGE_INTEGER total{};
        os::ULARGE_INTEGER free{};
        if (os::GetDiskFreeSpaceExW(name.c_str(), nullptr, &total, &free)) {
            view.totalBytes = total.QuadPart;
            view.freeBytes = free.QuadPart;
        }
        view.driverAttributes = driver.attributes(name);
        if (const sim::Volume* simulated = sim::Machine::current().findVolume(name)) {
            view.files = simulated->backingDirectory.string();
        }
        views.push_back(std::move(view));
    }
    return views;
}

const VolumeView* findVolume(const std::vector<VolumeView>& views, const std::string& guidName) {
    const std::string wanted = withBackslash(guidName);
    for (const VolumeView& view : views) {
        if (sameIgnoringCase(view.guidName, wanted)) {
            return &view;
        }
    }
    return nullptr;
}

std::optional<std::string> volumeGuidOf(const std::string& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    // "C:" names the drive root.
    const std::u16string root = host::toUtf16(withBackslash(name));
    char16_t guid[kVolumeNameLength];
    if (!os::GetVolumeNameForVolumeMountPointW(root.c_str(), guid, kVolumeNameLength)) {
        return std::nullopt;
    }
    return host::toUtf8(guid);
}

std::string displayPath(const std::vector<VolumeView>& views, const std::string& path) {
    for (const VolumeView& view : views) {
        if (view.paths.empty() || path.size() < view.guidName.size() ||
            !sameIgnoringCase(path.substr(0, view.guidName.size()), view.guidName)) {
            continue;
        }
        return view.paths.front() + path.substr(view.guidName.size());
    }
    return path;
}

std::string foldCase(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string sizeText(std::uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string attributeText(std::uint32_t attributes) {
    static const struct {
        std::uint32_t bit;
        const char* name;
    } kBits[] = {{0x1, "snapshot source"},
                 {0x2, "claimed"},
                 {0x4, "disabled"},
                 {0x8, "snapshot volume"},
                 {0x10, "holds an active cache"}};
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%" PRIx32, attributes);
    std::string names;
    for (const auto& bit : kBits) {
        if ((attributes & bit.bit) != 0) {
            names += (names.empty() ? "" : ", ") + std::string(bit.name);
        }
    }
    return names.empty() ? std::string(hex) : std::string(hex) + " (" + names + ")";
}

}  // namespace fihost
