// fikiv-machine: looks at a simulated machine.
//
//   fikiv-machine show [FILE]   the volumes of the current machine (or of FILE),
//                               asked through the os:: volume functions as the
//                               plug-in asks them
//   fikiv-machine check FILE    reads a description and reports the first fault
//
// Exit codes: 0 success, 1 the machine or description is broken, 2 bad usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "os/error.h"
#include "os/module.h"
#include "os/version.h"
#include "os/volume.h"
#include "sim/machine.h"
#include "sim/text.h"

namespace {

constexpr int kExitBroken = 1;
constexpr int kExitUsage = 2;

int usage() {
    std::fprintf(stderr,
                 "usage: fikiv-machine show [FILE]\n"
                 "       fikiv-machine check FILE\n");
    return kExitUsage;
}

std::string utf8(const std::u16string& text) {
    return sim::toUtf8(text);
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
    std::string text;
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%x", attributes);
    text = hex;
    if (attributes & 0x4) {
        text += " disabled";
    }
    if (attributes & 0x10) {
        text += " active-cache";
    }
    return text;
}

// The snapshot driver's attributes of a volume, asked of the driver library
// the way the plug-in asks them.
class DriverView {
  public:
    DriverView() {
        module_ = os::LoadLibraryW(u"kivapi.dll");
        if (module_ == nullptr) {
            return;
        }
        open_ = reinterpret_cast<OpenFunction>(os::GetProcAddress(module_, "KIV_Open"));
        close_ = reinterpret_cast<CloseFunction>(os::GetProcAddress(module_, "KIV_Close"));
        information_ = reinterpret_cast<InformationFunction>(
            os::GetProcAddress(module_, "KIV_GetVolumeInformation"));
    }
    ~DriverView() {
        if (module_ != nullptr) {
            os::FreeLibrary(module_);
        }
    }
    DriverView(const DriverView&) = delete;
    DriverView& operator=(const DriverView&) = delete;

    bool available() const {
        return open_ != nullptr && close_ != nullptr && information_ != nullptr;
    }

    // False when the driver does not answer for the volume.
    bool attributes(const std::u16string& volumeName, std::uint32_t* attributes) const {
        const std::string name = sim::toUtf8(sim::withoutTrailingBackslashes(volumeName));
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

// Every path of every volume: drive letters first, then the mount points
// found on volumes whose paths are already known, until nothing new appears.
std::map<std::u16string, std::vector<std::u16string>> volumePaths(
    const std::vector<std::u16string>& names) {
    std::map<std::u16string, std::vector<std::u16string>> paths;
    char16_t buffer[os::MAX_PATH];
    const os::DWORD length = os::GetLogicalDriveStringsW(os::MAX_PATH, buffer);
    for (os::DWORD at = 0; at < length && buffer[at] != u'\0';) {
        const std::u16string root(buffer + at);
        char16_t name[50];
        if (os::GetVolumeNameForVolumeMountPointW(root.c_str(), name, 50)) {
            paths[name].push_back(root);
        }
        at += static_cast<os::DWORD>(root.size() + 1);
    }
    std::map<std::u16string, bool> expanded;
    for (bool grew = true; grew;) {
        grew = false;
        for (const std::u16string& volume : names) {
            if (expanded[volume] || paths[volume].empty()) {
                continue;
            }
            expanded[volume] = true;
            os::HANDLE find = os::FindFirstVolumeMountPointW(volume.c_str(), buffer, os::MAX_PATH);
            if (find == os::INVALID_HANDLE_VALUE) {
                continue;
            }
            do {
                for (const std::u16string& base : std::vector<std::u16string>(paths[volume])) {
                    const std::u16string mountPoint = base + buffer;
                    char16_t name[50];
                    if (os::GetVolumeNameForVolumeMountPointW(mountPoint.c_str(), name, 50)) {
                        paths[name].push_back(mountPoint);
                        grew = true;
                    }
                }
            } while (os::FindNextVolumeMountPointW(find, buffer, os::MAX_PATH));
            os::FindVolumeMountPointClose(find);
        }
    }
    return paths;
}

int show() {
    std::string error;
    const sim::Machine* machine = sim::Machine::currentOrNull(&error);
    if (machine == nullptr) {
        std::fprintf(stderr, "fikiv-machine: %s\n", error.c_str());
        return kExitBroken;
    }
    os::OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    os::GetVersionExW(&version);
    std::printf("machine %s\nWindows %u.%u build %u\n\n", machine->file().c_str(),
                version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber);

    const std::vector<std::u16string> names = volumeNames();
    const auto paths = volumePaths(names);
    const DriverView driver;
    if (!driver.available()) {
        std::printf(
            "(driver library not loaded, error %u: driver attributes are taken from the "
            "description)\n\n",
            os::GetLastError());
    }
    for (const std::u16string& name : names) {
        std::printf("%s\n", utf8(name).c_str());
        std::string pathList;
        auto found = paths.find(name);
        if (found != paths.end()) {
            for (const std::u16string& path : found->second) {
                pathList += (pathList.empty() ? "" : ", ") + utf8(path);
            }
        }
        std::printf("  paths        %s\n", pathList.empty() ? "(none)" : pathList.c_str());
        std::printf("  type         %s\n", sim::driveTypeName(os::GetDriveTypeW(name.c_str())));
        char16_t label[64];
        char16_t fileSystem[64];
        if (os::GetVolumeInformationW(name.c_str(), label, 64, nullptr, nullptr, nullptr,
                                      fileSystem, 64)) {
            std::printf("  file system  %s  label \"%s\"\n", utf8(fileSystem).c_str(),
                        utf8(label).c_str());
        } else {
            const os::DWORD code = os::GetLastError();
            std::printf("  file system  %s (error %u)\n",
                        code == os::ERROR_UNRECOGNIZED_VOLUME ? "unrecognised"
                        : code == os::ERROR_NOT_READY         ? "no media"
                                                              : "unreadable",
                        code);
        }
        os::ULARGE_INTEGER total{};
        os::ULARGE_INTEGER free{};
        if (os::GetDiskFreeSpaceExW(name.c_str(), nullptr, &total, &free)) {
            std::printf("  space        %s free of %s\n", sizeText(free.QuadPart).c_str(),
                        sizeText(total.QuadPart).c_str());
        } else {
            std::printf("  space        unknown (error %u)\n", os::GetLastError());
        }
        std::uint32_t attributes = 0;
        if (driver.available()) {
            if (driver.attributes(name, &attributes)) {
                std::printf("  driver       %s\n", attributeText(attributes).c_str());
            } else {
                std::printf("  driver       does not answer\n");
            }
        } else if (const sim::Volume* volume = machine->findVolume(name)) {
            std::printf("  driver       %s\n", attributeText(volume->driverAttributes).c_str());
        }
    }
    return 0;
}

int check(const char* file) {
    try {
        const sim::Machine machine = sim::Machine::load(file);
        std::size_t mountPoints = 0;
        for (const sim::Volume& volume : machine.volumes()) {
            mountPoints += machine.mountPointsOn(volume).size();
        }
        std::printf("%s: %zu volumes, %zu mount points, %zu faults: valid\n", file,
                    machine.volumes().size(), mountPoints, machine.faults().size());
        return 0;
    } catch (const sim::MachineError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return kExitBroken;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return usage();
    }
    const std::string command = argv[1];
    if (command == "show" && argc <= 3) {
        if (argc == 3) {
            setenv("FIKIV_MACHINE", argv[2], 1);
        }
        return show();
    }
    if (command == "check" && argc == 3) {
        return check(argv[2]);
    }
    return usage();
}
