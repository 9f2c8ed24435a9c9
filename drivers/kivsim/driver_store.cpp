#include "driver_store.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kivsim {
namespace {

using nlohmann::json;

// flock keeps out other processes only; threads of this process queue here.
// A plain function-local object: the library can be unloaded, and an object
// left on the heap would then be lost rather than kept.
std::mutex& processLock() {
    static std::mutex mutex;
    return mutex;
}

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool processAlive(std::int64_t pid) {
    if (pid <= 0) {
        return false;
    }
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

json toJson(const SnapshotElement& element) {
    return {{"snapshotId", element.snapshotId},       {"snapshotName", element.snapshotName},
            {"source", element.sourceGuid},           {"cacheFileName", element.cacheFileName},
            {"cacheKey", element.cacheKey},           {"cacheHostPath", element.cacheHostPath},
            {"initialSizeMb", element.initialSizeMb}, {"maximumSizeMb", element.maximumSizeMb}};
}

SnapshotElement elementFromJson(const json& entry) {
    SnapshotElement element;
    element.snapshotId = entry.value("snapshotId", std::uint64_t{0});
    element.snapshotName = entry.value("snapshotName", std::string());
    element.sourceGuid = entry.value("source", std::string());
    element.cacheFileName = entry.value("cacheFileName", std::string());
    element.cacheKey = entry.value("cacheKey", std::string());
    element.cacheHostPath = entry.value("cacheHostPath", std::string());
    element.initialSizeMb = entry.value("initialSizeMb", std::uint32_t{0});
    element.maximumSizeMb = entry.value("maximumSizeMb", std::uint32_t{0});
    return element;
}

void removeQuietly(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

}  // namespace

DriverStore::DriverStore(const std::filesystem::path& stateDirectory)
    : directory_(stateDirectory / "driver"), threadLock_(processLock()) {
    std::error_code error;
    std::filesystem::create_directories(directory_ / "sets", error);
    std::filesystem::create_directories(directory_ / "snapshots", error);
    if (error) {
        throw std::system_error(error, "cannot create " + directory_.string());
    }
    lockFd_ = open((directory_ / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd_ < 0) {
        throwErrno("cannot open the driver lock in " + directory_.string());
    }
    while (flock(lockFd_, LOCK_EX) != 0) {
        if (errno != EINTR) {
            int saved = errno;
            close(lockFd_);
            errno = saved;
            throwErrno("cannot lock the driver state in " + directory_.string());
        }
    }

    std::ifstream in(directory_ / "state.json");
    if (!in) {
        return;  // no snapshot was ever prepared on this machine
    }
    std::stringstream text;
    text << in.rdbuf();
    // A document that cannot be read (a writer that died mid-way cannot leave
    // one, the rename is atomic) is treated as empty rather than wedging the
    // driver for good.
    json document = json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return;
    }
    lastId_ = document.value("lastId", std::uint64_t{0});
    lastName_ = document.value("lastName", std::uint64_t{0});
    if (document.contains("sets") && document["sets"].is_array()) {
        for (const json& entry : document["sets"]) {
            SnapshotSet set;
            set.id = entry.value("id", std::uint64_t{0});
            set.ownerPid = entry.value("ownerPid", std::int64_t{0});
            set.created = entry.value("created", false);
            set.quiesceWait = entry.value("quiesceWait", std::uint32_t{0});
            set.quiesceTimeout = entry.value("quiesceTimeout", std::uint32_t{0});
            if (entry.contains("elements") && entry["elements"].is_array()) {
                for (const json& element : entry["elements"]) {
                    set.elements.push_back(elementFromJson(element));
                }
            }
            sets_.push_back(std::move(set));
        }
    }
}

DriverStore::~DriverStore() {
    if (lockFd_ >= 0) {
        flock(lockFd_, LOCK_UN);
        close(lockFd_);
    }
}

std::filesystem::path DriverStore::setPath(std::uint64_t id) const {
    return directory_ / "sets" / std::to_string(id);
}

std::filesystem::path DriverStore::snapshotPath(std::uint64_t id) const {
    return directory_ / "snapshots" / std::to_string(id);
}

void DriverStore::dropAbandonedSets() {
    std::vector<std::uint64_t> abandoned;
    for (const SnapshotSet& set : sets_) {
        if (!set.created && !processAlive(set.ownerPid)) {
            abandoned.push_back(set.id);
        }
    }
    for (std::uint64_t id : abandoned) {
        removeSet(id);
    }
}

void DriverStore::removeSet(std::uint64_t id) {
    for (auto it = sets_.begin(); it != sets_.end(); ++it) {
        if (it->id != id) {
            continue;
        }
        for (const SnapshotElement& element : it->elements) {
            removeQuietly(element.cacheHostPath);
            std::error_code ignored;
            std::filesystem::remove_all(snapshotPath(element.snapshotId), ignored);
        }
        removeQuietly(setPath(id));
        sets_.erase(it);
        return;
    }
}

void DriverStore::commit() {
    json sets = json::array();
    for (const SnapshotSet& set : sets_) {
        json elements = json::array();
        for (const SnapshotElement& element : set.elements) {
            elements.push_back(toJson(element));
        }
        sets.push_back({{"id", set.id},
                        {"ownerPid", set.ownerPid},
                        {"created", set.created},
                        {"quiesceWait", set.quiesceWait},
                        {"quiesceTimeout", set.quiesceTimeout},
                        {"elements", elements}});
    }
    json document = {{"lastId", lastId_}, {"lastName", lastName_}, {"sets", sets}};
    const std::filesystem::path file = directory_ / "state.json";
    const std::filesystem::path temporary = directory_ / "state.json.new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << document.dump(2) << '\n';
        out.flush();
        if (!out) {
            throw std::system_error(EIO, std::generic_category(),
                                    "cannot write " + temporary.string());
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, file, error);
    if (error) {
        throw std::system_error(error, "cannot replace " + file.string());
    }
}

}  // namespace kivsim
