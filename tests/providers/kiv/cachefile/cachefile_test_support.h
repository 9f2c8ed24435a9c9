// Helpers shared by the cache file tests: machine descriptions, recording of
// host messages, files on simulated volumes and a per-test provider mutex.
#ifndef TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_
#define TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "os/types.h"
#include "tarn/records.h"

namespace cachefiletest {

inline constexpr std::uint64_t kMB = 1ull << 20;
inline constexpr std::uint64_t kGB = 1ull << 30;

// A machine description with these volumes (TempMachine::volume entries).
nlohmann::json machineWith(const std::vector<nlohmann::json>& volumes);

// "\\?\Volume{...NN}\" and the same without the trailing backslash.
std::u16string guid(int number);
std::u16string guidRoot(int number);

// UTF-8, for readable failure messages.
std::string utf8(const std::u16string& text);

// The Linux file behind a Windows path of the current machine.
std::filesystem::path hostPathOf(const std::u16string& windowsPath);
// Creates an empty file at a Windows path (its directory must exist).
void createFileAt(const std::u16string& windowsPath);

struct HostMessage {
    std::u16string text;
    std::uint32_t level = 0;
};

// Points the coordinator's framework context at a recorder for its lifetime.
class MessageCapture {
  public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    const std::vector<HostMessage>& messages() const;

  private:
    tarn_context context_{};
    tarn_context* previous_ = nullptr;
};

// The provider mutex of the current machine, opened for one test.
class TestMutex {
  public:
    TestMutex();
    ~TestMutex();
    TestMutex(const TestMutex&) = delete;
    TestMutex& operator=(const TestMutex&) = delete;
    os::HANDLE get() const { return handle_; }

  private:
    os::HANDLE handle_ = nullptr;
};

}  // namespace cachefiletest

#endif  // TESTS_PROVIDERS_KIV_CACHEFILE_CACHEFILE_TEST_SUPPORT_H_
