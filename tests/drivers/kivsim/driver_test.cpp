// The snapshot driver library as the plug-in binds it, on per-test machines:
// names it opens, snapshot sets prepared, created and destroyed from several
// processes, handles taken across processes, and the statuses of bad calls.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kiv/cachefile/kivapi.h"
#include "os/error.h"
#include "os/handle.h"
#include "os/process.h"
#include "sim/eventlog.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/machine.h"
#include "support/child_process.h"
#include "support/shell.h"
#include "support/temp_machine.h"
#include "support/text_cases.h"
#include "support/wide_text.h"

namespace {

using testsupport::TempMachine;

// The driver's answer when its state file holds no state of the driver.
constexpr std::uint32_t kFileCorrupt = 1392;
constexpr std::uint32_t kSharingViolation = 32;  // a cache file another set uses

nlohmann::json volumeWithValue(int number, std::initializer_list<const char*> paths,
                               std::uint32_t attributes, std::uint32_t value,
                               std::uint64_t freeBytes = 50ull << 30) {
    nlohmann::json volume =
        TempMachine::volume(number, paths, "fixed", "NTFS", 100ull << 30, freeBytes, attributes);
    volume["driver"]["value"] = value;
    return volume;
}

// C: (value 1), a volume mounted at C:\mnt\data\ (value 2), E: (value 3,
// attributes 0x3), and F: with 1 GiB free for caches.
nlohmann::json driverMachine() {
    return {
        {"majorVersion", 10},
        {"volumes",
         {volumeWithValue(1, {"C:\\"}, 0x1, 1), volumeWithValue(2, {"C:\\mnt\\data\\"}, 0x1, 2),
          volumeWithValue(3, {"E:\\"}, 0x3, 3), volumeWithValue(4, {"F:\\"}, 0x0, 4, 1ull << 30)}}};
}

KivApi& api() {
    return *kivApi();
}

// The handle of the opened volume, or all ones; `status` receives the answer.
KivHandle openVolume(const std::string& name, std::uint32_t* status = nullptr) {
    KivHandle handle = kInvalidKivHandle;
    const std::uint32_t answer = KIV_Open(&api(), name.c_str(), 3, 128, 3, 1000, &handle);
    if (status != nullptr) {
        *status = answer;
    }
    return answer == 0 ? handle : kInvalidKivHandle;
}

// Attributes and value of the volume behind `handle`, or nullopt.
std::optional<std::pair<std::uint32_t, std::uint32_t>> describe(KivHandle handle) {
    KivVolumeInformation information{};
    if (KIV_GetVolumeInformation(&api(), handle, sizeof(information), &information) != 0) {
        return std::nullopt;
    }
    return std::make_pair(information.attributes, information.value);
}

std::filesystem::path hostPathOf(const std::u16string& windowsPath) {
    return sim::Machine::current().resolve(windowsPath)->hostPath;
}

std::string generatedName() {
    char* name = nullptr;
    if (KIV_GenerateVolumeName(&api(), 2, &name) != 0 || name == nullptr) {
        return {};
    }
    std::string full = std::string("\\\\?\\") + name;
    KIV_FreeResource(&api(), &name);
    return full;
}

KivSnapshotParametersRecord element(KivHandle source, const std::string& snapshotName,
                                    const char* cacheFile, std::uint32_t initialMb = 10,
                                    std::uint32_t maximumMb = 100) {
    return {source, snapshotName.c_str(), cacheFile, initialMb, maximumMb, 0, 0};
}

// Prepares one snapshot of C: with its cache at `cacheFile`; the set handle,
// or all ones with the status in `status`.
KivHandle prepareOne(const std::string& snapshotName, const char* cacheFile,
                     std::uint32_t* status = nullptr) {
    KivHandle source = openVolume("C:");
    KivSnapshotParametersRecord record = element(source, snapshotName, cacheFile);
    KivHandle set = kInvalidKivHandle;
    const std::uint32_t answer = KIV_Prepare(&api(), &record, 1, sizeof(record), &set);
    KIV_Close(&api(), &source);
    if (status != nullptr) {
        *status = answer;
    }
    return answer == 0 ? set : kInvalidKivHandle;
}

std::filesystem::path driverDirectory() {
    return sim::Machine::current().stateDirectory() / "driver";
}

using testsupport::waitForFile;

int runChild(const std::string& role, const std::vector<std::string>& arguments = {}) {
    return testsupport::waitChild(testsupport::startChild(role, arguments));
}

// Prepares and creates a snapshot of C: with the given name and cache file,
// and leaves it for other processes. With "prepareOnly" it ends after
// preparing, as a host that crashed before making the snapshot.
FIKIV_CHILD_ROLE(makeSnapshot) {
    std::uint32_t status = 0;
    KivHandle set = prepareOne(arguments.at(0), arguments.at(1).c_str(), &status);
    if (status != 0) {
        return 1;
    }
    if (arguments.size() > 2 && arguments[2] == "prepareOnly") {
        _exit(0);  // no clean-up: the driver must notice the ended process
    }
    return KIV_Create(&api(), set, 0, 0, 0) == 0 ? 0 : 1;
}

// Opens a volume by name and keeps the handle open until told to end, after
// writing "<pid> <handle>" for the process that takes it over.
FIKIV_CHILD_ROLE(holdVolume) {
    KivHandle handle = openVolume(arguments.at(0));
    if (!isValidKivHandle(handle)) {
        return 1;
    }
    testsupport::publishFile(arguments.at(1),
                             std::to_string(getpid()) + ' ' + std::to_string(handle));
    return waitForFile(arguments.at(2)) ? 0 : 1;
}

// Uses the driver twice over on a machine whose state file is damaged: the
// calls that need the state refuse, the source volumes still answer. A call
// that waits for a lock nobody gives back ends the child through the alarm.
FIKIV_CHILD_ROLE(useDamagedState) {
    alarm(60);
    int failures = 0;
    for (int round = 0; round < 2; ++round) {
        char* name = nullptr;
        failures += KIV_GenerateVolumeName(&api(), 2, &name) != kFileCorrupt;
        std::uint32_t status = 0;
        prepareOne("\\\\?\\GLOBALROOT\\Device\\KivSnapshot9", "E:\\c.KIV", &status);
        failures += status != kFileCorrupt;
        openVolume("\\\\?\\GLOBALROOT\\Device\\KivSnapshot1", &status);
        failures += status != kFileCorrupt;
        KivHandle volume = openVolume("E:");
        failures += describe(volume) != std::make_pair(std::uint32_t{0x3}, std::uint32_t{3});
        failures += KIV_Close(&api(), &volume) != 0;
    }
    return failures;
}

// Opens, describes and closes the named volumes; ended by the alarm if a
// call waits.
FIKIV_CHILD_ROLE(describeVolumes) {
    alarm(60);
    int failures = 0;
    for (const std::string& name : arguments) {
        KivHandle handle = openVolume(name);
        failures += !describe(handle).has_value();
        failures += KIV_Close(&api(), &handle) != 0;
    }
    return failures;
}

FIKIV_CHILD_ROLE(generateName) {
    std::ofstream(arguments.at(0)) << generatedName();
    return 0;
}

// Prepares and creates a snapshot of C: with its cache at `cacheFile` and
// closes the set handle (the snapshot stays); the snapshot volume's name.
std::string createSnapshot(const char* cacheFile = "E:\\_tarnKivCacheFile_0.KIV") {
    const std::string name = generatedName();
    KivHandle set = prepareOne(name, cacheFile);
    EXPECT_EQ(KIV_Create(&api(), set, 0, 0, 0), 0u);
    KIV_Close(&api(), &set);
    return name;
}

std::uint32_t openStatus(const std::string& name) {
    std::uint32_t status = 0;
    KivHandle handle = openVolume(name, &status);
    KIV_Close(&api(), &handle);
    return status;
}

class KivDriverTest : public ::testing::Test {
  protected:
    TempMachine machine_{driverMachine()};
};

TEST_F(KivDriverTest, OpensVolumesByEveryFormOfTheirName) {
    const std::string guid1 = testsupport::utf8(TempMachine::guidName(1));
    const std::string guid2 = testsupport::utf8(TempMachine::guidName(2));
    const struct {
        std::string name;
        std::uint32_t value;  // 0: the open must fail
    } rows[] = {
        {guid1, 1},
        {guid1.substr(0, guid1.size() - 1), 1},
        {"C:", 1},
        {"c:\\", 1},
        {"\\\\.\\C:", 1},
        {"E:", 3},
        {"C:\\mnt\\data", 2},
        {"C:\\mnt\\data\\", 2},
        {guid2, 2},
        {"Q:", 0},
        {"C:\\mnt", 0},
        {"<kiv>" + guid1, 0},
        {"\\\\?\\GLOBALROOT\\Device\\KivSnapshot1", 0},
        {"", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::uint32_t status = 0;
        KivHandle handle = openVolume(row.name, &status);
        if (row.value == 0) {
            EXPECT_EQ(status, os::ERROR_FILE_NOT_FOUND);
            continue;
        }
        ASSERT_EQ(status, 0u);
        EXPECT_TRUE(isValidKivHandle(handle));
        EXPECT_EQ(describe(handle)->second, row.value);
        EXPECT_EQ(KIV_Close(&api(), &handle), 0u);
        EXPECT_EQ(handle, kInvalidKivHandle);
    }
    EXPECT_EQ(describe(openVolume("E:"))->first, 0x3u);
}

// A driver handle is a descriptor the system can close; a descriptor that is
// no driver handle is refused and left open.
TEST_F(KivDriverTest, HandlesAreDescriptorsOfTheDriverOnly) {
    KivHandle handle = openVolume("C:");
    ASSERT_TRUE(isValidKivHandle(handle));
    const auto asHandle = reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle));
    EXPECT_GE(sim::fdFromHandle(asHandle), 0);
    EXPECT_TRUE(os::CloseHandle(asHandle));
    KivVolumeInformation information{};
    EXPECT_EQ(KIV_GetVolumeInformation(&api(), handle, 40, &information), os::ERROR_INVALID_HANDLE);

    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    KivHandle other = reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd));
    EXPECT_EQ(KIV_Close(&api(), &other), os::ERROR_INVALID_HANDLE);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);  // still open
    close(fd);
}

TEST_F(KivDriverTest, PrepareRefusesBadArguments) {
    KivHandle source = openVolume("C:");
    ASSERT_TRUE(isValidKivHandle(source));
    const KivHandle closed = reinterpret_cast<std::uintptr_t>(sim::handleFromFd(999));
    const std::string name = generatedName();
    std::ofstream(hostPathOf(u"E:\\mine.txt")) << "user data";

    const struct {
        const char* what;
        KivSnapshotParametersRecord record;
        std::uint16_t count;
        std::uint16_t size;
        std::uint32_t status;
    } rows[] = {
        // clang-format off
        {"element size 39",           element(source, name, "E:\\c.KIV"), 1, 39, os::ERROR_BAD_LENGTH},
        {"element size 48",           element(source, name, "E:\\c.KIV"), 1, 48, os::ERROR_BAD_LENGTH},
        {"count 0",                   element(source, name, "E:\\c.KIV"), 0, 40, os::ERROR_INVALID_PARAMETER},
        {"all-ones source",           element(kInvalidKivHandle, name, "E:\\c.KIV"), 1, 40, os::ERROR_INVALID_HANDLE},
        {"zero source",               element(0, name, "E:\\c.KIV"), 1, 40, os::ERROR_INVALID_HANDLE},
        {"closed source",             element(closed, name, "E:\\c.KIV"), 1, 40, os::ERROR_INVALID_HANDLE},
        {"cache on a missing volume", element(source, name, "Q:\\c.KIV"), 1, 40, os::ERROR_PATH_NOT_FOUND},
        {"cache in a missing folder", element(source, name, "E:\\no\\c.KIV"), 1, 40, os::ERROR_PATH_NOT_FOUND},
        {"cache file already there",  element(source, name, "E:\\mine.txt"), 1, 40, os::ERROR_ALREADY_EXISTS},
        {"initial above maximum",     element(source, name, "E:\\c.KIV", 200, 100), 1, 40, os::ERROR_INVALID_PARAMETER},
        {"initial above free space",  element(source, name, "F:\\c.KIV", 2048, 4096), 1, 40, os::ERROR_DISK_FULL},
        {"no cache name",             {source, name.c_str(), nullptr, 10, 100, 0, 0}, 1, 40, os::ERROR_INVALID_PARAMETER},
        {"no snapshot name",          {source, nullptr, "E:\\c.KIV", 10, 100, 0, 0}, 1, 40, os::ERROR_INVALID_PARAMETER},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        KivHandle set = kInvalidKivHandle;
        EXPECT_EQ(KIV_Prepare(&api(), &row.record, row.count, row.size, &set), row.status);
        EXPECT_EQ(set, kInvalidKivHandle);
    }
    EXPECT_FALSE(std::filesystem::exists(hostPathOf(u"E:\\c.KIV")));
    EXPECT_FALSE(std::filesystem::exists(hostPathOf(u"F:\\c.KIV")));
    EXPECT_EQ(testsupport::readFile(hostPathOf(u"E:\\mine.txt")), "user data");
    KIV_Close(&api(), &source);
}

TEST_F(KivDriverTest, OtherBadCallsGetTheirStatusNotACrash) {
    KivHandle volume = openVolume("C:");
    KivVolumeInformation information{};
    char* text = nullptr;
    std::uint32_t count = 0;
    char buffer[64];
    // clang-format off
    const struct {
        const char* what;
        std::function<std::uint32_t()> call;
        std::uint32_t status;
    } rows[] = {
        {"open without a name",       [&] { return KIV_Open(&api(), nullptr, 3, 128, 0, 0, &volume); }, os::ERROR_INVALID_PARAMETER},
        {"open without a handle",     [&] { return KIV_Open(&api(), "C:", 3, 128, 0, 0, nullptr); }, os::ERROR_INVALID_PARAMETER},
        {"information of 39 bytes",   [&] { return KIV_GetVolumeInformation(&api(), volume, 39, &information); }, os::ERROR_BAD_LENGTH},
        {"information of no handle",  [&] { return KIV_GetVolumeInformation(&api(), kInvalidKivHandle, 40, &information); }, os::ERROR_INVALID_HANDLE},
        {"create on a volume",        [&] { return KIV_Create(&api(), volume, 0, 0, 0); }, os::ERROR_INVALID_HANDLE},
        {"create on no handle",       [&] { return KIV_Create(&api(), kInvalidKivHandle, 0, 0, 0); }, os::ERROR_INVALID_HANDLE},
        {"destroy a source volume",   [&] { return KIV_Destroy(&api(), &volume, 1); }, os::ERROR_INVALID_HANDLE},
        {"destroy without a handle",  [&] { return KIV_Destroy(&api(), nullptr, 1); }, os::ERROR_INVALID_PARAMETER},
        {"name of kind 1",            [&] { return KIV_GenerateVolumeName(&api(), 1, &text); }, os::ERROR_INVALID_PARAMETER},
        {"name without a pointer",    [&] { return KIV_GenerateVolumeName(&api(), 2, nullptr); }, os::ERROR_INVALID_PARAMETER},
        {"free nothing",              [&] { return KIV_FreeResource(&api(), nullptr); }, os::ERROR_INVALID_PARAMETER},
        {"close without a handle",    [&] { return KIV_Close(&api(), nullptr); }, os::ERROR_INVALID_PARAMETER},
        // Never called by the plug-in; they must not claim success either.
        {"device control",            [&] { return api().deviceIoControl(volume, 1, nullptr, 0, buffer, sizeof(buffer), &count); }, os::ERROR_NOT_SUPPORTED},
        {"read",                      [&] { return api().read(volume, 0, buffer, sizeof(buffer), &count); }, os::ERROR_NOT_SUPPORTED},
        {"asynchronous result",       [&] { return api().getAsyncResult(volume, &count); }, os::ERROR_NOT_SUPPORTED},
        {"cancel",                    [&] { return api().cancelAsyncOperation(volume); }, os::ERROR_NOT_SUPPORTED},
        {"cache map",                 [&] { return api().getCacheMap(volume, buffer, sizeof(buffer), &count); }, os::ERROR_NOT_SUPPORTED},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.call(), row.status);
    }
    KIV_Close(&api(), &volume);
}

// A name that is not UTF-8 names nothing; the driver says so rather than
// opening whatever its replacement characters would match.
TEST_F(KivDriverTest, IllFormedNamesAreRefused) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        if (row.wellFormed) {
            continue;
        }
        SCOPED_TRACE(row.name);
        std::uint32_t status = 0;
        EXPECT_EQ(openVolume("C:\\" + row.bytes, &status), kInvalidKivHandle);
        EXPECT_EQ(status, os::ERROR_NO_UNICODE_TRANSLATION);
    }
}

TEST_F(KivDriverTest, GeneratedNamesAreUniqueOnTheMachine) {
    const std::filesystem::path file = machine_.directory() / "name";
    EXPECT_EQ(generatedName(), "\\\\?\\GLOBALROOT\\Device\\KivSnapshot1");
    ASSERT_EQ(runChild("generateName", {file.string()}), 0);
    EXPECT_EQ(testsupport::readFile(file), "\\\\?\\GLOBALROOT\\Device\\KivSnapshot2");
    EXPECT_EQ(generatedName(), "\\\\?\\GLOBALROOT\\Device\\KivSnapshot3");
}

// The agent's part: another process opens the snapshot volume by name and
// holds it; the handle taken from it destroys the snapshot machine-wide.
TEST_F(KivDriverTest, SnapshotMadeHereIsDestroyedThroughAnotherProcesssHandle) {
    const std::string name = generatedName();
    KivHandle source = openVolume("C:");
    KivSnapshotParametersRecord record =
        element(source, name, "E:\\_tarnKivCacheFile_0.KIV", 16, 64);
    KivHandle set = kInvalidKivHandle;
    ASSERT_EQ(KIV_Prepare(&api(), &record, 1, 40, &set), 0u);

    // The cache file exists at once, sparse, of its initial size.
    const std::filesystem::path cacheFile = hostPathOf(u"E:\\_tarnKivCacheFile_0.KIV");
    struct stat info {};
    ASSERT_EQ(stat(cacheFile.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, off_t{16} << 20);
    EXPECT_EQ(openStatus(name), os::ERROR_FILE_NOT_FOUND) << "the volume appears with KIV_Create";
    EXPECT_EQ(describe(openVolume("E:"))->first, 0x3u) << "so does the active cache";

    ASSERT_EQ(KIV_Create(&api(), set, 100, 200, 0), 0u);
    EXPECT_EQ(KIV_Create(&api(), set, 100, 200, 0), os::ERROR_ALREADY_EXISTS);  // only once
    EXPECT_EQ(describe(openVolume("E:"))->first, 0x3u | KIV_ATTRIBUTE_CONTAINS_ACTIVE_CACHE);

    // The set handle goes with its node; the snapshot stays for the agent.
    KIV_Close(&api(), &set);
    KIV_Close(&api(), &source);
    const std::filesystem::path published = machine_.directory() / "handle";
    const std::filesystem::path done = machine_.directory() / "done";
    const pid_t agent =
        testsupport::startChild("holdVolume", {name, published.string(), done.string()});
    ASSERT_TRUE(waitForFile(published));
    os::DWORD pid = 0;
    std::uint64_t remote = 0;
    std::ifstream(published) >> pid >> remote;
    os::UniqueHandle process(os::OpenProcess(os::PROCESS_DUP_HANDLE, os::FALSE, pid));
    ASSERT_TRUE(process.valid()) << "OpenProcess: " << os::GetLastError();
    os::HANDLE duplicate = nullptr;
    ASSERT_TRUE(os::DuplicateHandle(
        process.get(), reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(remote)),
        os::GetCurrentProcess(), &duplicate, 0, os::FALSE, os::DUPLICATE_SAME_ACCESS))
        << "DuplicateHandle: " << os::GetLastError();
    KivHandle local = reinterpret_cast<std::uintptr_t>(duplicate);
    EXPECT_EQ(describe(local), std::make_pair(std::uint32_t{0x8}, std::uint32_t{0}));
    EXPECT_EQ(KIV_Destroy(&api(), &local, 1), 0u);
    EXPECT_EQ(KIV_Close(&api(), &local), 0u);
    testsupport::publishFile(done);
    EXPECT_EQ(testsupport::waitChild(agent), 0);

    EXPECT_EQ(openStatus(name), os::ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(std::filesystem::exists(cacheFile));
    EXPECT_EQ(describe(openVolume("E:"))->first, 0x3u);
}

// The folder behind a driver handle, as this process reaches it.
std::filesystem::path folderOf(KivHandle handle) {
    return "/proc/self/fd/" + std::to_string(sim::fdFromHandle(reinterpret_cast<os::HANDLE>(
                                  static_cast<std::uintptr_t>(handle))));
}

// The snapshot reads as the volume was when made; a destroy the test hook
// makes fail is answered as scripted, and the next one destroys for real.
TEST_F(KivDriverTest, SnapshotShowsTheVolumeAsItWasWhenMadeUntilDestroyed) {
    std::filesystem::create_directories(hostPathOf(u"C:\\dir"));
    std::ofstream(hostPathOf(u"C:\\dir\\report.txt")) << "before";
    // The cache sits on the volume being snapshotted.
    const std::string name = createSnapshot("C:\\_tarnKivCacheFile_0.KIV");
    std::ofstream(hostPathOf(u"C:\\dir\\report.txt")) << "after";
    std::ofstream(hostPathOf(u"C:\\later.txt")) << "new";

    KivHandle snapshot = openVolume(name);
    ASSERT_TRUE(isValidKivHandle(snapshot));
    EXPECT_EQ(testsupport::readFile(folderOf(snapshot) / "dir" / "report.txt"), "before");
    EXPECT_FALSE(std::filesystem::exists(folderOf(snapshot) / "later.txt"));
    EXPECT_FALSE(std::filesystem::exists(folderOf(snapshot) / "_tarnKivCacheFile_0.KIV"));

    sim::injectFault("KIV_Destroy", os::ERROR_ACCESS_DENIED, /*skip=*/0, /*count=*/3);
    std::vector<std::uint32_t> answers;
    for (int i = 0; i < 4; ++i) {
        answers.push_back(KIV_Destroy(&api(), &snapshot, 1));
    }
    EXPECT_EQ(answers, (std::vector<std::uint32_t>{5, 5, 5, 0}));
    EXPECT_FALSE(describe(snapshot).has_value());
    EXPECT_EQ(KIV_Destroy(&api(), &snapshot, 1), os::ERROR_INVALID_HANDLE);  // already gone
    EXPECT_FALSE(std::filesystem::exists(hostPathOf(u"C:\\_tarnKivCacheFile_0.KIV")));
    KIV_Close(&api(), &snapshot);
}

// A cache file is held while its snapshot lives, however spelled; one whose
// preparation was never created is let go when its set handle is closed or
// the process that prepared it ends.
TEST_F(KivDriverTest, CacheFileIsHeldOnlyWhileItsSnapshotCanLive) {
    ASSERT_EQ(runChild("makeSnapshot",
                       {"\\\\?\\GLOBALROOT\\Device\\KivSnapshot40", "E:\\_tarnKivCacheFile_0.KIV"}),
              0);
    std::uint32_t status = 0;
    for (const char* path : {"E:\\_tarnKivCacheFile_0.KIV", "e:\\_TARNKIVCACHEFILE_0.kiv",
                             "\\\\?\\E:\\_tarnKivCacheFile_0.KIV"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(isValidKivHandle(prepareOne(generatedName(), path, &status)));
        EXPECT_EQ(status, kSharingViolation);
    }
    // The name of a live snapshot volume is taken as well.
    prepareOne("\\\\?\\GLOBALROOT\\Device\\KivSnapshot40", "E:\\other.KIV", &status);
    EXPECT_EQ(status, os::ERROR_ALREADY_EXISTS);

    const char* cache = "E:\\_tarnKivCacheFile_1.KIV";
    KivHandle set = prepareOne(generatedName(), cache, &status);
    ASSERT_EQ(status, 0u);
    EXPECT_TRUE(std::filesystem::exists(hostPathOf(u"E:\\_tarnKivCacheFile_1.KIV")));
    KIV_Close(&api(), &set);
    EXPECT_FALSE(std::filesystem::exists(hostPathOf(u"E:\\_tarnKivCacheFile_1.KIV")));
    ASSERT_EQ(runChild("makeSnapshot", {generatedName(), cache, "prepareOnly"}), 0);
    set = prepareOne(generatedName(), cache, &status);
    EXPECT_EQ(status, 0u) << "the ended process's preparation still holds the cache";
    KIV_Close(&api(), &set);
}

TEST_F(KivDriverTest, MultiVolumeSetIsCreatedAndDestroyedPerVolume) {
    KivHandle c = openVolume("C:");
    KivHandle data = openVolume("C:\\mnt\\data");
    const std::string first = generatedName();
    const std::string second = generatedName();
    KivSnapshotParametersRecord records[] = {
        element(c, first, "E:\\_tarnKivCacheFile_0.KIV"),
        element(data, second, "E:\\_tarnKivCacheFile_1.KIV"),
    };
    KivHandle set = kInvalidKivHandle;
    ASSERT_EQ(KIV_Prepare(&api(), records, 2, 40, &set), 0u);
    ASSERT_EQ(KIV_Create(&api(), set, 0, 0, 0), 0u);

    KivHandle one = openVolume(first);
    ASSERT_EQ(KIV_Destroy(&api(), &one, 1), 0u);
    // The other snapshot of the set lives on.
    KivHandle two = openVolume(second);
    EXPECT_TRUE(describe(two).has_value());
    EXPECT_TRUE(std::filesystem::exists(hostPathOf(u"E:\\_tarnKivCacheFile_1.KIV")));
    EXPECT_FALSE(std::filesystem::exists(hostPathOf(u"E:\\_tarnKivCacheFile_0.KIV")));
    EXPECT_EQ(KIV_Destroy(&api(), &two, 1), 0u);

    // One cache path twice in one call is refused too (the names are free again).
    KivSnapshotParametersRecord twice[] = {element(c, first, "E:\\same.KIV"),
                                           element(c, second, "E:\\same.KIV")};
    EXPECT_EQ(KIV_Prepare(&api(), twice, 2, 40, &set), kSharingViolation);
    for (KivHandle* handle : {&one, &two, &set, &c, &data}) {
        KIV_Close(&api(), handle);
    }
}

// A state file that is well-formed JSON of the wrong shape (or no JSON, or no
// file) is named in one report and refused by the calls that need it; it is
// never overwritten, and no call waits on a lock an earlier one kept.
TEST(KivDriverStateTest, DamagedStateFileIsReportedAndLeftAlone) {
    const struct {
        const char* what;
        const char* text;  // null: a FIFO in the file's place
        const char* problem;
    } rows[] = {
        {"text for a number", R"({"lastId":"x"})", "lastId: expected a number"},
        {"numbers for sets", R"({"sets":[1,"a"]})", "sets[0]: expected an object"},
        {"negative size", R"({"sets":[{"elements":[{"initialSizeMb":-1}]}]})",
         "sets[0].elements[0].initialSizeMb: expected a number of 0 or more"},
        {"size beyond 32 bits", R"({"sets":[{"quiesceWait":4294967296}]})",
         "sets[0].quiesceWait: expected at most 4294967295"},
        {"list for a document", "[]", "expected an object, found a list"},
        {"cut short", R"({"sets":[)", "not a JSON document"},
        {"FIFO", nullptr, "not a regular file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TempMachine machine(driverMachine());
        const std::filesystem::path file = driverDirectory() / "state.json";
        std::filesystem::create_directories(file.parent_path());
        if (row.text != nullptr) {
            std::ofstream(file) << row.text;
        } else {
            ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        }

        EXPECT_EQ(runChild("useDamagedState"), 0);

        if (row.text != nullptr) {
            EXPECT_EQ(testsupport::readFile(file), row.text);
        }
        const std::vector<sim::EventRecord> events = sim::readEventLog();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].source, "kivapi");
        ASSERT_EQ(events[0].strings.size(), 1u);
        EXPECT_NE(events[0].strings[0].find(file.string() + ": " + row.problem), std::string::npos)
            << events[0].strings[0];
    }
}

// Opening, describing and closing volumes and snapshot volumes only reads
// the driver state: such calls neither wait for the driver lock nor make the
// driver's files.
TEST_F(KivDriverTest, ReadingCallsTakeNoLockAndWriteNothing) {
    EXPECT_EQ(runChild("describeVolumes", {"C:", "C:\\mnt\\data"}), 0);
    EXPECT_FALSE(std::filesystem::exists(driverDirectory()));

    const std::string name = createSnapshot();
    const std::string state = testsupport::readFile(driverDirectory() / "state.json");

    // Another holder of the lock: a process in the middle of a long change.
    const int lock = open((driverDirectory() / "lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_EQ(runChild("describeVolumes", {"C:", name, "E:"}), 0);
    close(lock);
    EXPECT_EQ(testsupport::readFile(driverDirectory() / "state.json"), state);
}

}  // namespace
