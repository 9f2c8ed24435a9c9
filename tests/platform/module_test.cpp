// LoadLibraryW, GetProcAddress, FreeLibrary and GetModuleHandleW: the driver
// library search, the kernel32 pseudo-module and the injected binding faults.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "os/error.h"
#include "os/module.h"
#include "os/volume.h"
#include "platform_test_util.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace {

using platformtest::answer;
using platformtest::kUntouched;
using testsupport::TempMachine;

using AnswerFunction = int (*)();

// Each test starts without FIKIV_LIBRARY_PATH.
class ModuleTest : public ::testing::Test {
  protected:
    void SetUp() override { unsetenv("FIKIV_LIBRARY_PATH"); }

    platformtest::SavedVariable libraryPath_{"FIKIV_LIBRARY_PATH"};
    TempMachine machine_{platformtest::nestedMachine()};
};

TEST_F(ModuleTest, DllNameFindsTheLibraryBesideThePlatformLibrary) {
    os::SetLastError(kUntouched);
    os::HMODULE module = os::LoadLibraryW(u"FikivTestModule.DLL");
    ASSERT_NE(module, nullptr) << os::GetLastError();
    auto testAnswer = reinterpret_cast<AnswerFunction>(os::GetProcAddress(module, "fikivTestAnswer"));
    ASSERT_NE(testAnswer, nullptr);
    EXPECT_EQ(testAnswer(), 42);
    EXPECT_EQ(os::GetModuleHandleW(u"fikivtestmodule.dll"), module);

    // Each load takes a reference; the module stays until the last FreeLibrary.
    EXPECT_EQ(os::LoadLibraryW(u"fikivtestmodule.dll"), module);
    EXPECT_TRUE(os::FreeLibrary(module));
    EXPECT_EQ(os::GetModuleHandleW(u"fikivtestmodule.dll"), module);
    EXPECT_TRUE(os::FreeLibrary(module));
    EXPECT_EQ(answer([] { return os::GetModuleHandleW(u"fikivtestmodule.dll"); }), std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_MOD_NOT_FOUND}));
    EXPECT_EQ(answer([&] { return os::FreeLibrary(module); }),
              std::pair(os::FALSE, os::DWORD{os::ERROR_INVALID_HANDLE}));
}

TEST_F(ModuleTest, LibraryPathIsSearchedFirst) {
    // A copy under another name exists only in the configured directory.
    std::string pattern = (std::filesystem::temp_directory_path() / "fikiv-lib-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const std::filesystem::path directory = pattern;
    std::filesystem::copy_file(FIKIV_TEST_MODULE_FILE, directory / "libfikivelsewhere.so");

    EXPECT_EQ(answer([] { return os::LoadLibraryW(u"fikivelsewhere.dll"); }), std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_MOD_NOT_FOUND}));

    setenv("FIKIV_LIBRARY_PATH", ("/nonexistent:" + directory.string()).c_str(), 1);
    os::HMODULE module = os::LoadLibraryW(u"fikivelsewhere.dll");
    ASSERT_NE(module, nullptr);
    EXPECT_NE(os::GetProcAddress(module, "fikivTestAnswer"), nullptr);
    EXPECT_TRUE(os::FreeLibrary(module));
    std::filesystem::remove_all(directory);
}

TEST_F(ModuleTest, BindingFailureRows) {
    os::HMODULE module = os::LoadLibraryW(u"fikivtestmodule.dll");
    ASSERT_NE(module, nullptr);
    // clang-format off
    struct Row { const char* name; os::HMODULE module; const char* export_; os::DWORD error; };
    const Row rows[] = {
        {"NullModule", nullptr, "fikivTestAnswer", os::ERROR_INVALID_HANDLE},
        {"NullName", module, nullptr, os::ERROR_INVALID_PARAMETER},
        {"Ordinal", module, reinterpret_cast<const char*>(std::uintptr_t{7}), os::ERROR_PROC_NOT_FOUND},
        {"AbsentExport", module, "KIV_NoSuchEntry", os::ERROR_PROC_NOT_FOUND},
        {"UnknownModule", reinterpret_cast<os::HMODULE>(std::uintptr_t{0x1000}), "fikivTestAnswer", os::ERROR_MOD_NOT_FOUND},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(answer([&] { return os::GetProcAddress(row.module, row.export_); }),
                  std::pair(os::FARPROC{nullptr}, row.error));
    }

    sim::makeUnbindable("FIKIVTESTMODULE.dll", "fikivTestAnswer");
    EXPECT_EQ(answer([&] { return os::GetProcAddress(module, "fikivTestAnswer"); }),
              std::pair(os::FARPROC{nullptr}, os::DWORD{os::ERROR_PROC_NOT_FOUND}));
    EXPECT_TRUE(os::FreeLibrary(module));

    sim::makeLibraryMissing("fikivtestmodule.dll");
    EXPECT_EQ(answer([] { return os::LoadLibraryW(u"C:\\Windows\\System32\\FikivTestModule.dll"); }),
              std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_MOD_NOT_FOUND}));

    sim::injectFault("LoadLibraryW", os::ERROR_ACCESS_DENIED);
    EXPECT_EQ(answer([] { return os::LoadLibraryW(u"kernel32.dll"); }),
              std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_ACCESS_DENIED}));
}

TEST_F(ModuleTest, Kernel32ResolvesTheVolumeFunctions) {
    os::HMODULE kernel32 = os::GetModuleHandleW(u"KERNEL32.DLL");
    ASSERT_NE(kernel32, nullptr);
    EXPECT_EQ(os::LoadLibraryW(u"kernel32.dll"), kernel32);
    // clang-format off
    struct Row { const char* name; os::FARPROC expected; };
    const Row rows[] = {
        {"FindFirstVolumeW", reinterpret_cast<os::FARPROC>(&os::FindFirstVolumeW)},
        {"GetDriveTypeW", reinterpret_cast<os::FARPROC>(&os::GetDriveTypeW)},
        {"findfirstvolumew", nullptr},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(answer([&] { return os::GetProcAddress(kernel32, row.name); }),
                  std::pair(row.expected, row.expected ? kUntouched : os::ERROR_PROC_NOT_FOUND));
    }
    EXPECT_TRUE(os::FreeLibrary(kernel32));
    EXPECT_TRUE(os::DisableThreadLibraryCalls(kernel32));

    sim::makeLibraryMissing("Kernel32.dll");
    EXPECT_EQ(answer([] { return os::GetModuleHandleW(u"kernel32.dll"); }), std::pair(os::HMODULE{nullptr}, os::DWORD{os::ERROR_MOD_NOT_FOUND}));
}

}  // namespace
