// Lets a program see two things the platform layer does on behalf of code it
// does not control: Sleep calls and named-pipe exchanges (CallNamedPipeW). A
// host that calls into a plug-in which blocks for a long time (retrying an
// agent's busy pipe, waiting between driver attempts) uses it to show progress
// without touching the plug-in. Off until a program sets an observer.
//
// The callbacks run on the thread that made the call, before a Sleep starts
// and after an exchange ended. They must not call back into the platform
// layer's Sleep or CallNamedPipeW. Thread-safe.
#ifndef PLATFORM_SIM_INCLUDE_SIM_OBSERVER_H_
#define PLATFORM_SIM_INCLUDE_SIM_OBSERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace sim {

// One CallNamedPipeW as the caller made it and as it ended. The buffers are
// only valid during the callback.
struct PipeExchange {
    std::u16string_view pipeName;
    const void* request = nullptr;
    std::size_t requestSize = 0;
    const void* reply = nullptr;  // null unless the exchange succeeded
    std::size_t replySize = 0;
    bool succeeded = false;
    std::uint32_t error = 0;  // the last error when it failed
};

struct PlatformObserver {
    std::function<void(std::uint32_t milliseconds)> onSleep;
    std::function<void(const PipeExchange& exchange)> onPipeExchange;
};

// Replaces the observer; an empty one (the default) turns observing off.
void setPlatformObserver(PlatformObserver observer);

// Called by the platform layer.
void notifySleep(std::uint32_t milliseconds);
void notifyPipeExchange(const PipeExchange& exchange);

// Reports a CallNamedPipeW when it goes out of scope: as failed with the last
// error, unless succeeded() was called first.
class PipeExchangeNotice {
  public:
    PipeExchangeNotice(const char16_t* pipeName, const void* request, std::size_t requestSize,
                       const void* reply);
    ~PipeExchangeNotice();
    PipeExchangeNotice(const PipeExchangeNotice&) = delete;
    PipeExchangeNotice& operator=(const PipeExchangeNotice&) = delete;

    void succeeded(std::size_t replySize) {
        succeeded_ = true;
        replySize_ = replySize;
    }

  private:
    const char16_t* pipeName_;
    const void* request_;
    std::size_t requestSize_;
    const void* reply_;
    std::size_t replySize_ = 0;
    bool succeeded_ = false;
};

}  // namespace sim

#endif  // PLATFORM_SIM_INCLUDE_SIM_OBSERVER_H_
