// A framework context whose message callback keeps every call, for tests of
// the log writer and the error objects.
#ifndef TESTS_PROVIDERS_FIPROVLIB_LOG_CAPTURE_H_
#define TESTS_PROVIDERS_FIPROVLIB_LOG_CAPTURE_H_

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "fiprovlib/TraceMethod.h"
#include "tarn/records.h"

namespace fiprovlibtest {

struct CapturedMessage {
    std::u16string text;
    bool hasSecond = false;
    std::u16string second;
    std::uint32_t level = 0;
};

// Installs itself with setLogContext and the plug-in name "fikiv"; takes the
// log context away again when destroyed. One at a time per process.
class LogCapture {
  public:
    LogCapture() {
        context_.msg_callback = &LogCapture::callback;
        current() = this;
        setPluginName(u"fikiv");
        setLogContext(&context_);
    }
    ~LogCapture() {
        setLogContext(nullptr);
        current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedMessage> messages() {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.clear();
    }
    tarn_context* context() { return &context_; }

  private:
    static LogCapture*& current() {
        static LogCapture* capture = nullptr;
        return capture;
    }
    static int callback(tarn_context* context, const char16_t* text, const char16_t* second,
                        std::uint32_t level) {
        LogCapture* self = current();
        if (self == nullptr || context != &self->context_) {
            return 0;
        }
        CapturedMessage message;
        message.text = text != nullptr ? text : u"";
        message.hasSecond = second != nullptr;
        message.second = second != nullptr ? second : u"";
        message.level = level;
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->messages_.push_back(std::move(message));
        return 0;
    }

    tarn_context context_{};
    std::mutex mutex_;
    std::vector<CapturedMessage> messages_;
};

// ASCII view of a wide text for regular expressions and messages; other
// units become '?'.
inline std::string ascii(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) {
        out += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return out;
}

}  // namespace fiprovlibtest

#endif  // TESTS_PROVIDERS_FIPROVLIB_LOG_CAPTURE_H_
