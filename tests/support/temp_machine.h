// A simulated machine made for one test: writes the description to a fresh
// temporary directory, points FIKIV_MACHINE at it and makes it current. The
// destructor restores the previous FIKIV_MACHINE and removes the directory.
#ifndef TESTS_SUPPORT_TEMP_MACHINE_H_
#define TESTS_SUPPORT_TEMP_MACHINE_H_

#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

namespace testsupport {

class TempMachine {
  public:
    explicit TempMachine(const nlohmann::json& description);
    ~TempMachine();
    TempMachine(const TempMachine&) = delete;
    TempMachine& operator=(const TempMachine&) = delete;

    const std::filesystem::path& directory() const { return directory_; }
    const std::filesystem::path& file() const { return file_; }

    // One volume entry of a description. `number` makes the GUID
    // "{00000000-0000-0000-0000-0000000000NN}".
    static nlohmann::json volume(int number, std::initializer_list<const char*> paths,
                                 const char* type = "fixed", const char* fileSystem = "NTFS",
                                 std::uint64_t totalBytes = 100ull << 30,
                                 std::uint64_t freeBytes = 50ull << 30,
                                 std::uint32_t attributes = 0x1);
    // The GUID name "\\?\Volume{...}\" of volume `number`.
    static std::u16string guidName(int number);

  private:
    std::filesystem::path directory_;
    std::filesystem::path file_;
    std::string previous_;
    bool hadPrevious_ = false;
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_TEMP_MACHINE_H_
