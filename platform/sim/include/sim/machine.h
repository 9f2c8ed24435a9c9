// The simulated Windows machine: what the os:: functions answer from.
//
// A machine is described by a JSON file (docs/machine.md) named by the
// environment variable FIKIV_MACHINE. Without it, a built-in default machine is
// written on first use under $XDG_RUNTIME_DIR/fikiv-<uid>/default (or
// /tmp/fikiv-<uid>/default) and used from there. The machine's state directory
// (event log, pipes, mutexes, driver state, volume backing directories unless
// the file names others) is the directory "<file stem>.state" next to the file;
// a volume's backing directory is made when the volume's files are first used.
//
// Machine::current() loads the description once per process; a malformed file
// throws MachineError naming the file, the line and the field, and the os::
// functions then fail with Win32 codes (ERROR_NOT_READY) instead of crashing.
// The description is read-only after loading and safe to read from any thread.
#ifndef PLATFORM_SIM_INCLUDE_SIM_MACHINE_H_
#define PLATFORM_SIM_INCLUDE_SIM_MACHINE_H_

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace sim {

// Values of os::GetDriveTypeW.
enum class DriveType : std::uint32_t {
    Unknown = 0,
    Removable = 2,
    Fixed = 3,
    Remote = 4,
    CdRom = 5,
    RamDisk = 6,
};

struct Volume {
    std::u16string guidName;            // "\\?\Volume{...}\" with trailing backslash
    std::vector<std::u16string> paths;  // "C:\", "C:\mnt\data\" (may be empty)
    DriveType type = DriveType::Fixed;
    std::u16string fileSystem;  // "NTFS", "ReFS", "FAT32"; "RAW" = unrecognised
    std::u16string label;
    std::uint32_t serialNumber = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    bool mediaPresent = true;                // false: empty removable or CD-ROM drive
    std::uint32_t driverAttributes = 0;      // KIV attribute bits 0x1 .. 0x10
    std::uint32_t driverValue = 0;           // second word of the driver's volume information
    std::filesystem::path backingDirectory;  // where the volume's files live on Linux
    bool ownBackingDirectory = true;  // false: named absolute in the file, used but never made
};

// A fault listed in the machine file, registered into the hooks (sim/hooks.h)
// when the machine becomes current.
struct FaultSpec {
    enum class Kind { Function, Unbindable, MissingLibrary };
    Kind kind = Kind::Function;
    std::string function;  // Kind::Function
    std::uint32_t error = 0;
    std::uint32_t skip = 0;
    std::uint32_t count = 1;  // 0xFFFFFFFF: every call
    std::string module;       // Kind::Unbindable, Kind::MissingLibrary
    std::string exportName;   // Kind::Unbindable
};

class MachineError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A Windows path resolved onto a volume.
struct ResolvedPath {
    const Volume* volume = nullptr;
    std::u16string rootPath;         // the drive root, mount point or GUID name used
    std::u16string relative;         // rest of the path below that root, no leading '\'
    std::filesystem::path hostPath;  // Linux path of the file (case-insensitively matched
                                     // for the components that exist)
};

class Machine {
  public:
    // The machine of this process, loaded on first use. Throws MachineError.
    static const Machine& current();
    // Forgets the loaded machine so the next current() loads anew (tests that
    // switch FIKIV_MACHINE). Not safe while other threads use the machine.
    static void reset();
    // Loads a description without making it current (validation, tools).
    static Machine load(const std::filesystem::path& file);
    // Parses a description held in memory; `file` names it in messages and
    // anchors relative backing directories.
    static Machine parse(const std::string& text, const std::filesystem::path& file);
    // The file FIKIV_MACHINE names, or the default machine's file.
    static std::filesystem::path currentFile();
    // The default machine's file: $XDG_RUNTIME_DIR/fikiv-<uid>/default/machine.json,
    // or the same under /tmp when there is no usable runtime directory; the
    // fallback is said once on stderr, its directory made 0700, and refused
    // (MachineError) unless it is a private directory of this user.
    static std::filesystem::path defaultFile();
    // The current machine, or null when it cannot be loaded; `error` (if not
    // null) receives the MachineError text. Never throws.
    static const Machine* currentOrNull(std::string* error = nullptr);
    // Loads the current machine once if that was not tried since the last
    // reset, so its listed faults are registered. Never throws.
    static void ensureLoadAttempted();
    // Writes the built-in default machine to `file` unless the file already
    // holds exactly that description (a file from an older build is
    // replaced). Backing directories are made when a volume is first used.
    static void writeDefault(const std::filesystem::path& file);

    Machine() = default;
    Machine(Machine&&) = default;
    Machine& operator=(Machine&&) = default;

    const std::filesystem::path& file() const { return file_; }
    // Distinct for every machine made current in this process (0 for one
    // that never was), so that what a library derives from the current
    // machine can tell a machine loaded after reset() from the one before.
    std::uint64_t loadNumber() const { return loadNumber_; }
    const std::filesystem::path& stateDirectory() const { return stateDirectory_; }
    std::uint32_t majorVersion() const { return majorVersion_; }
    std::uint32_t minorVersion() const { return minorVersion_; }
    std::uint32_t buildNumber() const { return buildNumber_; }
    const std::vector<Volume>& volumes() const { return volumes_; }
    const std::vector<FaultSpec>& faults() const { return faults_; }
    // The GUID names of all volumes in the order of the description, shared
    // read-only by every volume search.
    const std::shared_ptr<const std::vector<std::u16string>>& volumeNames() const {
        return volumeNames_;
    }
    // "C:\0D:\0" ... with a final NUL: what GetLogicalDriveStringsW answers.
    const std::u16string& logicalDriveStrings() const { return logicalDriveStrings_; }

    // Volume by GUID name, with or without the trailing backslash, ignoring case.
    const Volume* findVolume(std::u16string_view guidName) const;
    // The volume whose root (drive root, mount point or GUID name) is the
    // longest prefix of `path`, ignoring case; nullopt when none.
    // Accepted forms: "C:\dir", "c:/dir", "C:" (the drive root), "\\?\C:\dir",
    // "\\.\C:\dir", "\\?\Volume{...}\dir"; "." and ".." components are
    // applied and doubled separators collapsed.
    std::optional<ResolvedPath> resolve(std::u16string_view path) const;
    // The volume whose root (drive root, mount point or GUID name, trailing
    // backslash optional) is exactly `root`, ignoring case; null when none.
    const Volume* volumeAtRoot(std::u16string_view root) const;
    // Mount points living on `volume`: folders of that volume where other
    // volumes are mounted, relative to its root, each ending in a backslash
    // ("mnt\data\"), in the order of the description.
    const std::vector<std::u16string>& mountPointsOn(const Volume& volume) const;
    // The same list, shared read-only by every mount point search.
    const std::shared_ptr<const std::vector<std::u16string>>& sharedMountPointsOn(
        const Volume& volume) const;
    // The volume mounted at `path` ("C:\mnt\data\", "\\?\Volume{...}\mnt\data\"
    // or any root volumeAtRoot takes), ignoring case, trailing backslash
    // optional; null when `path` is not exactly such a root. Allocates nothing.
    const Volume* volumeAtMountPoint(std::u16string_view path) const;

    // Makes the volume's backing directory and the folders of the mount
    // points on it, once per loaded machine; an absolute backing directory is
    // only used, never made. Called before the first use of its files; false
    // when the directories cannot be made.
    bool prepareVolume(const Volume& volume) const;
    // Makes only the volume's backing directory (an absolute one is only
    // checked), for what needs the volume but not its files: the driver's
    // handle of the volume. False when it is not there and cannot be made.
    bool prepareBackingDirectory(const Volume& volume) const;

    // Case-insensitive hashing of path keys, so that lookups take a view.
    struct FoldedHash {
        using is_transparent = void;
        std::size_t operator()(std::u16string_view text) const;
    };
    struct FoldedEqual {
        using is_transparent = void;
        bool operator()(std::u16string_view a, std::u16string_view b) const;
    };

  private:
    void index();
    void prepareStateDirectory() const;
    const Volume* atRootKey(std::u16string_view key) const;

    std::filesystem::path file_;
    std::filesystem::path stateDirectory_;
    std::uint64_t loadNumber_ = 0;
    std::uint32_t majorVersion_ = 10;
    std::uint32_t minorVersion_ = 0;
    std::uint32_t buildNumber_ = 0;
    std::vector<Volume> volumes_;
    std::vector<FaultSpec> faults_;
    std::shared_ptr<const std::vector<std::u16string>> volumeNames_;
    std::u16string logicalDriveStrings_;
    // Roots and GUID names without their trailing backslash -> volume index,
    // so that resolving a path costs the same on a machine of ten volumes as
    // on one of a thousand.
    std::unordered_map<std::u16string, std::size_t, FoldedHash, FoldedEqual> rootIndex_;
    std::vector<std::shared_ptr<const std::vector<std::u16string>>> mountPoints_;
    // "<GUID name of the holding volume><mount point>" without the trailing
    // backslash -> index of the volume mounted there, to follow mount points
    // inside GUID paths.
    std::unordered_map<std::u16string, std::size_t, FoldedHash, FoldedEqual> mountIndex_;
    // Whether prepareVolume made each volume's directories.
    std::unique_ptr<std::atomic<bool>[]> prepared_;
};

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_MACHINE_H_
