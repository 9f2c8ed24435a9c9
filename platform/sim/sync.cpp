// Critical sections and named mutexes of the simulated machine.
//
// A critical section is a recursive pthread mutex placed in the caller's
// CRITICAL_SECTION storage; its spin count is kept but not used (the pthread
// mutex decides when to block).
//
// A named mutex is a robust, process-shared, recursive pthread mutex in a small
// file under "<state directory>/mutex/", mapped into every process that opens
// the name. The pthread mutex itself keeps what Windows keeps for a mutex: the
// owning thread and the recursion count; when the owner ends while holding it
// the next waiter is told so (WAIT_ABANDONED) and owns it.
//
// Lifetime follows Windows: the object lives while some handle to it is open.
// Each handle holds a shared flock on the file; whoever closes a handle and
// then gets the exclusive lock is the last user and removes the file. A process
// that dies drops its flocks, so its handles close with it. A file appears
// under its name only fully initialised (it is made under a temporary name and
// linked into place), so concurrent creators never see a half-made mutex. A
// file that nobody holds any more (every process that had it open has died) is
// replaced by a new mutex when the name is next created.
//
// All functions are thread-safe; a critical section is as safe as its caller's
// use of it.
#include "os/sync.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "object_names.h"
#include "os/error.h"
#include "os_call.h"
#include "sim/clock.h"
#include "sim/errors.h"
#include "sim/handles.h"
#include "sim/hooks.h"
#include "sim/machine.h"

namespace sim {
namespace {

using os::DWORD;

struct CriticalSectionState {
    pthread_mutex_t mutex;
    DWORD spinCount;
};
static_assert(sizeof(CriticalSectionState) <= sizeof(os::CRITICAL_SECTION::storage),
              "critical section state must fit the caller's storage");
static_assert(alignof(CriticalSectionState) <= alignof(os::CRITICAL_SECTION),
              "critical section storage is not aligned enough");

CriticalSectionState* stateOf(os::CRITICAL_SECTION* section) {
    return std::launder(reinterpret_cast<CriticalSectionState*>(section->storage));
}

// The record shared by every process that maps one named mutex.
struct SharedMutexRecord {
    std::uint32_t magic;
    std::uint32_t size;
    pthread_mutex_t mutex;
};
constexpr std::uint32_t kMutexMagic = 0x584d4b46;  // "FKMX"

void initialiseRecord(SharedMutexRecord* record) {
    record->magic = kMutexMagic;
    record->size = sizeof(SharedMutexRecord);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&record->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// One mapping of a mutex record in this process, shared by all handles to the
// same mutex. A robust mutex that a thread holds sits in that thread's robust
// list by its address, and the kernel and glibc follow that list when the
// thread unlocks other mutexes or ends. So all handles use one address, and a
// mapping that this process still holds the mutex through is never unmapped
// (Windows lets a thread close the handle of a mutex it owns; the mutex is
// then abandoned when the thread ends).
struct Mapping {
    SharedMutexRecord* record = nullptr;
    std::atomic<long> heldHere{0};  // acquisitions minus releases in this process

    explicit Mapping(SharedMutexRecord* mapped) : record(mapped) {}
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (heldHere.load() <= 0) {
            munmap(record, sizeof(SharedMutexRecord));
        }
    }
};

using FileKey = std::pair<dev_t, ino_t>;

std::mutex& mappingsLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

std::map<FileKey, std::weak_ptr<Mapping>>& mappings() {
    static auto* table = new std::map<FileKey, std::weak_ptr<Mapping>>;
    return *table;
}

// The mapping of the mutex file `fd` in this process, made on first use.
// Null with errno set when the file cannot be mapped.
std::shared_ptr<Mapping> mapShared(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return nullptr;
    }
    FileKey key{status.st_dev, status.st_ino};
    std::lock_guard<std::mutex> guard(mappingsLock());
    auto& table = mappings();
    if (auto found = table.find(key); found != table.end()) {
        if (auto mapping = found->second.lock()) {
            return mapping;
        }
    }
    void* memory =
        mmap(nullptr, sizeof(SharedMutexRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto mapping = std::make_shared<Mapping>(static_cast<SharedMutexRecord*>(memory));
    std::erase_if(table, [](const auto& entry) { return entry.second.expired(); });
    table[key] = mapping;
    return mapping;
}

bool sameFile(int fd, const std::filesystem::path& path) {
    struct stat open {};
    struct stat named {};
    if (fstat(fd, &open) != 0 || stat(path.c_str(), &named) != 0) {
        return false;
    }
    return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

class MutexObject final : public HandleObject {
  public:
    // An unnamed mutex (fd -1, empty path) or a named one mapped from `fd`,
    // which holds a shared flock on the file at `path`.
    MutexObject(std::shared_ptr<Mapping> mapping, int fd, std::filesystem::path path)
        : mapping_(std::move(mapping)), fd_(fd), path_(std::move(path)) {}
    MutexObject(const MutexObject&) = delete;
    MutexObject& operator=(const MutexObject&) = delete;

    ~MutexObject() override {
        if (fd_ < 0) {
            return;
        }
        // The last handle on the machine removes the name. Only a holder of
        // the exclusive lock on a file ever unlinks it, so when the name still
        // points to this file it is ours to remove.
        if (flock(fd_, LOCK_EX | LOCK_NB) == 0 && sameFile(fd_, path_)) {
            unlink(path_.c_str());
        }
        close(fd_);
    }

    pthread_mutex_t* mutex() { return &mapping_->record->mutex; }
    void acquired() { mapping_->heldHere.fetch_add(1); }
    void released() { mapping_->heldHere.fetch_sub(1); }

  private:
    std::shared_ptr<Mapping> mapping_;
    int fd_;
    std::filesystem::path path_;
};

struct OpenedRecord {
    std::shared_ptr<Mapping> mapping;
    int fd = -1;
    bool existed = false;
};

void lockShared(int fd) {
    while (flock(fd, LOCK_SH) != 0 && errno == EINTR) {
    }
}

// Opens the mutex file at `path`, creating it when it does not exist. With
// `lockWhenCreated` a newly made mutex is owned by the calling thread before
// any other process can see it. Returns 0 or a Win32 error code.
DWORD openOrCreateRecord(const std::filesystem::path& path, bool lockWhenCreated,
                         OpenedRecord* opened) {
    const std::string scratch = (path.parent_path() / ".new-XXXXXX").string();
    for (;;) {
        int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            // Nobody else holding the file means every process that had it
            // open has ended: the mutex died with them, so make a new one.
            if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
                if (sameFile(fd, path)) {
                    unlink(path.c_str());
                }
                close(fd);
                continue;
            }
            lockShared(fd);
            // The last user may have removed the name between our open and
            // our lock; then start again with whatever the name holds now.
            if (!sameFile(fd, path)) {
                close(fd);
                continue;
            }
            struct stat status {};
            fstat(fd, &status);
            std::shared_ptr<Mapping> mapping;
            if (status.st_size != static_cast<off_t>(sizeof(SharedMutexRecord)) ||
                (mapping = mapShared(fd)) == nullptr || mapping->record->magic != kMutexMagic) {
                close(fd);
                return os::ERROR_INVALID_HANDLE;  // the name belongs to something else
            }
            *opened = {std::move(mapping), fd, true};
            return 0;
        }
        if (errno != ENOENT) {
            return win32FromErrno(errno);
        }

        std::string temporary = scratch;
        fd = mkostemp(temporary.data(), O_CLOEXEC);
        if (fd < 0) {
            return win32FromErrno(errno);
        }
        // The space is reserved before the record is mapped: a page with
        // nothing behind it (a full tmpfs) would kill the process with SIGBUS
        // at the first write instead of failing here with ERROR_DISK_FULL.
        std::shared_ptr<Mapping> mapping;
        int error = posix_fallocate(fd, 0, sizeof(SharedMutexRecord));
        if (error == 0 && (mapping = mapShared(fd)) == nullptr) {
            error = errno;
        }
        if (error != 0) {
            unlink(temporary.c_str());
            close(fd);
            return win32FromErrno(error);
        }
        initialiseRecord(mapping->record);
        if (lockWhenCreated) {
            pthread_mutex_lock(&mapping->record->mutex);
        }
        lockShared(fd);
        int linked = link(temporary.c_str(), path.c_str());
        error = errno;
        unlink(temporary.c_str());
        if (linked == 0) {
            if (lockWhenCreated) {
                mapping->heldHere.fetch_add(1);
            }
            *opened = {std::move(mapping), fd, false};
            return 0;
        }
        if (lockWhenCreated) {
            pthread_mutex_unlock(&mapping->record->mutex);
        }
        mapping.reset();
        close(fd);
        if (error != EEXIST) {
            return win32FromErrno(error);
        }
        // Another process created the name first: open theirs.
    }
}

// Splits a mutex name into the file name it is kept under. "Local\" is the
// session namespace, which is also where a name without prefix lives; the
// simulated machine has one session, and "Global\" names are kept apart from
// it as on Windows. Any other backslash makes the name a path that does not
// exist. Returns 0 or a Win32 error code.
DWORD mutexFileName(std::u16string_view name, std::string* fileName) {
    constexpr std::u16string_view kGlobal = u"Global\\";
    constexpr std::u16string_view kLocal = u"Local\\";
    if (name.size() >= os::MAX_PATH) {
        return os::ERROR_FILENAME_EXCED_RANGE;
    }
    std::string prefix = "local.";
    if (name.starts_with(kGlobal)) {
        name.remove_prefix(kGlobal.size());
        prefix = "global.";
    } else if (name.starts_with(kLocal)) {
        name.remove_prefix(kLocal.size());
    }
    if (name.find(u'\\') != std::u16string_view::npos) {
        return os::ERROR_PATH_NOT_FOUND;
    }
    *fileName = prefix + escapeObjectName(name);
    return 0;
}

// Takes the mutex within `milliseconds` on the platform clock: 0, EBUSY or
// ETIMEDOUT (not taken), EOWNERDEAD (taken; its owner ended while holding it)
// or another errno value.
int lockWithin(pthread_mutex_t* mutex, DWORD milliseconds) {
    int result = pthread_mutex_trylock(mutex);
    if (result != EBUSY || milliseconds == 0) {
        return result;
    }
    // Stays ETIMEDOUT when the virtual clock lets the time-out pass at once.
    result = ETIMEDOUT;
    advanceOrWait(milliseconds, [&](const timespec* deadline) {
        do {
            result = deadline != nullptr ? pthread_mutex_timedlock(mutex, deadline)
                                         : pthread_mutex_lock(mutex);
        } while (result == EINTR);
        return result == 0 || result == EOWNERDEAD;
    });
    return result;
}

}  // namespace
}  // namespace sim

namespace os {

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) {
    DWORD error = 0;
    if (sim::faultOnEntry<"InitializeCriticalSectionAndSpinCount">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* state = new (section->storage) sim::CriticalSectionState;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&state->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    state->spinCount = spinCount;
    return TRUE;
}

// The three calls below cannot fail on Windows; an injected fault is counted
// but has nothing to change.
void EnterCriticalSection(CRITICAL_SECTION* section) {
    DWORD ignored = 0;
    sim::faultOnEntry<"EnterCriticalSection">(&ignored);
    pthread_mutex_lock(&sim::stateOf(section)->mutex);
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
    DWORD ignored = 0;
    sim::faultOnEntry<"LeaveCriticalSection">(&ignored);
    pthread_mutex_unlock(&sim::stateOf(section)->mutex);
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
    DWORD ignored = 0;
    sim::faultOnEntry<"DeleteCriticalSection">(&ignored);
    pthread_mutex_destroy(&sim::stateOf(section)->mutex);
}

HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES /*attributes*/, BOOL initialOwner, LPCWSTR name) {
    DWORD error = 0;
    if (sim::faultOnEntry<"CreateMutexW">(&error)) {
        return sim::fail(error, HANDLE{nullptr});
    }

    if (name == nullptr || *name == u'\0') {
        void* memory = mmap(nullptr, sizeof(sim::SharedMutexRecord), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return sim::fail(sim::win32FromErrno(errno), HANDLE{nullptr});
        }
        auto mapping = std::make_shared<sim::Mapping>(static_cast<sim::SharedMutexRecord*>(memory));
        sim::initialiseRecord(mapping->record);
        if (initialOwner) {
            pthread_mutex_lock(&mapping->record->mutex);
            mapping->heldHere.fetch_add(1);
        }
        HANDLE handle = sim::registerHandle(
            std::make_unique<sim::MutexObject>(std::move(mapping), -1, std::filesystem::path()));
        SetLastError(ERROR_SUCCESS);
        return handle;
    }

    std::string fileName;
    if (DWORD invalid = sim::mutexFileName(name, &fileName); invalid != 0) {
        return sim::fail(invalid, HANDLE{nullptr});
    }
    const sim::Machine* machine = sim::Machine::currentOrNull();
    if (machine == nullptr) {
        return sim::fail(ERROR_NOT_READY, HANDLE{nullptr});
    }
    const std::filesystem::path directory = machine->stateDirectory() / "mutex";
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);

    sim::OpenedRecord opened;
    if (DWORD failed =
            sim::openOrCreateRecord(directory / fileName, initialOwner != FALSE, &opened);
        failed != 0) {
        return sim::fail(failed, HANDLE{nullptr});
    }
    HANDLE handle = sim::registerHandle(std::make_unique<sim::MutexObject>(
        std::move(opened.mapping), opened.fd, directory / fileName));
    // An existing mutex is opened as it is: the initial-owner request only
    // applies to the creator.
    SetLastError(opened.existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    DWORD error = 0;
    if (sim::faultOnEntry<"WaitForSingleObject">(&error)) {
        return sim::fail(error, WAIT_FAILED);
    }
    auto* mutex = sim::lookupHandleAs<sim::MutexObject>(handle);
    if (mutex == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, WAIT_FAILED);
    }
    switch (int result = sim::lockWithin(mutex->mutex(), milliseconds)) {
        case 0:
            mutex->acquired();
            return WAIT_OBJECT_0;
        case EOWNERDEAD:
            // The caller now owns a mutex whose previous owner ended while
            // holding it; make it usable again before handing it over.
            pthread_mutex_consistent(mutex->mutex());
            mutex->acquired();
            return WAIT_ABANDONED;
        case EBUSY:
        case ETIMEDOUT:
            return WAIT_TIMEOUT;
        case ENOTRECOVERABLE:
            return sim::fail(ERROR_INVALID_HANDLE, WAIT_FAILED);
        default:
            return sim::fail(sim::win32FromErrno(result), WAIT_FAILED);
    }
}

BOOL ReleaseMutex(HANDLE mutexHandle) {
    DWORD error = 0;
    if (sim::faultOnEntry<"ReleaseMutex">(&error)) {
        return sim::fail(error, FALSE);
    }
    auto* mutex = sim::lookupHandleAs<sim::MutexObject>(mutexHandle);
    if (mutex == nullptr) {
        return sim::fail(ERROR_INVALID_HANDLE, FALSE);
    }
    if (int result = pthread_mutex_unlock(mutex->mutex()); result != 0) {
        return sim::fail(result == EPERM ? ERROR_NOT_OWNER : sim::win32FromErrno(result), FALSE);
    }
    mutex->released();
    return TRUE;
}

}  // namespace os
