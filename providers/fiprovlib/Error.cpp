// The shared part of the error objects: construction, the event-log report
// and the hand-over of an error's texts to the framework.
#include "fiprovlib/Error.h"

#include "fiprovlib/TraceMethod.h"
#include "os/debug.h"
#include "os/error.h"
#include "os/eventlog.h"
#include "strings/bounded_string.h"
#include "tarn/records.h"

namespace {

constexpr std::size_t kReportCapacity = 256;

os::WORD eventTypeFor(std::uint32_t level) {
    switch (level) {
        case kLogInformation:
        case kLogTrace:
            return os::EVENTLOG_INFORMATION_TYPE;
        case kLogWarning:
            return os::EVENTLOG_WARNING_TYPE;
        default:
            return os::EVENTLOG_ERROR_TYPE;
    }
}

}  // namespace

tarp_Error::tarp_Error(std::uint32_t code, const char16_t* file, std::uint32_t line,
                       const char16_t* function)
    : code_(code), file_(file), line_(line), function_(function) {}

tarp_Error::~tarp_Error() = default;

void tarp_Error::report(std::uint32_t level) const {
    const os::DWORD savedError = os::GetLastError();
    const std::u16string source = pluginName();
    os::HANDLE eventLog = os::RegisterEventSourceW(nullptr, source.c_str());
    if (eventLog == nullptr) {
        // Without a source nothing is written anywhere, debug output included.
        os::SetLastError(savedError);
        return;
    }
    char16_t text[kReportCapacity];
    boundedFormatWide(text, kReportCapacity, u"Error: 0x%08X, in file %s, line %d\n", code_, file_,
                      static_cast<int>(line_));
    os::OutputDebugStringW(text);
    os::LPCWSTR strings[] = {text};
    os::ReportEventW(eventLog, eventTypeFor(level), /*category=*/0, code_, /*userSid=*/nullptr,
                     /*numStrings=*/1, /*dataSize=*/0, strings, /*rawData=*/nullptr);
    os::DeregisterEventSource(eventLog);
    os::SetLastError(savedError);
}

void logError(tarp_Error& error, std::uint32_t level, bool report) {
    tarn_context* context = logContext();
    if (context != nullptr && context->msg_callback != nullptr) {
        const char16_t* message = error.message();
        const char16_t* localized = error.localizedMessage();
        context->msg_callback(context, message, localized, level);
    }
    if (report) {
        error.report(level);
    }
}
