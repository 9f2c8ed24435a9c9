// Volume enumeration, mount point enumeration and free-space queries on
// generated machines. Each benchmark reports "per_volume", the time spent per
// volume of the machine; on a machine ten times larger it should stay about
// the same, since cache placement walks every volume.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "os/volume.h"
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

BENCHMARK(BM_EnumerateVolumes)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_EnumerateMountPoints)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_FreeSpace)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
