// Helpers shared by the cache file tests.
#ifndef TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_
#define TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/machine.h"
#include "support/log_capture.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace cachefiletest {

inline constexpr std::uint64_t kMB = 1ull << 20;
inline constexpr std::uint64_t kGB = 1ull << 30;

// A machine description with these volumes (TempMachine::volume entries).
inline nlohmann::json machineWith(const std::vector<nlohmann::json>& volumes) {
    return {{"majorVersion", 10}, {"volumes", volumes}};
}

// A fixed volume of 100 GB with this much free.
inline nlohmann::json fixedVolume(int number, std::initializer_list<const char*> paths,
                                  std::uint64_t freeBytes, std::uint32_t attributes = 0x1) {
    return testsupport::TempMachine::volume(number, paths, "fixed", "NTFS", 100 * kGB, freeBytes,
                                            attributes);
}

// Fixed volumes 1, 2, ... at C:\, D:\, ... with these free GB, then `more`.
inline nlohmann::json drives(std::initializer_list<std::uint64_t> freeGB,
                             std::vector<nlohmann::json> more = {}) {
    static const char* const kRoots[] = {"C:\\", "D:\\", "E:\\", "F:\\", "G:\\"};
    std::vector<nlohmann::json> volumes;
    for (const std::uint64_t gb : freeGB) {
        const int number = static_cast<int>(volumes.size()) + 1;
        volumes.push_back(fixedVolume(number, {kRoots[number - 1]}, gb * kGB));
    }
    volumes.insert(volumes.end(), more.begin(), more.end());
    return machineWith(volumes);
}

// "\\?\Volume{...NN}\" and the same without the trailing backslash.
inline std::u16string guid(int number) {
    return testsupport::TempMachine::guidName(number);
}
inline std::u16string guidRoot(int number) {
    std::u16string name = guid(number);
    name.pop_back();
    return name;
}

// Creates an empty file at a Windows path of the current machine (its
// directory must exist).
inline void createFileAt(const std::u16string& windowsPath) {
    const auto resolved = sim::Machine::current().resolve(windowsPath);
    if (!resolved || !std::ofstream(resolved->hostPath)) {
        throw std::runtime_error("cannot create " + testsupport::utf8(windowsPath));
    }
}

// Everything the host hears while it lives, log lines and the coordinator's
// sizing reports alike, as "<level> <text>" lines.
class HostCapture {
  public:
    HostCapture() { coordinator_.setFrameworkContext(log_.context()); }
    ~HostCapture() { coordinator_.setFrameworkContext(previous_); }

    std::vector<std::string> lines() {
        std::vector<std::string> lines;
        for (const testsupport::CapturedMessage& message : log_.messages()) {
            lines.push_back(std::to_string(message.level) + " " + testsupport::utf8(message.text));
        }
        return lines;
    }

  private:
    // Made before the capture, so that its creation trace is not heard.
    KivFiCoordinator& coordinator_ = KivFiCoordinator::instance();
    tarn_context* previous_ = coordinator_.frameworkContext();
    testsupport::LogCapture log_;
};

// The sizing messages as HostCapture hears them; "%V" stands for the volume.
inline const std::string kAbsolute =
    "1 INFO: Absolute value for cachevolume size is considered for resource %V";
inline const std::string kPercentages =
    "1 INFO: cachefileInitSizePercentages are considered to find cachesize for resource %V";
inline const std::string kLowSpace =
    "2 WARNING: Freespace of cachevolume is less than 50MB for resource %V";
inline std::string ninetyFive(const std::string& sizeMB, const std::string& freeMB) {
    return "1 INFO: 95% [" + sizeMB + " MB] of Cache volume Freespace [" + freeMB +
           " MB] is considered for resource %V";
}
inline std::string onVolume(std::string message, const std::u16string& volume) {
    return message.replace(message.find("%V"), 2, testsupport::utf8(volume));
}

// The provider mutex of the current machine, opened for one test.
inline os::UniqueHandle testMutex() {
    return os::UniqueHandle(os::CreateMutexW(nullptr, os::FALSE, providerMutexName(10)));
}

}  // namespace cachefiletest

#endif  // TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_
