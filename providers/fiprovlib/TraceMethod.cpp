// The log writer and the method trace objects.
//
// Process-wide state (log context, plug-in name, depth registry) lives in
// objects made on first use that the exit-time destructors leave alone: the
// coordinator and its nodes trace while the plug-in's unload routine deletes
// them, also when the process exits with the plug-in loaded. The unload
// routine releases this state last (releaseTraceState).
#include "fiprovlib/TraceMethod.h"

#include <atomic>
#include <mutex>
#include <new>

#include "fiprovlib/Win32Error.h"
#include "os/com.h"
#include "os/debug.h"
#include "os/error.h"
#include "os/time.h"
#include "process_object.h"
#include "strings/bounded_string.h"
#include "tarn/records.h"

namespace {

struct LogState {
    std::atomic<tarn_context*> context{nullptr};
    std::mutex nameMutex;
    std::u16string pluginName = u"<Plugin name not set>";
};

constinit ProcessObject<LogState> logStateObject;

LogState& logState() {
    return logStateObject.get();
}

std::u16string pluginNameCopy() {
    LogState& state = logState();
    std::lock_guard<std::mutex> lock(state.nameMutex);
    return state.pluginName;
}

// One entry per thread that ever traced, kept until the process ends.
struct DepthEntry {
    std::uint32_t threadKey;
    std::uint32_t depth;
    DepthEntry* next;
};

struct DepthRegistry {
    std::mutex mutex;
    DepthEntry* first = nullptr;
    DepthEntry* last = nullptr;

    ~DepthRegistry() {
        while (first != nullptr) {
            DepthEntry* next = first->next;
            delete first;
            first = next;
        }
    }
};

constinit ProcessObject<DepthRegistry> depthRegistryObject;

DepthRegistry& depthRegistry() {
    return depthRegistryObject.get();
}

// REQUIRES: the registry's mutex is held.
DepthEntry* findEntry(const DepthRegistry& registry, std::uint32_t threadKey) {
    for (DepthEntry* entry = registry.first; entry != nullptr; entry = entry->next) {
        if (entry->threadKey == threadKey) {
            return entry;
        }
    }
    return nullptr;
}

constexpr std::size_t kFirstLogCapacity = 512;
constexpr std::size_t kTimeStampCapacity = 1024;
constexpr std::size_t kTraceFormatCapacity = 1024;
constexpr std::size_t kTraceCapacity = 512;
constexpr std::size_t kLineFeedLimit = 512;

const char16_t* const kDayNames[] = {u"Sun", u"Mon", u"Tue", u"Wed", u"Thu", u"Fri", u"Sat"};
const char16_t* const kMonthNames[] = {u"Jan", u"Feb", u"Mar", u"Apr", u"May", u"Jun",
                                       u"Jul", u"Aug", u"Sep", u"Oct", u"Nov", u"Dec"};

// Formats the message into a heap buffer that grows until the text fits.
// Null when a buffer cannot be had; the caller frees the result with delete[].
char16_t* formatMessage(const char16_t* format, va_list arguments) {
    std::size_t capacity = kFirstLogCapacity;
    char16_t* buffer = new (std::nothrow) char16_t[capacity];
    while (buffer != nullptr) {
        va_list copy;
        va_copy(copy, arguments);
        std::int32_t result = boundedFormatWide(buffer, capacity, format, copy);
        va_end(copy);
        std::size_t next = 0;
        if (result == -1 || static_cast<std::size_t>(result) + 1 >= capacity) {
            // -1, the capacity, or one less: the text may not have fit whole.
            next = capacity * 2;
        }
        if (result > 0 && static_cast<std::size_t>(result) > capacity) {
            next = static_cast<std::size_t>(result) + 2;
        }
        if (next == 0) {
            return buffer;
        }
        delete[] buffer;
        capacity = next;
        buffer = new (std::nothrow) char16_t[capacity];
    }
    return nullptr;
}

std::u16string timeStamp() {
    os::SYSTEMTIME now{};
    os::GetLocalTime(&now);
    const char16_t* day = now.wDayOfWeek < 7 ? kDayNames[now.wDayOfWeek] : u"???";
    const char16_t* month =
        now.wMonth >= 1 && now.wMonth <= 12 ? kMonthNames[now.wMonth - 1] : u"???";
    char16_t stamp[kTimeStampCapacity];
    boundedFormatWide(stamp, kTimeStampCapacity, u"%3s %3s %2d %04d %02d:%02d:%02d.%06d", day,
                      month, static_cast<int>(now.wDay), static_cast<int>(now.wYear),
                      static_cast<int>(now.wHour), static_cast<int>(now.wMinute),
                      static_cast<int>(now.wSecond), static_cast<int>(now.wMilliseconds) * 1000);
    return stamp;
}

}  // namespace

void setLogContext(tarn_context* context) {
    logState().context.store(context);
}

tarn_context* logContext() {
    return logState().context.load();
}

void setPluginName(const char16_t* name) {
    LogState& state = logState();
    std::lock_guard<std::mutex> lock(state.nameMutex);
    state.pluginName = name != nullptr ? name : u"";
}

const std::u16string& pluginName() {
    return logState().pluginName;
}

void releaseTraceState() {
    depthRegistryObject.release();
    logStateObject.release();
}

void writeLog(std::uint32_t level, const char16_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLogV(level, format, arguments);
    va_end(arguments);
}

void writeLogV(std::uint32_t level, const char16_t* format, va_list arguments) {
    const os::DWORD savedError = os::GetLastError();
    char16_t* message = formatMessage(format, arguments);
    if (message == nullptr) {
        return;
    }
    try {
        std::u16string line = pluginNameCopy();
        line += u":";
        line += timeStamp();
        line += u" ";
        line += message;
        if (line.empty() || line.back() != u'\n') {
            line += u'\n';
        }
        tarn_context* context = logContext();
        if (context != nullptr && context->msg_callback != nullptr) {
            context->msg_callback(context, line.c_str(), nullptr, level);
        }
    } catch (...) {
        // A line that cannot be built is dropped; logging never fails its caller.
    }
    delete[] message;
    os::SetLastError(savedError);
}

tarp_TraceMethod::tarp_TraceMethod(const char16_t* file, const char16_t* function,
                                   std::uint32_t line, const void* context)
    : file_(file), function_(function), line_(line), context_(context) {
    incThreadIndent();
    writeLog(kLogTrace, u"%s%s[%d, %s]", u"Entering Function ", function_, static_cast<int>(line_),
             file_);
}

tarp_TraceMethod::~tarp_TraceMethod() {
    writeLog(kLogTrace, u"%s%s[%d, %s]", u"Exiting Function ", function_, static_cast<int>(line_),
             file_);
    decThreadIndent();
}

void tarp_TraceMethod::traceFormat(const char16_t* format, ...) {
    try {
        char16_t text[kTraceFormatCapacity];
        va_list arguments;
        va_start(arguments, format);
        boundedFormatWide(text, kTraceFormatCapacity, format, arguments);
        va_end(arguments);
        boundedAppend(text, u"\n", kLineFeedLimit);
        trace(u"%s", text);
    } catch (...) {
        os::OutputDebugStringW(u"TraceMethod::traceFormat() generated an exception.");
    }
}

void tarp_TraceMethod::trace(const char16_t* format, ...) {
    try {
        char16_t text[kTraceCapacity];
        va_list arguments;
        va_start(arguments, format);
        boundedFormatWide(text, kTraceCapacity, format, arguments);
        va_end(arguments);
        writeLog(kLogTrace, u"%s", text);
    } catch (...) {
        os::OutputDebugStringW(u"tarp_TraceMethod::trace() generated an exception.");
    }
}

std::uint32_t tarp_TraceMethod::currentThreadDepth() {
    DepthRegistry& registry = depthRegistry();
    const std::uint32_t key = os::CoGetCurrentProcess();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const DepthEntry* entry = findEntry(registry, key);
    return entry != nullptr ? entry->depth : 0;
}

void tarp_TraceMethod::incThreadIndent() {
    DepthRegistry& registry = depthRegistry();
    const std::uint32_t key = os::CoGetCurrentProcess();
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        DepthEntry* entry = findEntry(registry, key);
        if (entry != nullptr) {
            depth_ = entry->depth;
            if (entry->depth >= kMaxTraceDepth) {
                counted_ = false;
                return;
            }
            ++entry->depth;
            counted_ = true;
            return;
        }
        entry = new (std::nothrow) DepthEntry{key, 1, nullptr};
        if (entry != nullptr) {
            if (registry.last != nullptr) {
                registry.last->next = entry;
            } else {
                registry.first = entry;
            }
            registry.last = entry;
            depth_ = 0;
            counted_ = true;
            return;
        }
    }
    throw tarp_Win32Error(os::ERROR_INVALID_DATA, u"providers\\fiprovlib\\TraceMethod", 223,
                          u"tarp_TraceMethod::incThreadIndent");
}

void tarp_TraceMethod::decThreadIndent() {
    if (!counted_) {
        return;
    }
    DepthRegistry& registry = depthRegistry();
    const std::uint32_t key = os::CoGetCurrentProcess();
    std::lock_guard<std::mutex> lock(registry.mutex);
    DepthEntry* entry = findEntry(registry, key);
    if (entry != nullptr && entry->depth > 0) {
        --entry->depth;
    }
}
