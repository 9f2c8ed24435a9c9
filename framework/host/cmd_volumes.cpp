// fihost volumes: lists every volume of the machine with its paths, type, file
// system, space and driver attributes, and whether the provider would
// interpose it, or why not.
//
// Everything about a volume is asked the way any program asks it: through the
// os:: volume functions and the snapshot driver's library, which is loaded
// with LoadLibraryW as the plug-in loads it.
#include <CLI/CLI.hpp>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "host/host_node.h"
#include "host/text.h"
#include "os/error.h"
#include "os/module.h"
#include "os/types.h"
#include "os/volume.h"
#include "session.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace fihost {
namespace {

// "\\?\Volume{...}\" and its NUL.
constexpr os::DWORD kVolumeNameLength = 50;

struct VolumesOptions {
    std::string locale;
    bool traces = false;
};

std::string gibibytes(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
    return text;
}

// The GUID names of all volumes, in the order the system lists them.
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
        open_ = reinterpret_cast<OpenFunction>(os::GetProcAddress(module_, "KIV_Open"));
        close_ = reinterpret_cast<CloseFunction>(os::GetProcAddress(module_, "KIV_Close"));
        information_ = reinterpret_cast<InformationFunction>(
            os::GetProcAddress(module_, "KIV_GetVolumeInformation"));
    }
    ~DriverLibrary() {
        if (module_ != nullptr) {
            os::FreeLibrary(module_);
        }
    }
    DriverLibrary(const DriverLibrary&) = delete;
    DriverLibrary& operator=(const DriverLibrary&) = delete;

    // False when the library is missing or does not answer for the volume.
    bool attributes(const std::u16string& volumeName, std::uint32_t* attributes) const {
        if (open_ == nullptr || close_ == nullptr || information_ == nullptr) {
            return false;
        }
        const std::string name = host::toUtf8(sim::withoutTrailingBackslashes(volumeName));
        std::uint64_t handle = ~std::uint64_t{0};
        if (open_(name.c_str(), 3, 128, 3, 1000, &handle) != 0 || handle == 0 ||
            handle == ~std::uint64_t{0}) {
            return false;
        }
        unsigned char record[40] = {};
        const std::uint32_t status = information_(handle, sizeof(record), record);
        close_(&handle);
        if (status != 0) {
            return false;
        }
        std::memcpy(attributes, record, sizeof(*attributes));
        return true;
    }

  private:
    using OpenFunction = std::uint32_t (*)(const char*, std::uint32_t, std::uint32_t, std::uint32_t,
                                           std::uint32_t, std::uint64_t*);
    using CloseFunction = std::uint32_t (*)(std::uint64_t*);
    using InformationFunction = std::uint32_t (*)(std::uint64_t, std::uint16_t, void*);

    os::HMODULE module_ = nullptr;
    OpenFunction open_ = nullptr;
    CloseFunction close_ = nullptr;
    InformationFunction information_ = nullptr;
};

// "fixed, NTFS, 127.0 GiB total, 41.0 GiB free, driver attributes 0x1", with
// what the system would not say given as its reason.
std::string describe(const std::u16string& name, const DriverLibrary& driver) {
    std::string line = sim::driveTypeName(os::GetDriveTypeW(name.c_str()));
    char16_t fileSystem[os::MAX_PATH] = {};
    if (os::GetVolumeInformationW(name.c_str(), nullptr, 0, nullptr, nullptr, nullptr, fileSystem,
                                  os::MAX_PATH)) {
        line += ", " + host::toUtf8(fileSystem);
    } else {
        const os::DWORD error = os::GetLastError();
        line += error == os::ERROR_UNRECOGNIZED_VOLUME ? ", unrecognised file system"
                : error == os::ERROR_NOT_READY         ? ", no media"
                                                       : ", file system unreadable";
    }
    os::ULARGE_INTEGER total{};
    os::ULARGE_INTEGER free{};
    if (os::GetDiskFreeSpaceExW(name.c_str(), nullptr, &total, &free)) {
        line += ", " + gibibytes(total.QuadPart) + " total, " + gibibytes(free.QuadPart) + " free";
    }
    std::uint32_t attributes = 0;
    if (driver.attributes(name, &attributes)) {
        char text[16];
        std::snprintf(text, sizeof(text), "0x%" PRIx32, attributes);
        line += std::string(", driver attributes ") + text;
    } else {
        line += ", the driver does not answer";
    }
    return line;
}

int runVolumes(const GlobalOptions& options, const VolumesOptions& volumesOptions) {
    // Which simulated machine answers is said first; a broken description
    // stops here with its own message.
    std::string error;
    if (sim::Machine::currentOrNull(&error) == nullptr) {
        std::cerr << "fihost: " << error << "\n";
        return kExitFailed;
    }
    ProviderSession session(volumesOptions.locale.empty()
                                ? std::nullopt
                                : std::optional<std::string>(volumesOptions.locale));
    if (!session.start(options)) {
        return kExitFailed;
    }
    std::cout << "machine " << sim::Machine::currentFile().string() << "\n";
    const std::vector<std::u16string> names = volumeNames();
    const auto paths = volumePaths(names);
    const DriverLibrary driver;
    for (const std::u16string& guidName : names) {
        std::cout << "\n" << host::toUtf8(guidName) << "\n";
        std::cout << "  paths:";
        auto found = paths.find(guidName);
        if (found == paths.end()) {
            std::cout << " (none)";
        } else {
            for (const std::u16string& path : found->second) {
                std::cout << " " << host::toUtf8(path);
            }
        }
        std::cout << "\n  " << describe(guidName, driver) << "\n";

        // The host names a volume by its first path, as a user would; a volume
        // without one by its GUID name.
        std::u16string name = found == paths.end() ? guidName : found->second.front();
        host::HostNode record(name);
        session.context().takeMessages();
        tarn_objid* identity = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t count = 0;
        std::int32_t answer =
            session.plugin().interpose(record.record(), &identity, &groups, &count);
        if (answer == 1 && identity != nullptr) {
            std::cout << "  interposed as " << host::toUtf8(identity->name) << "\n";
        } else {
            std::cout << "  not interposed\n";
        }
        printMessages(session.context().takeMessages(), volumesOptions.traces ? 4 : 3, "    ");
    }
    return kExitOk;
}

}  // namespace

CommandRun configureVolumes(CLI::App& command) {
    auto volumesOptions = std::make_shared<VolumesOptions>();
    command.add_option("--locale", volumesOptions->locale, "Locale for catalogue messages");
    command.add_flag("--traces", volumesOptions->traces, "Show the provider's trace lines too");
    return [volumesOptions](const GlobalOptions& options) {
        return runVolumes(options, *volumesOptions);
    };
}

}  // namespace fihost
