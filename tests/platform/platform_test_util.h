// Helpers of the platform tests: wide literals from narrow text, a buffer
// with a canary after its stated length, and small machines.
#ifndef TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_
#define TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "os/error.h"
#include "os/types.h"
#include "support/temp_machine.h"

namespace platformtest {

// The last-error value that no call sets: a call that leaves it alone is seen.
inline constexpr os::DWORD kUntouched = 0xdeadbeef;
inline constexpr char16_t kCanary = 0x1111;

inline std::u16string wide(std::string_view text) {
    return std::u16string(text.begin(), text.end());
}

inline std::string narrow(std::u16string_view text) {
    std::string result;
    for (char16_t c : text) {
        result.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    }
    return result;
}

// `length` characters for the call, then canaries that must survive it.
class CanaryBuffer {
  public:
    explicit CanaryBuffer(os::DWORD length) : length_(length), data_(length + 4, kCanary) {}
    os::LPWSTR data() { return data_.data(); }
    os::DWORD length() const { return length_; }
    std::u16string text() const { return std::u16string(data_.data()); }
    bool untouched() const {
        for (char16_t c : data_) {
            if (c != kCanary) {
                return false;
            }
        }
        return true;
    }
    ::testing::AssertionResult canaryIntact() const {
        for (std::size_t i = length_; i < data_.size(); ++i) {
            if (data_[i] != kCanary) {
                return ::testing::AssertionFailure()
                       << "written past the stated length " << length_ << " at index " << i;
            }
        }
        return ::testing::AssertionSuccess();
    }

  private:
    os::DWORD length_;
    std::vector<char16_t> data_;
};

// A machine of the tests of volumes and files:
//   1  C:\                 fixed NTFS
//   2  C:\mnt\data\        fixed NTFS, mounted in a folder of 1
//   3  C:\mnt\data\inner\  fixed NTFS, mounted in a folder of 2
//   4  D:\ and C:\mnt\d2\  fixed ReFS, two paths
//   5  (no path)           fixed NTFS
//   6  E:\                 fixed RAW
//   7  F:\                 CD-ROM, no disc
//   8  G:\                 removable FAT32, label "STICK"
inline nlohmann::json nestedMachine() {
    using testsupport::TempMachine;
    nlohmann::json volumes = nlohmann::json::array();
    volumes.push_back(TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100ull << 30, 40ull << 30));
    volumes.push_back(
        TempMachine::volume(2, {"C:\\mnt\\data\\"}, "fixed", "NTFS", 200ull << 30, 150ull << 30));
    volumes.push_back(TempMachine::volume(3, {"C:\\mnt\\data\\inner\\"}, "fixed", "NTFS",
                                          300ull << 30, 10ull << 30));
    volumes.push_back(TempMachine::volume(4, {"D:\\", "C:\\mnt\\d2\\"}, "fixed", "ReFS",
                                          400ull << 30, 400ull << 30));
    volumes.push_back(TempMachine::volume(5, {}, "fixed", "NTFS", 500ull << 30, 5ull << 30));
    volumes.push_back(TempMachine::volume(6, {"E:\\"}, "fixed", "RAW", 600ull << 30, 600ull << 30));
    nlohmann::json cdrom = TempMachine::volume(7, {"F:\\"}, "cdrom", "CDFS", 0, 0);
    cdrom["mediaPresent"] = false;
    volumes.push_back(cdrom);
    nlohmann::json stick =
        TempMachine::volume(8, {"G:\\"}, "removable", "FAT32", 32ull << 30, 31ull << 30);
    stick["label"] = "STICK";
    stick["serial"] = "1A2B-3C4D";
    volumes.push_back(stick);
    return {{"os", {{"major", 10}, {"minor", 0}, {"build", 17763}}}, {"volumes", volumes}};
}

}  // namespace platformtest

#endif  // TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_
