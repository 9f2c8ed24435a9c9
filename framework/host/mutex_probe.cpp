#include "mutex_probe.h"

#include "host/text.h"
#include "kiv/cachefile/providermutex.h"
#include "os/debug.h"
#include "os/sync.h"

namespace fihost {

MutexState probeProviderMutex() {
    os::HANDLE mutex = nullptr;
    try {
        mutex = ProviderMutex();
    } catch (os::DWORD) {
        return MutexState::kUnavailable;
    }
    switch (os::WaitForSingleObject(mutex, 0)) {
        case os::WAIT_OBJECT_0:
            os::ReleaseMutex(mutex);
            return MutexState::kFree;
        case os::WAIT_ABANDONED:
            os::ReleaseMutex(mutex);
            return MutexState::kAbandoned;
        case os::WAIT_TIMEOUT:
            return MutexState::kHeld;
        default:
            return MutexState::kUnavailable;
    }
}

std::string mutexFailureText(MutexState before) {
    switch (before) {
        case MutexState::kAbandoned:
            return "the provider mutex had been abandoned by a process that ended while placing "
                   "cache files; fihost released it, and placement works again";
        case MutexState::kHeld:
            return "the provider mutex stayed held by another process for 10 seconds (another "
                   "snapshot is placing its cache files, or its process hangs); try again, or "
                   "end the hung process";
        case MutexState::kUnavailable:
            return "the provider mutex cannot be opened; the machine's state directory may not "
                   "be writable";
        default:
            return "the provider mutex could not be obtained within 10 seconds (another "
                   "process took it first, or it was abandoned meanwhile); try again";
    }
}

std::string systemErrorText(std::uint32_t code) {
    char16_t* text = nullptr;
    std::string result = "error " + std::to_string(code);
    if (os::FormatMessageW(os::FORMAT_MESSAGE_ALLOCATE_BUFFER | os::FORMAT_MESSAGE_FROM_SYSTEM |
                               os::FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, code, os::LANG_ENGLISH_US, reinterpret_cast<char16_t*>(&text),
                           0, nullptr) != 0 &&
        text != nullptr) {
        std::string message = host::toUtf8(text);
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
            message.pop_back();
        }
        result += ": " + message;
    }
    if (text != nullptr) {
        os::LocalFree(text);
    }
    return result;
}

}  // namespace fihost
