#include "handle_table.h"

#include "os/error.h"

namespace kivagent {

void HandleTable::setChangeListener(ChangeListener listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

os::DWORD HandleTable::add(const std::u16string& volumeName, os::DWORD processId,
                           std::uint64_t handle, bool* replaced) {
    if (replaced != nullptr) {
        *replaced = false;
    }
    // Duplicating talks to another process: do it outside the lock.
    std::uint64_t copy = 0;
    if (os::DWORD error = operations_.duplicateFrom(processId, handle, &copy); error != 0) {
        return error;
    }
    std::lock_guard lock(mutex_);
    HeldHandle entry{volumeName, copy, processId, handle};
    auto [position, inserted] = handles_.try_emplace(volumeName, entry);
    if (!inserted) {
        // The name now stands for another volume (the earlier one was
        // destroyed without being released): keep the newer handle.
        operations_.close(position->second.handle);
        position->second = entry;
        if (replaced != nullptr) {
            *replaced = true;
        }
    }
    changedLocked();
    return 0;
}

bool HandleTable::find(const std::u16string& volumeName, std::uint64_t* handle) const {
    std::lock_guard lock(mutex_);
    auto found = handles_.find(volumeName);
    if (found == handles_.end()) {
        return false;
    }
    *handle = found->second.handle;
    return true;
}

os::DWORD HandleTable::remove(const std::u16string& volumeName) {
    std::lock_guard lock(mutex_);
    auto found = handles_.find(volumeName);
    if (found == handles_.end()) {
        return os::ERROR_FILE_NOT_FOUND;
    }
    os::DWORD error = operations_.close(found->second.handle);
    handles_.erase(found);
    changedLocked();
    return error;
}

std::size_t HandleTable::closeAll() {
    std::lock_guard lock(mutex_);
    std::size_t count = handles_.size();
    for (const auto& [name, entry] : handles_) {
        operations_.close(entry.handle);
    }
    handles_.clear();
    if (count > 0) {
        changedLocked();
    }
    return count;
}

std::size_t HandleTable::dropGone() {
    std::lock_guard lock(mutex_);
    std::size_t count = std::erase_if(handles_, [this](const auto& item) {
        if (!operations_.isGone(item.second.handle)) {
            return false;
        }
        operations_.close(item.second.handle);
        return true;
    });
    if (count > 0) {
        changedLocked();
    }
    return count;
}

std::vector<HeldHandle> HandleTable::held() const {
    std::lock_guard lock(mutex_);
    return heldLocked();
}

std::size_t HandleTable::size() const {
    std::lock_guard lock(mutex_);
    return handles_.size();
}

std::vector<HeldHandle> HandleTable::heldLocked() const {
    std::vector<HeldHandle> list;
    list.reserve(handles_.size());
    for (const auto& [name, entry] : handles_) {
        list.push_back(entry);
    }
    return list;
}

void HandleTable::changedLocked() {
    if (listener_) {
        listener_(heldLocked());
    }
}

}  // namespace kivagent
