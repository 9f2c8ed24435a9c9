// A framework context whose message callback keeps every call, installed as
// the log writer's context for the life of the object: what the plug-in's log
// and trace lines would tell the host, for tests that run the plug-in's code
// in their own process. Header-only: the test links the plug-in's code.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H_
#define TESTS_SUPPORT_LOG_CAPTURE_H_

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "fiprovlib/TraceMethod.h"
#include "tarn/records.h"

namespace testsupport {

struct CapturedMessage {
    std::u16string text;
    bool hasSecond = false;
    std::u16string second;
    std::uint32_t level = 0;
};

// Installs itself with setLogContext and the plug-in name "fikiv"; gives
// the earlier log context back when destroyed. One at a time per process.
class LogCapture {
  public:
    LogCapture() : previous_(logContext()) {
        context_.msg_callback = &LogCapture::callback;
        current() = this;
        setPluginName(u"fikiv");
        setLogContext(&context_);
    }
    ~LogCapture() {
        setLogContext(previous_);
        current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedMessage> messages() {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }
    // The texts of the lines at `level`, in order.
    std::vector<std::u16string> texts(std::uint32_t level) {
        std::vector<std::u16string> found;
        for (const CapturedMessage& message : messages()) {
            if (message.level == level) {
                found.push_back(message.text);
            }
        }
        return found;
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
    tarn_context* previous_;
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

}  // namespace testsupport

#endif  // TESTS_SUPPORT_LOG_CAPTURE_H_
