// Helpers of the platform tests: a buffer with canaries after its stated
// length, the check of a call that fills one, a call's answer, a saved
// environment variable, and the machines the tests share.
#ifndef TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_
#define TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "os/error.h"
#include "os/types.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace platformtest {

// The last-error value that no call sets: a call that leaves it alone is seen.
inline constexpr os::DWORD kUntouched = 0xdeadbeef;
// A row's expected error when the call is to succeed.
inline constexpr os::DWORD kNone = 0;

// What `call` returns and the last error it leaves (kUntouched: none set).
template <typename Call>
auto answer(Call call) {
    os::SetLastError(kUntouched);
    auto result = call();
    return std::make_pair(result, os::GetLastError());
}

// The GUID path "\\?\Volume{…000N}\" of volume `digit` ("1" to "9").
#define VOLUME_GUID(digit) u"\\\\?\\Volume{00000000-0000-0000-0000-00000000000" digit "}\\"

// `length` characters for the call, then canaries that must survive it.
class CanaryBuffer {
  public:
    static constexpr char16_t kCanary = 0x1111;
    explicit CanaryBuffer(os::DWORD length) : length_(length), data_(length + 4, kCanary) {}
    os::LPWSTR data() { return data_.data(); }
    os::DWORD length() const { return length_; }
    // Up to the first NUL within the buffer and its canaries.
    std::u16string text() const {
        return std::u16string(data_.begin(), std::find(data_.begin(), data_.end(), u'\0'));
    }
    bool untouched() const {
        return std::all_of(data_.begin(), data_.end(), [](char16_t c) { return c == kCanary; });
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

// Gives an environment variable its value back when it goes.
class SavedVariable {
  public:
    explicit SavedVariable(const char* name) : name_(name) {
        if (const char* value = std::getenv(name)) {
            value_ = value;
        }
    }
    ~SavedVariable() {
        if (value_) {
            setenv(name_, value_->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> value_;
};

// The outcome of a call that writes text into `buffer`, made after
// SetLastError(kUntouched): with `error` kNone it succeeded, left last error
// alone and wrote `expected` (nothing, into a buffer of length 0); otherwise
// it failed with `error` and wrote nothing. Never a character past the stated
// length.
inline ::testing::AssertionResult filled(bool succeeded, const CanaryBuffer& buffer,
                                         os::DWORD error, std::u16string_view expected = {}) {
    const os::DWORD lastError = os::GetLastError();
    const bool wanted = error == kNone;
    if (succeeded != wanted || lastError != (wanted ? kUntouched : error)) {
        return ::testing::AssertionFailure() << "succeeded " << succeeded << " with last error "
                                             << lastError << "; expected error " << error;
    }
    if (::testing::AssertionResult intact = buffer.canaryIntact(); !intact) {
        return intact;
    }
    if (!wanted || buffer.length() == 0) {
        if (!buffer.untouched()) {
            return ::testing::AssertionFailure() << "wrote into the buffer";
        }
        return ::testing::AssertionSuccess();
    }
    if (buffer.text() != expected) {
        return ::testing::AssertionFailure()
               << "wrote \"" << testsupport::utf8(buffer.text()) << "\", expected \""
               << testsupport::utf8(expected) << "\"";
    }
    return ::testing::AssertionSuccess();
}

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
    constexpr std::uint64_t kGiB = 1ull << 30;
    nlohmann::json volumes = {
        TempMachine::volume(1, {"C:\\"}, "fixed", "NTFS", 100 * kGiB, 40 * kGiB),
        TempMachine::volume(2, {"C:\\mnt\\data\\"}, "fixed", "NTFS", 200 * kGiB, 150 * kGiB),
        TempMachine::volume(3, {"C:\\mnt\\data\\inner\\"}, "fixed", "NTFS", 300 * kGiB, 10 * kGiB),
        TempMachine::volume(4, {"D:\\", "C:\\mnt\\d2\\"}, "fixed", "ReFS", 400 * kGiB, 400 * kGiB),
        TempMachine::volume(5, {}, "fixed", "NTFS", 500 * kGiB, 5 * kGiB),
        TempMachine::volume(6, {"E:\\"}, "fixed", "RAW", 600 * kGiB, 600 * kGiB),
        TempMachine::volume(7, {"F:\\"}, "cdrom", "CDFS", 0, 0),
        TempMachine::volume(8, {"G:\\"}, "removable", "FAT32", 32 * kGiB, 31 * kGiB),
    };
    volumes[6]["mediaPresent"] = false;
    volumes[7]["label"] = "STICK";
    volumes[7]["serial"] = "1A2B-3C4D";
    return {{"os", {{"major", 10}, {"minor", 0}, {"build", 17763}}}, {"volumes", volumes}};
}

// The machine of tests that need only a system drive.
inline nlohmann::json smallMachine() {
    return {{"volumes", {testsupport::TempMachine::volume(1, {"C:\\"})}}};
}

}  // namespace platformtest

#endif  // TESTS_PLATFORM_PLATFORM_TEST_UTIL_H_
