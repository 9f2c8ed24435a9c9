// Finding things on a loaded machine: volumes by GUID name, root or mount
// point, Windows paths resolved onto a volume and the Linux file behind them,
// and the backing directories, made when a volume is first used.
//
// The lookups by root take a view and fold case as they hash and compare, so
// the common questions (a volume by its root, a mount point below a GUID
// name) allocate nothing.
#include "sim/machine.h"

#include <array>
#include <mutex>
#include <system_error>

#include "machine_paths.h"
#include "sim/text.h"

namespace sim {

std::u16string folded(std::u16string_view text) {
    std::u16string result(text);
    for (char16_t& c : result) {
        c = foldCase(c);
    }
    return result;
}

std::vector<std::u16string> splitComponents(std::u16string_view text) {
    std::vector<std::u16string> parts;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(u'\\', start);
        if (end == std::u16string_view::npos) {
            end = text.size();
        }
        if (end > start) {
            parts.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return parts;
}

namespace {

// Path components with "." dropped and ".." applied (never above the root).
std::vector<std::u16string> normalisedComponents(std::u16string_view text) {
    std::vector<std::u16string> parts;
    for (std::u16string& part : splitComponents(text)) {
        if (part == u"..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (part != u".") {
            parts.push_back(std::move(part));
        }
    }
    return parts;
}

// The Linux path of parts[begin..] below `host`. Windows names ignore case:
// an entry that exists is used as it is spelled on disk. `relative` receives
// the Windows form of the same components.
std::filesystem::path matchHostPath(std::filesystem::path host,
                                    const std::vector<std::u16string>& parts, std::size_t begin,
                                    std::u16string* relative) {
    bool missing = false;
    for (std::size_t i = begin; i < parts.size(); ++i) {
        if (i > begin) {
            relative->push_back(u'\\');
        }
        relative->append(parts[i]);
        const std::string name = toUtf8(parts[i]);
        std::filesystem::path next = host / name;
        std::error_code error;
        if (!missing && !std::filesystem::exists(next, error)) {
            missing = true;
            for (const auto& entry : std::filesystem::directory_iterator(host, error)) {
                if (equalsIgnoreCaseUtf8(entry.path().filename().string(), name)) {
                    next = entry.path();
                    missing = false;
                    break;
                }
            }
        }
        host = std::move(next);
    }
    return host;
}

// A root with at most one trailing backslash removed: the form of the keys.
std::u16string_view rootKey(std::u16string_view root) {
    if (!root.empty() && root.back() == u'\\') {
        root.remove_suffix(1);
    }
    return root;
}

}  // namespace

namespace {

// foldCase with its ASCII part inline: roots and GUID names are ASCII, and
// these run for every character of every lookup.
inline char16_t fold(char16_t c) {
    if (c < 0x80) {
        return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 0x20) : c;
    }
    return foldCase(c);
}

}  // namespace

std::size_t Machine::FoldedHash::operator()(std::u16string_view text) const {
    // Keys that differ, differ near their end (the last digits of a GUID, the
    // name of a mount point below a GUID name), so the length and the last
    // characters make the hash: long keys cost no more than short ones.
    constexpr std::size_t kHashedTail = 24;
    std::size_t value = 14695981039346656037ull ^ text.size();
    if (text.size() > kHashedTail) {
        text.remove_prefix(text.size() - kHashedTail);
    }
    for (char16_t c : text) {
        value = (value ^ fold(c)) * 1099511628211ull;
    }
    return value;
}

bool Machine::FoldedEqual::operator()(std::u16string_view a, std::u16string_view b) const {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i] && fold(a[i]) != fold(b[i])) {
            return false;
        }
    }
    return true;
}

void Machine::index() {
    rootIndex_.clear();
    mountIndex_.clear();
    mountPoints_.assign(volumes_.size(), std::make_shared<const std::vector<std::u16string>>());
    auto names = std::make_shared<std::vector<std::u16string>>();
    std::array<bool, 26> letters{};
    for (std::size_t v = 0; v < volumes_.size(); ++v) {
        names->push_back(volumes_[v].guidName);
        rootIndex_.emplace(rootKey(volumes_[v].guidName), v);
        for (const std::u16string& path : volumes_[v].paths) {
            rootIndex_.emplace(rootKey(path), v);
            if (path.size() == 3) {
                letters[static_cast<std::size_t>((path[0] | 0x20) - u'a')] = true;
            }
        }
    }
    volumeNames_ = std::move(names);
    logicalDriveStrings_.clear();
    for (std::size_t letter = 0; letter < letters.size(); ++letter) {
        if (letters[letter]) {
            logicalDriveStrings_.push_back(static_cast<char16_t>(u'A' + letter));
            logicalDriveStrings_.append(u":\\");
            logicalDriveStrings_.push_back(u'\0');
        }
    }
    prepared_ = std::make_unique<std::atomic<bool>[]>(volumes_.size());
}

void Machine::prepareStateDirectory() const {
    std::error_code error;
    std::filesystem::create_directories(stateDirectory_, error);
    if (error) {
        throw MachineError("machine file " + file_.string() +
                           ": cannot create the state directory " + stateDirectory_.string() +
                           ": " + error.message());
    }
}

bool Machine::prepareVolume(const Volume& volume) const {
    const auto v = static_cast<std::size_t>(&volume - volumes_.data());
    if (prepared_[v].load(std::memory_order_acquire)) {
        return true;
    }
    static std::mutex* lock = new std::mutex;
    std::lock_guard guard(*lock);
    if (prepared_[v].load(std::memory_order_relaxed)) {
        return true;
    }
    if (!prepareBackingDirectory(volume)) {
        return false;
    }
    // The folders that mount points sit in exist on their volume, so that
    // listing the parent folder shows them.
    std::error_code error;
    for (const std::u16string& mountPoint : *mountPoints_[v]) {
        std::u16string relative;
        const std::filesystem::path folder =
            matchHostPath(volume.backingDirectory, splitComponents(mountPoint), 0, &relative);
        std::filesystem::create_directories(folder, error);
        if (error) {
            return false;
        }
    }
    prepared_[v].store(true, std::memory_order_release);
    return true;
}

bool Machine::prepareBackingDirectory(const Volume& volume) const {
    std::error_code error;
    if (volume.ownBackingDirectory) {
        std::filesystem::create_directories(volume.backingDirectory, error);
        return !error;
    }
    return std::filesystem::is_directory(volume.backingDirectory, error);
}

const Volume* Machine::findVolume(std::u16string_view guidName) const {
    if (!startsWithIgnoreCase(guidName, kGuidPrefix)) {
        return nullptr;
    }
    return volumeAtRoot(guidName);
}

const Volume* Machine::atRootKey(std::u16string_view root) const {
    auto found = rootIndex_.find(rootKey(root));
    return found == rootIndex_.end() ? nullptr : &volumes_[found->second];
}

const Volume* Machine::volumeAtRoot(std::u16string_view root) const {
    // "\\?\C:\" and "\\.\C:\" name the drive root C:\.
    if (root.size() >= 6 && (root.starts_with(u"\\\\?\\") || root.starts_with(u"\\\\.\\")) &&
        root[5] == u':') {
        root.remove_prefix(4);
    }
    if (root.empty()) {
        return nullptr;
    }
    return atRootKey(root);
}

const Volume* Machine::volumeAtMountPoint(std::u16string_view path) const {
    if (const Volume* volume = volumeAtRoot(path)) {
        return volume;
    }
    auto mounted = mountIndex_.find(rootKey(path));
    return mounted == mountIndex_.end() ? nullptr : &volumes_[mounted->second];
}

const std::vector<std::u16string>& Machine::mountPointsOn(const Volume& volume) const {
    return *mountPoints_[static_cast<std::size_t>(&volume - volumes_.data())];
}

const std::shared_ptr<const std::vector<std::u16string>>& Machine::sharedMountPointsOn(
    const Volume& volume) const {
    return mountPoints_[static_cast<std::size_t>(&volume - volumes_.data())];
}

std::optional<ResolvedPath> Machine::resolve(std::u16string_view path) const {
    std::u16string text(path);
    for (char16_t& c : text) {
        c = c == u'/' ? u'\\' : c;
    }
    std::u16string prefix;
    if (text.size() >= 4 &&
        (text.compare(0, 4, u"\\\\?\\") == 0 || text.compare(0, 4, u"\\\\.\\") == 0)) {
        if (startsWithIgnoreCase(std::u16string_view(text).substr(4), u"Volume{")) {
            // "\\?\Volume{36 characters}" is 48 characters; a separator or the end follows.
            if (text.size() < 48 || (text.size() > 48 && text[48] != u'\\')) {
                return std::nullopt;
            }
            const Volume* volume = volumeAtRoot(std::u16string_view(text).substr(0, 48));
            if (volume == nullptr) {
                return std::nullopt;
            }
            std::u16string key;
            ResolvedPath resolved;
            resolved.rootPath = text.substr(0, 48) + u"\\";
            const auto parts = normalisedComponents(std::u16string_view(text).substr(48));
            // Follow mount points below the GUID root, longest first at each
            // volume, so "\\?\Volume{C}\mnt\data\x" is on the volume
            // mounted at mnt\data\ of C.
            std::size_t consumed = 0;
            for (bool descended = true; descended;) {
                descended = false;
                for (std::size_t depth = parts.size(); depth > consumed; --depth) {
                    key = volume->guidName;
                    for (std::size_t i = consumed; i < depth; ++i) {
                        key += parts[i];
                        key += u'\\';
                    }
                    key.pop_back();
                    auto mounted = mountIndex_.find(std::u16string_view(key));
                    if (mounted != mountIndex_.end()) {
                        for (std::size_t i = consumed; i < depth; ++i) {
                            resolved.rootPath += parts[i] + u"\\";
                        }
                        volume = &volumes_[mounted->second];
                        consumed = depth;
                        descended = true;
                        break;
                    }
                }
            }
            resolved.volume = volume;
            prepareVolume(*volume);
            resolved.hostPath =
                matchHostPath(volume->backingDirectory, parts, consumed, &resolved.relative);
            return resolved;
        }
        prefix = text.substr(0, 4);
        text.erase(0, 4);
    }
    if (text.size() < 2 || !isDriveLetter(text[0]) || text[1] != u':') {
        return std::nullopt;
    }
    const auto parts = normalisedComponents(std::u16string_view(text).substr(2));
    // Longest root first: C:\mnt\data\x is on the volume mounted at
    // C:\mnt\data\, not on C:.
    const std::u16string drive = text.substr(0, 2) + u"\\";
    for (std::size_t depth = parts.size() + 1; depth-- > 0;) {
        std::u16string root = drive;
        for (std::size_t i = 0; i < depth; ++i) {
            root += parts[i];
            root += u'\\';
        }
        const Volume* volume = atRootKey(root);
        if (volume == nullptr) {
            continue;
        }
        ResolvedPath resolved;
        resolved.volume = volume;
        prepareVolume(*volume);
        resolved.rootPath = prefix + root;
        resolved.hostPath =
            matchHostPath(resolved.volume->backingDirectory, parts, depth, &resolved.relative);
        return resolved;
    }
    return std::nullopt;
}

}  // namespace sim
