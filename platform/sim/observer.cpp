// The platform observer: one process-wide pair of callbacks, copied out under
// a mutex so that a callback may replace the observer while it runs.
#include "sim/observer.h"

#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include "os/error.h"

namespace sim {
namespace {

struct ObserverState {
    std::mutex mutex;
    PlatformObserver observer;
    // Lets the calls skip the mutex while nobody observes.
    std::atomic<bool> active{false};
};

ObserverState& state() {
    static ObserverState* instance = new ObserverState();  // outlives every caller
    return *instance;
}

PlatformObserver current() {
    ObserverState& observerState = state();
    std::lock_guard<std::mutex> lock(observerState.mutex);
    return observerState.observer;
}

}  // namespace

void setPlatformObserver(PlatformObserver observer) {
    ObserverState& observerState = state();
    std::lock_guard<std::mutex> lock(observerState.mutex);
    observerState.active = observer.onSleep != nullptr || observer.onPipeExchange != nullptr;
    observerState.observer = std::move(observer);
}

void notifySleep(std::uint32_t milliseconds) {
    if (!state().active) {
        return;
    }
    if (PlatformObserver observer = current(); observer.onSleep) {
        observer.onSleep(milliseconds);
    }
}

void notifyPipeExchange(const PipeExchange& exchange) {
    if (!state().active) {
        return;
    }
    if (PlatformObserver observer = current(); observer.onPipeExchange) {
        observer.onPipeExchange(exchange);
    }
}

PipeExchangeNotice::PipeExchangeNotice(const char16_t* pipeName, const void* request,
                                       std::size_t requestSize, const void* reply)
    : pipeName_(pipeName), request_(request), requestSize_(requestSize), reply_(reply) {}

PipeExchangeNotice::~PipeExchangeNotice() {
    if (!state().active) {
        return;
    }
    // The observer must not change the caller's last error.
    os::DWORD error = os::GetLastError();
    PipeExchange exchange;
    exchange.pipeName = pipeName_ != nullptr ? std::u16string_view(pipeName_) : u"";
    exchange.request = request_;
    exchange.requestSize = requestSize_;
    exchange.succeeded = succeeded_;
    exchange.reply = succeeded_ ? reply_ : nullptr;
    exchange.replySize = succeeded_ ? replySize_ : 0;
    exchange.error = succeeded_ ? 0 : error;
    notifyPipeExchange(exchange);
    os::SetLastError(error);
}

}  // namespace sim
