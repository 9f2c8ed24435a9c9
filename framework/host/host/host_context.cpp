#include "host/host_context.h"

#include <type_traits>
#include <utility>

#include "host/text.h"

namespace host {

HostContext::HostContext(HostContextOptions options) {
    block_.owner = this;
    if (options.withCallback) {
        block_.context.msg_callback = &HostContext::onMessage;
    }
    if (options.locale.has_value()) {
        localeName_ = *options.locale;
        localeRecord_.name = localeName_.c_str();
        block_.context.locale_ref = &localeRecord_;
    } else if (options.localeRecordWithoutName) {
        localeRecord_.name = nullptr;
        block_.context.locale_ref = &localeRecord_;
    }
}

int HostContext::onMessage(tarn_context* context, const char16_t* text, const char16_t* secondText,
                           std::uint32_t level) {
    static_assert(std::is_standard_layout_v<Block>);
    if (context == nullptr) {
        return 0;
    }
    HostMessage message;
    if (text != nullptr) {
        message.text = toUtf8(text);
    }
    if (secondText != nullptr) {
        message.secondText = toUtf8(secondText);
    }
    message.level = level;
    reinterpret_cast<Block*>(context)->owner->receive(std::move(message));
    return 0;
}

void HostContext::receive(HostMessage message) {
    std::function<void(const HostMessage&)> listener;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(message);
        listener = listener_;
    }
    if (listener) {
        listener(message);
    }
}

std::vector<HostMessage> HostContext::messages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::vector<HostMessage> HostContext::takeMessages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(messages_, {});
}

void HostContext::setListener(std::function<void(const HostMessage&)> listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    listener_ = std::move(listener);
}

}  // namespace host
