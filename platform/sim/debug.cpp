// Debugger output and the English system message table.
//
// OutputDebugStringW keeps every line for tests (sim::debugOutput) and copies
// it to standard error when FIKIV_DEBUG_OUTPUT is set. FormatMessageW answers
// from a table of the system texts of the error codes this product meets,
// and only in the form the product uses (FORMAT_MESSAGE_FROM_SYSTEM with
// FORMAT_MESSAGE_ALLOCATE_BUFFER); other flags fail with
// ERROR_INVALID_PARAMETER.
// Neither changes the caller's last error on success.
#include "os/debug.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/codepage.h"
#include "os/error.h"
#include "sim/errors.h"
#include "sim/hooks.h"

namespace os {
namespace {

constexpr DWORD kErrorResourceLangNotFound = 15100;
constexpr DWORD kLangNeutral = 0;

struct SystemMessage {
    DWORD code;
    const char16_t* text;
};

// The texts as Windows gives them in English (United States).
constexpr SystemMessage kSystemMessages[] = {
    {ERROR_SUCCESS, u"The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, u"Incorrect function."},
    {ERROR_FILE_NOT_FOUND, u"The system cannot find the file specified."},
    {ERROR_PATH_NOT_FOUND, u"The system cannot find the path specified."},
    {ERROR_ACCESS_DENIED, u"Access is denied."},
    {ERROR_INVALID_HANDLE, u"The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY,
     u"Not enough memory resources are available to process this command."},
    {ERROR_INVALID_DATA, u"The data is invalid."},
    {ERROR_NO_MORE_FILES, u"There are no more files."},
    {ERROR_NOT_READY, u"The device is not ready."},
    {ERROR_NOT_SUPPORTED, u"The request is not supported."},
    {ERROR_FILE_EXISTS, u"The file exists."},
    {ERROR_INVALID_PARAMETER, u"The parameter is incorrect."},
    {ERROR_BROKEN_PIPE, u"The pipe has been ended."},
    {ERROR_SEM_TIMEOUT, u"The semaphore timeout period has expired."},
    {ERROR_INSUFFICIENT_BUFFER, u"The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, u"The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_MOD_NOT_FOUND, u"The specified module could not be found."},
    {ERROR_PROC_NOT_FOUND, u"The specified procedure could not be found."},
    {ERROR_ALREADY_EXISTS, u"Cannot create a file when that file already exists."},
    {ERROR_FILENAME_EXCED_RANGE, u"The filename or extension is too long."},
    {ERROR_BAD_PIPE, u"The pipe state is invalid."},
    {ERROR_PIPE_BUSY, u"All pipe instances are busy."},
    {ERROR_NO_DATA, u"The pipe is being closed."},
    {ERROR_PIPE_NOT_CONNECTED, u"No process is on the other end of the pipe."},
    {ERROR_MORE_DATA, u"More data is available."},
    {258, u"The wait operation timed out."},
    {ERROR_NOT_OWNER, u"Attempt to release mutex not owned by caller."},
    {ERROR_MR_MID_NOT_FOUND,
     u"The system cannot find message text for message number 0x%1 in the message file for %2."},
    {ERROR_PIPE_CONNECTED, u"There is a process on other end of the pipe."},
    {ERROR_INVALID_FLAGS, u"Invalid flags."},
    {ERROR_UNRECOGNIZED_VOLUME,
     u"The volume does not contain a recognized file system.\r\n"
     u"Please make sure that all required file system drivers are loaded and that the volume is "
     u"not corrupted."},
    {ERROR_NO_UNICODE_TRANSLATION,
     u"No mapping for the Unicode character exists in the target multi-byte code page."},
    {ERROR_NOT_ALL_ASSIGNED,
     u"Not all privileges or groups referenced are assigned to the caller."},
    {ERROR_NO_SUCH_PRIVILEGE, u"A specified privilege does not exist."},
    {ERROR_PRIVILEGE_NOT_HELD, u"A required privilege is not held by the client."},
    {ERROR_NOT_A_REPARSE_POINT, u"The file or directory is not a reparse point."},
};

const char16_t* findSystemMessage(DWORD code) {
    for (const SystemMessage& message : kSystemMessages) {
        if (message.code == code) {
            return message.text;
        }
    }
    return nullptr;
}

bool hasInserts(const char16_t* text) {
    for (; *text != 0; ++text) {
        if (text[0] == u'%' && text[1] >= u'1' && text[1] <= u'9') {
            return true;
        }
    }
    return false;
}

// UTF-8 of a debug line; the conversion must not disturb the last error.
std::string narrowLine(LPCWSTR text) {
    DWORD saved = GetLastError();
    std::string line;
    int needed = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (needed > 0) {
        line.resize(static_cast<std::size_t>(needed));
        WideCharToMultiByte(CP_UTF8, 0, text, -1, line.data(), needed, nullptr, nullptr);
        line.resize(static_cast<std::size_t>(needed - 1));
    }
    SetLastError(saved);
    return line;
}

}  // namespace

void OutputDebugStringW(LPCWSTR outputString) {
    if (outputString == nullptr) {
        return;
    }
    std::string line = narrowLine(outputString);
    if (std::getenv("FIKIV_DEBUG_OUTPUT") != nullptr) {
        std::fprintf(stderr, "%s%s", line.c_str(), line.empty() || line.back() != '\n' ? "\n" : "");
    }
    sim::recordDebugOutput(std::move(line));
}

DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer,
                     DWORD size, void* arguments) {
    (void)source;
    (void)size;
    constexpr DWORD kSupported =
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS;
    // Only the low byte may carry a line width, which this table never needs.
    if ((flags & ~(kSupported | 0xFF)) != 0 || (flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0 ||
        (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) == 0 || buffer == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, DWORD{0});
    }
    if (languageId != kLangNeutral && languageId != LANG_ENGLISH_US) {
        return sim::fail(kErrorResourceLangNotFound, DWORD{0});
    }
    const char16_t* text = findSystemMessage(messageId);
    if (text == nullptr) {
        return sim::fail(ERROR_MR_MID_NOT_FOUND, DWORD{0});
    }
    if ((flags & FORMAT_MESSAGE_IGNORE_INSERTS) == 0 && hasInserts(text) && arguments == nullptr) {
        return sim::fail(ERROR_INVALID_PARAMETER, DWORD{0});
    }
    std::u16string message = std::u16string(text) + u"\r\n";
    auto* copy = static_cast<char16_t*>(std::malloc((message.size() + 1) * sizeof(char16_t)));
    if (copy == nullptr) {
        return sim::fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
    std::memcpy(copy, message.c_str(), (message.size() + 1) * sizeof(char16_t));
    *reinterpret_cast<LPWSTR*>(buffer) = copy;
    return static_cast<DWORD>(message.size());
}

HLOCAL LocalFree(HLOCAL memory) {
    std::free(memory);
    return nullptr;
}

}  // namespace os
