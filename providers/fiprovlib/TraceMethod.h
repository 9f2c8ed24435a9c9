// The log writer and method tracing of the provider.
//
// Every line goes to the message callback of the framework context given to
// setLogContext, prefixed with the plug-in name and a local time stamp, and
// nowhere else. Lines written before setLogContext are formatted and dropped.
// writeLog may run on several threads at once; the per-thread trace depth
// registry is guarded by its own lock.
#ifndef PROVIDERS_FIPROVLIB_TRACEMETHOD_H_
#define PROVIDERS_FIPROVLIB_TRACEMETHOD_H_

#include <cstdarg>
#include <cstdint>
#include <string>

struct tarn_context;

enum LogLevel : std::uint32_t {
    kLogInformation = 1,
    kLogWarning = 2,
    kLogError = 3,
    kLogTrace = 4,
};

void setLogContext(tarn_context* context);
tarn_context* logContext();
void setPluginName(const char16_t* name);
const std::u16string& pluginName();
// Frees the log writer's state and the depth registry when the plug-in is
// unloaded, after everything that traces is gone; a later line starts afresh
// (no context, the initial plug-in name).
void releaseTraceState();

// Formats (wide printf, see boundedFormatWide) and hands one line on; a line
// feed is appended when missing. Never fails to the caller.
void writeLog(std::uint32_t level, const char16_t* format, ...);
void writeLogV(std::uint32_t level, const char16_t* format, va_list arguments);

// Frames a traced operation with "Entering Function " and "Exiting Function "
// lines at level 4. Make it first thing in the operation so the exit line is
// written on every way out.
class tarp_TraceMethod {
  public:
    // Throws tarp_Win32Error (code 13) when the thread's registry entry
    // cannot be allocated.
    tarp_TraceMethod(const char16_t* file, const char16_t* function, std::uint32_t line,
                     const void* context = nullptr);
    virtual ~tarp_TraceMethod();
    tarp_TraceMethod(const tarp_TraceMethod&) = delete;
    tarp_TraceMethod& operator=(const tarp_TraceMethod&) = delete;

    // One free-form line at level 4, cut at 1023 characters; swallows every
    // failure (reported with OutputDebugStringW).
    void traceFormat(const char16_t* format, ...);
    // The hand-over step of traceFormat: cut at 511 characters.
    void trace(const char16_t* format, ...);

    std::uint32_t depth() const { return depth_; }
    bool counted() const { return counted_; }

    // Depth registry entry of the calling thread, 0 when it has none (tests).
    static std::uint32_t currentThreadDepth();

  private:
    void incThreadIndent();
    void decThreadIndent();

    const char16_t* file_;
    const char16_t* function_;
    std::uint32_t line_;
    const void* context_;
    std::uint32_t depth_ = 0;
    bool counted_ = false;
};

// The deepest nesting a thread's registry entry records.
inline constexpr std::uint32_t kMaxTraceDepth = 20;

// Opens a trace scope for the enclosing operation with this line number.
#define TARP_TRACE_METHOD(file, function) \
    tarp_TraceMethod traceMethod_((file), (function), __LINE__)

#endif  // PROVIDERS_FIPROVLIB_TRACEMETHOD_H_
