// The machines the benchmarks run on: volume 1 is C:\, the next 23 take the
// letters D: to Z:, the rest are mounted below C:\mnt. Free space varies from
// 1 to 97 GiB, with repeats, so that orders by free space meet equal values.
#ifndef BENCH_SUPPORT_GENERATED_MACHINE_H_
#define BENCH_SUPPORT_GENERATED_MACHINE_H_

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "support/temp_machine.h"

namespace benchsupport {

// The path of volume `number`, as a user names it.
inline std::string volumePath(int number) {
    if (number <= 24) {
        return std::string(1, static_cast<char>('C' + number - 1)) + ":\\";
    }
    return "C:\\mnt\\v" + std::to_string(number) + "\\";
}

inline nlohmann::json generatedMachine(int volumeCount) {
    nlohmann::json volumes = nlohmann::json::array();
    for (int number = 1; number <= volumeCount; ++number) {
        const std::uint64_t freeGB = static_cast<std::uint64_t>(number) * 37 % 97 + 1;
        volumes.push_back(testsupport::TempMachine::volume(
            number, {volumePath(number).c_str()}, "fixed", "NTFS", 100ull << 30, freeGB << 30));
    }
    return {{"majorVersion", 10}, {"volumes", volumes}};
}

}  // namespace benchsupport

#endif  // BENCH_SUPPORT_GENERATED_MACHINE_H_
