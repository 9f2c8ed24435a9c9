// The framework context the host hands to the plug-in: a tarn_context whose
// message callback collects every (text, second text, level) the plug-in sends,
// as UTF-8 copies, and an optional locale record.
//
// Thread-safe: the plug-in may call the callback from any thread. The plug-in
// keeps the context pointer and still reports while it is being unloaded, so
// the object must outlive the loaded library: declare it before the
// PluginHost that loads the plug-in.
#ifndef FRAMEWORK_HOST_HOST_HOST_CONTEXT_H_
#define FRAMEWORK_HOST_HOST_HOST_CONTEXT_H_

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tarn/records.h"

namespace host {

// One call of the message callback; a null text is an empty optional.
struct HostMessage {
    std::optional<std::string> text;
    std::optional<std::string> secondText;
    std::uint32_t level = 0;
};

struct HostContextOptions {
    // False leaves msg_callback null: the plug-in must then drop its messages.
    bool withCallback = true;
    // The locale handed through locale_ref; none leaves locale_ref null.
    std::optional<std::string> locale;
    // With no locale: point locale_ref at a record whose name pointer is null.
    bool localeRecordWithoutName = false;
};

class HostContext {
  public:
    explicit HostContext(HostContextOptions options = {});
    HostContext(const HostContext&) = delete;
    HostContext& operator=(const HostContext&) = delete;

    tarn_context* context() { return &block_.context; }

    // Every message received so far, oldest first.
    std::vector<HostMessage> messages() const;
    // The messages received so far; the collection starts empty again.
    std::vector<HostMessage> takeMessages();
    // Called for each message as it arrives, on the plug-in's thread, outside
    // the collection's lock.
    void setListener(std::function<void(const HostMessage&)> listener);

  private:
    // The callback finds its HostContext through the context address, so the
    // context must be the first member of a standard-layout block.
    struct Block {
        tarn_context context;
        HostContext* owner;
    };

    static int onMessage(tarn_context* context, const char16_t* text, const char16_t* secondText,
                         std::uint32_t level);
    void receive(HostMessage message);

    Block block_{};
    tarn_locale localeRecord_{};
    std::string localeName_;
    mutable std::mutex mutex_;
    std::vector<HostMessage> messages_;
    std::function<void(const HostMessage&)> listener_;
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_HOST_CONTEXT_H_
