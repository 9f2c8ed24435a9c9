// Volume enumeration, mount point enumeration and free-space queries on
// generated machines. Each benchmark reports "per_volume", the time spent per
// volume of the machine; on a machine ten times larger it should stay about
// the same, since cache placement walks every volume.
//
// BM_Call/<name>: each machine call the plug-in makes (the driver library's
// included), on its own, on a machine of 1,000 volumes, asking about its last
// volumes where that matters, so that a regression shows up per call.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kivsim/kivapi.h"
#include "os/error.h"
#include "os/file.h"
#include "os/handle.h"
#include "os/module.h"
#include "os/sync.h"
#include "os/time.h"
#include "os/version.h"
#include "os/volume.h"
#include "sim/hooks.h"
#include "sim/machine.h"

namespace {

std::string guidText(int number) {
    char text[64];
    std::snprintf(text, sizeof(text), "{00000000-0000-0000-0000-%012d}", number);
    return text;
}

// A machine of `count` volumes: C: and up to 23 more drive letters, then
// volumes mounted in folders of C:, every fourth of those nested one level
// deeper in the previous mounted volume, and every tenth without any path.
std::filesystem::path writeMachine(int count) {
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() /
        ("fikiv-bench-" + std::to_string(getpid()) + "-" + std::to_string(count));
    std::filesystem::create_directories(directory);
    nlohmann::json volumes = nlohmann::json::array();
    std::string previousMount;
    for (int number = 1; number <= count; ++number) {
        nlohmann::json paths = nlohmann::json::array();
        if (number <= 24) {
            paths.push_back(std::string(1, static_cast<char>('B' + number)) + ":\\");
        } else if (number % 10 == 0) {
            // no path
        } else if (number % 4 == 0 && !previousMount.empty()) {
            paths.push_back(previousMount + "n" + std::to_string(number) + "\\");
        } else {
            previousMount = "C:\\mnt\\v" + std::to_string(number) + "\\";
            paths.push_back(previousMount);
        }
        volumes.push_back({{"guid", guidText(number)},
                           {"paths", paths},
                           {"type", "fixed"},
                           {"fileSystem", "NTFS"},
                           {"totalBytes", 1ull << 40},
                           {"freeBytes", static_cast<std::uint64_t>(number) << 30}});
    }
    const std::filesystem::path file = directory / "machine.json";
    std::ofstream(file) << nlohmann::json{{"volumes", volumes}}.dump();
    return file;
}

// Makes the generated machine of `count` volumes current for one benchmark.
class GeneratedMachine {
  public:
    explicit GeneratedMachine(int count) : file_(writeMachine(count)) {
        setenv("FIKIV_MACHINE", file_.c_str(), 1);
        sim::Machine::reset();
        sim::Machine::current();
    }
    ~GeneratedMachine() {
        sim::Machine::reset();
        std::error_code ignored;
        std::filesystem::remove_all(file_.parent_path(), ignored);
    }
    GeneratedMachine(const GeneratedMachine&) = delete;
    GeneratedMachine& operator=(const GeneratedMachine&) = delete;

  private:
    std::filesystem::path file_;
};

std::vector<std::u16string> volumeNames() {
    std::vector<std::u16string> names;
    char16_t buffer[50];
    os::HANDLE find = os::FindFirstVolumeW(buffer, 50);
    if (find == os::INVALID_HANDLE_VALUE) {
        return names;
    }
    do {
        names.emplace_back(buffer);
    } while (os::FindNextVolumeW(find, buffer, 50));
    os::FindVolumeClose(find);
    return names;
}

void reportPerVolume(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["per_volume"] = benchmark::Counter(
        static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_EnumerateVolumes(benchmark::State& state) {
    GeneratedMachine machine(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::vector<std::u16string> names = volumeNames();
        if (names.size() != static_cast<std::size_t>(state.range(0))) {
            state.SkipWithError("enumeration missed volumes");
            break;
        }
        benchmark::DoNotOptimize(names.data());
    }
    reportPerVolume(state);
}

// The walk of cache placement: every mount point of every volume, each turned
// back into its volume's GUID name.
void BM_EnumerateMountPoints(benchmark::State& state) {
    GeneratedMachine machine(static_cast<int>(state.range(0)));
    const std::vector<std::u16string> names = volumeNames();
    for (auto _ : state) {
        std::size_t found = 0;
        for (const std::u16string& volume : names) {
            char16_t mountPoint[os::MAX_PATH];
            os::HANDLE find =
                os::FindFirstVolumeMountPointW(volume.c_str(), mountPoint, os::MAX_PATH);
            if (find == os::INVALID_HANDLE_VALUE) {
                continue;
            }
            do {
                const std::u16string path = volume + mountPoint;
                char16_t name[50];
                found += os::GetVolumeNameForVolumeMountPointW(path.c_str(), name, 50) ? 1 : 0;
            } while (os::FindNextVolumeMountPointW(find, mountPoint, os::MAX_PATH));
            os::FindVolumeMountPointClose(find);
        }
        benchmark::DoNotOptimize(found);
    }
    reportPerVolume(state);
}

void BM_FreeSpace(benchmark::State& state) {
    GeneratedMachine machine(static_cast<int>(state.range(0)));
    const std::vector<std::u16string> names = volumeNames();
    for (auto _ : state) {
        std::uint64_t total = 0;
        for (const std::u16string& volume : names) {
            os::ULARGE_INTEGER free{};
            os::GetDiskFreeSpaceExW(volume.c_str(), nullptr, nullptr, &free);
            total += free.QuadPart;
        }
        benchmark::DoNotOptimize(total);
    }
    reportPerVolume(state);
}

// The driver library's entry points that the plug-in calls for every volume
// it looks at, bound as the plug-in binds them.
struct Driver {
    KIV_Open_t open = nullptr;
    KIV_Close_t close = nullptr;
    KIV_GetVolumeInformation_t getVolumeInformation = nullptr;
};

const Driver& driver() {
    static const Driver bound = [] {
        Driver made;
        const os::HMODULE library = os::LoadLibraryW(u"kivapi.dll");
        made.open = reinterpret_cast<KIV_Open_t>(os::GetProcAddress(library, "KIV_Open"));
        made.close = reinterpret_cast<KIV_Close_t>(os::GetProcAddress(library, "KIV_Close"));
        made.getVolumeInformation = reinterpret_cast<KIV_GetVolumeInformation_t>(
            os::GetProcAddress(library, "KIV_GetVolumeInformation"));
        return made;
    }();
    return bound;
}

std::u16string wide(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

// One machine call (or the pair that opens and closes a search).
struct Call {
    const char* name;
    std::function<void()> run;
};

std::vector<Call> machineCalls() {
    // Volume 999 is mounted at C:\mnt\v999\; volume 1000 has no path.
    static const std::u16string lastGuid = u"\\\\?\\Volume" + wide(guidText(1000)) + u"\\";
    static const std::u16string mountedGuid = u"\\\\?\\Volume" + wide(guidText(999)) + u"\\";
    static const std::u16string cGuid = u"\\\\?\\Volume" + wide(guidText(1)) + u"\\";
    static const std::u16string belowGuid = cGuid + u"mnt\\v999\\";
    static os::CRITICAL_SECTION section;
    static const bool sectionReady = os::InitializeCriticalSectionAndSpinCount(&section, 4000);
    (void)sectionReady;
    return {
        {"GetVersionExW",
         [] {
             os::OSVERSIONINFOW version{};
             version.dwOSVersionInfoSize = sizeof(version);
             benchmark::DoNotOptimize(os::GetVersionExW(&version));
         }},
        {"GetModuleHandleW", [] { benchmark::DoNotOptimize(os::GetModuleHandleW(u"kernel32.dll")); }},
        {"GetProcAddress",
         [] {
             static const os::HMODULE kernel32 = os::GetModuleHandleW(u"kernel32.dll");
             benchmark::DoNotOptimize(
                 os::GetProcAddress(kernel32, "GetVolumeNameForVolumeMountPointW"));
         }},
        {"FindFirstVolumeW+FindVolumeClose",
         [] {
             char16_t name[50];
             os::FindVolumeClose(os::FindFirstVolumeW(name, 50));
         }},
        {"FindNextVolumeW",
         [] {
             static os::HANDLE find = os::INVALID_HANDLE_VALUE;
             char16_t name[50];
             if (find == os::INVALID_HANDLE_VALUE || !os::FindNextVolumeW(find, name, 50)) {
                 if (find != os::INVALID_HANDLE_VALUE) {
                     os::FindVolumeClose(find);
                 }
                 find = os::FindFirstVolumeW(name, 50);
             }
         }},
        {"FindFirstVolumeMountPointW+FindVolumeMountPointClose",
         [] {
             char16_t mountPoint[os::MAX_PATH];
             os::FindVolumeMountPointClose(
                 os::FindFirstVolumeMountPointW(cGuid.c_str(), mountPoint, os::MAX_PATH));
         }},
        {"FindNextVolumeMountPointW",
         [] {
             static os::HANDLE find = os::INVALID_HANDLE_VALUE;
             char16_t mountPoint[os::MAX_PATH];
             if (find == os::INVALID_HANDLE_VALUE ||
                 !os::FindNextVolumeMountPointW(find, mountPoint, os::MAX_PATH)) {
                 if (find != os::INVALID_HANDLE_VALUE) {
                     os::FindVolumeMountPointClose(find);
                 }
                 find = os::FindFirstVolumeMountPointW(cGuid.c_str(), mountPoint, os::MAX_PATH);
             }
         }},
        {"GetVolumeNameForVolumeMountPointW/DriveRoot",
         [] {
             char16_t name[50];
             benchmark::DoNotOptimize(os::GetVolumeNameForVolumeMountPointW(u"Z:\\", name, 50));
         }},
        {"GetVolumeNameForVolumeMountPointW/BelowGuid",
         [] {
             char16_t name[50];
             benchmark::DoNotOptimize(
                 os::GetVolumeNameForVolumeMountPointW(belowGuid.c_str(), name, 50));
         }},
        {"GetVolumePathNameW",
         [] {
             char16_t path[os::MAX_PATH];
             benchmark::DoNotOptimize(
                 os::GetVolumePathNameW(u"C:\\mnt\\v999\\file", path, os::MAX_PATH));
         }},
        {"GetLogicalDriveStringsW",
         [] {
             char16_t drives[128];
             benchmark::DoNotOptimize(os::GetLogicalDriveStringsW(128, drives));
         }},
        {"GetDriveTypeW", [] { benchmark::DoNotOptimize(os::GetDriveTypeW(lastGuid.c_str())); }},
        {"GetVolumeInformationW",
         [] {
             char16_t fileSystem[32];
             benchmark::DoNotOptimize(os::GetVolumeInformationW(
                 lastGuid.c_str(), nullptr, 0, nullptr, nullptr, nullptr, fileSystem, 32));
         }},
        {"GetDiskFreeSpaceExW",
         [] {
             os::ULARGE_INTEGER free{};
             benchmark::DoNotOptimize(
                 os::GetDiskFreeSpaceExW(mountedGuid.c_str(), nullptr, nullptr, &free));
         }},
        {"GetFileAttributesW",
         [] { benchmark::DoNotOptimize(os::GetFileAttributesW(u"C:\\mnt\\v999\\")); }},
        {"WaitForSingleObject+ReleaseMutex",
         [] {
             static const os::HANDLE mutex = os::CreateMutexW(nullptr, os::FALSE, nullptr);
             os::WaitForSingleObject(mutex, 0);
             os::ReleaseMutex(mutex);
         }},
        {"EnterCriticalSection+LeaveCriticalSection",
         [] {
             os::EnterCriticalSection(&section);
             os::LeaveCriticalSection(&section);
         }},
        {"GetTickCount64", [] { benchmark::DoNotOptimize(os::GetTickCount64()); }},
        {"GetSystemTime",
         [] {
             os::SYSTEMTIME time{};
             os::GetSystemTime(&time);
             benchmark::DoNotOptimize(time);
         }},
        {"KIV_Open+KIV_Close",
         [] {
             KivHandle handle = kInvalidKivHandle;
             driver().open("C:\\mnt\\v999", 3, 128, 3, 1000, &handle);
             driver().close(&handle);
         }},
        {"KIV_GetVolumeInformation",
         [] {
             // One handle per machine: each run of the benchmark makes its own.
             static std::uint64_t machine = 0;
             static KivHandle handle = kInvalidKivHandle;
             if (machine != sim::Machine::current().loadNumber()) {
                 machine = sim::Machine::current().loadNumber();
                 driver().open("C:\\mnt\\v999", 3, 128, 3, 1000, &handle);
             }
             KivVolumeInformation information{};
             benchmark::DoNotOptimize(
                 driver().getVolumeInformation(handle, sizeof(information), &information));
         }},
        {"SetLastError+GetLastError",
         [] {
             os::SetLastError(5);
             benchmark::DoNotOptimize(os::GetLastError());
         }},
    };
}

void BM_Call(benchmark::State& state, const Call& call) {
    GeneratedMachine machine(1000);
    call.run();
    for (auto _ : state) {
        call.run();
    }
}

// Registered at start-up, one benchmark per row.
const bool kCallsRegistered = [] {
    for (const Call& call : machineCalls()) {
        benchmark::RegisterBenchmark((std::string("BM_Call/") + call.name).c_str(), BM_Call, call);
    }
    return true;
}();

BENCHMARK(BM_EnumerateVolumes)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_EnumerateMountPoints)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_FreeSpace)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
