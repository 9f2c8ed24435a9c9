#include "entry_point.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <new>
#include <set>
#include <system_error>

#include "driver_state.h"
#include "library_object.h"
#include "os/eventlog.h"
#include "sim/errors.h"
#include "sim/text.h"

namespace kivsim {
namespace {

constexpr std::uint32_t ERROR_GEN_FAILURE = 31;
constexpr std::uint32_t kEventUnusableState = 1;

void writeEvent(const std::string& problem) {
    os::HANDLE source = os::RegisterEventSourceW(nullptr, u"kivapi");
    if (source == nullptr) {
        return;
    }
    const std::u16string text = sim::fromUtf8(problem);
    const char16_t* strings[] = {text.c_str()};
    os::ReportEventW(source, os::EVENTLOG_ERROR_TYPE, 0, kEventUnusableState, nullptr, 1, 0,
                     strings, nullptr);
    os::DeregisterEventSource(source);
}

}  // namespace

const sim::Machine& loadedMachine() {
    const sim::Machine* machine = sim::Machine::currentOrNull();
    if (machine == nullptr) {
        throw Refusal{os::ERROR_NOT_READY};
    }
    return *machine;
}

HandleTarget handleOf(const sim::Machine& machine, DriverHandle handle,
                      std::initializer_list<Kind> kinds) {
    const HandleTarget target = anyHandle(machine, handle);
    if (target.removed || std::find(kinds.begin(), kinds.end(), target.kind) == kinds.end()) {
        throw Refusal{os::ERROR_INVALID_HANDLE};
    }
    return target;
}

HandleTarget anyHandle(const sim::Machine& machine, DriverHandle handle) {
    const HandleTarget target = identifyHandle(machine, handle);
    if (target.kind == Kind::None) {
        throw Refusal{os::ERROR_INVALID_HANDLE};
    }
    return target;
}

void reportUnusableState(const std::string& problem) {
    struct Reported {
        std::mutex mutex;
        std::set<std::string> problems;
    };
    Reported& reported = libraryObject<Reported>();
    {
        std::lock_guard lock(reported.mutex);
        if (!reported.problems.insert(problem).second) {
            return;
        }
    }
    std::fprintf(stderr, "kivapi: the snapshot driver's state cannot be used: %s\n",
                 problem.c_str());
    writeEvent("the snapshot driver's state cannot be used: " + problem);
}

std::uint32_t statusOf(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Refusal& refusal) {
        return refusal.status;
    } catch (const DriverStateError& unusable) {
        reportUnusableState(unusable.what());
        return ERROR_FILE_CORRUPT;
    } catch (const std::bad_alloc&) {
        return os::ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::system_error& error) {
        if (error.code().category() == std::generic_category() ||
            error.code().category() == std::system_category()) {
            return sim::win32FromErrno(error.code().value());
        }
        return ERROR_GEN_FAILURE;
    } catch (...) {
        return ERROR_GEN_FAILURE;
    }
}

}  // namespace kivsim
