// The handles the agent holds, by volume name.
//
// A registered handle belongs to another process; the table keeps a duplicate
// of it in this process until the name is released or the agent stops. How a
// handle is taken from another process and how one is closed is left to a
// HandleOperations, so the table and the request handling around it can run
// without other processes (tests, fuzzing).
//
// Thread-safe: the pipe's instance threads share one table.
#ifndef AGENT_SRC_HANDLE_TABLE_H_
#define AGENT_SRC_HANDLE_TABLE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "os/types.h"

namespace kivagent {

class HandleOperations {
  public:
    virtual ~HandleOperations() = default;
    // Copies `handle` of process `processId` into this process. 0 with the
    // copy's value in `*copy`, or a Win32 error code.
    virtual os::DWORD duplicateFrom(os::DWORD processId, std::uint64_t handle,
                                    std::uint64_t* copy) = 0;
    // Closes a handle of this process. 0 or a Win32 error code.
    virtual os::DWORD close(std::uint64_t handle) = 0;
    // True when the object behind a handle of this process no longer exists:
    // a snapshot volume destroyed while the agent held it, because its
    // release never reached the agent. By default nothing is ever gone.
    virtual bool isGone(std::uint64_t /*handle*/) { return false; }
};

// One held handle, as the status file and `kivagent --status` show it.
struct HeldHandle {
    std::u16string volumeName;
    std::uint64_t handle = 0;        // the value in this process
    os::DWORD registeredBy = 0;      // the process that registered it
    std::uint64_t sourceHandle = 0;  // its value in that process
};

class HandleTable {
  public:
    // Called after each change with every handle held then, under the table's
    // lock, so that calls follow one another in the order of the changes.
    using ChangeListener = std::function<void(const std::vector<HeldHandle>&)>;

    explicit HandleTable(HandleOperations& operations) : operations_(operations) {}
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;
    // Does not close what it holds: stop with closeAll().
    ~HandleTable() = default;

    void setChangeListener(ChangeListener listener);

    // Duplicates `handle` of `processId` and keeps the copy under `volumeName`.
    // A name already held is taken over: its old handle is closed and
    // `*replaced` set. 0 or the Win32 error code of the duplication.
    os::DWORD add(const std::u16string& volumeName, os::DWORD processId, std::uint64_t handle,
                  bool* replaced = nullptr);
    // The handle held under `volumeName`; false when none is.
    bool find(const std::u16string& volumeName, std::uint64_t* handle) const;
    // Closes the handle held under `volumeName` and forgets the name.
    // ERROR_FILE_NOT_FOUND when none is held; the name is forgotten even when
    // closing fails, and that error is answered.
    os::DWORD remove(const std::u16string& volumeName);
    // Closes every handle; returns how many were held.
    std::size_t closeAll();
    // Closes and forgets every handle whose object is gone; returns how many.
    std::size_t dropGone();

    std::vector<HeldHandle> held() const;
    std::size_t size() const;

  private:
    std::vector<HeldHandle> heldLocked() const;
    void changedLocked();

    HandleOperations& operations_;
    mutable std::mutex mutex_;
    std::map<std::u16string, HeldHandle> handles_;
    ChangeListener listener_;
};

}  // namespace kivagent

#endif  // AGENT_SRC_HANDLE_TABLE_H_
