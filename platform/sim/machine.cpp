// The machine of this process: loaded once on first use, its listed faults
// registered into the hooks, a failure remembered until reset().
#include "sim/machine.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "sim/hooks.h"

namespace sim {
namespace {

// The loaded machine of this process.
struct CurrentState {
    std::mutex mutex;
    std::unique_ptr<Machine> machine;
    std::uint64_t loads = 0;
    std::string error;
    std::atomic<const Machine*> loaded{nullptr};
    std::atomic<bool> attempted{false};
};

CurrentState& currentState() {
    static CurrentState* instance = new CurrentState;
    return *instance;
}

void registerFaults(const Machine& machine) {
    for (const FaultSpec& fault : machine.faults()) {
        switch (fault.kind) {
            case FaultSpec::Kind::Function:
                injectFault(fault.function, fault.error, fault.skip, fault.count);
                break;
            case FaultSpec::Kind::Unbindable:
                makeUnbindable(fault.module, fault.exportName);
                break;
            case FaultSpec::Kind::MissingLibrary:
                makeLibraryMissing(fault.module);
                break;
            default:
                break;
        }
    }
}

}  // namespace

const Machine& Machine::current() {
    std::string error;
    const Machine* machine = currentOrNull(&error);
    if (machine == nullptr) {
        throw MachineError(error);
    }
    return *machine;
}

const Machine* Machine::currentOrNull(std::string* error) {
    CurrentState& state = currentState();
    if (const Machine* loaded = state.loaded.load(std::memory_order_acquire)) {
        return loaded;
    }
    std::lock_guard lock(state.mutex);
    if (!state.attempted.load()) {
        // A failed load is remembered until reset(), so that a broken file is
        // read once and every later call fails the same way, quickly.
        try {
            const std::filesystem::path file = currentFile();
            const char* named = std::getenv("FIKIV_MACHINE");
            if (named == nullptr || named[0] == '\0') {
                writeDefault(file);
            }
            auto machine = std::make_unique<Machine>(load(file));
            machine->prepareStateDirectory();
            machine->loadNumber_ = ++state.loads;
            state.machine = std::move(machine);
            state.error.clear();
        } catch (const MachineError& failure) {
            state.error = failure.what();
        } catch (const std::exception& failure) {
            state.error = std::string("machine description: ") + failure.what();
        }
        state.attempted.store(true);
        if (state.machine) {
            registerFaults(*state.machine);
            state.loaded.store(state.machine.get(), std::memory_order_release);
        }
    }
    if (!state.machine && error != nullptr) {
        *error = state.error;
    }
    return state.machine.get();
}

void Machine::ensureLoadAttempted() {
    if (!currentState().attempted.load(std::memory_order_acquire)) {
        currentOrNull();
    }
}

void Machine::reset() {
    CurrentState& state = currentState();
    std::lock_guard lock(state.mutex);
    state.loaded.store(nullptr);
    state.machine.reset();
    state.error.clear();
    state.attempted.store(false);
}

}  // namespace sim
