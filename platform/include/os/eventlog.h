// Reporting events to the machine's event log.
#ifndef PLATFORM_INCLUDE_OS_EVENTLOG_H_
#define PLATFORM_INCLUDE_OS_EVENTLOG_H_

#include "os/types.h"

namespace os {

constexpr WORD EVENTLOG_SUCCESS = 0x0000;
constexpr WORD EVENTLOG_ERROR_TYPE = 0x0001;
constexpr WORD EVENTLOG_WARNING_TYPE = 0x0002;
constexpr WORD EVENTLOG_INFORMATION_TYPE = 0x0004;

using PSID = void*;

// Handle for reporting events under `sourceName`; `serverName` must be null
// (local machine). NULL with ERROR_INVALID_PARAMETER for an empty source name.
HANDLE RegisterEventSourceW(LPCWSTR serverName, LPCWSTR sourceName);
// Appends one record. FALSE with ERROR_INVALID_HANDLE for a handle not made by
// RegisterEventSourceW.
BOOL ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, PSID userSid,
                  WORD numStrings, DWORD dataSize, LPCWSTR* strings, LPVOID rawData);
// Closes a handle from RegisterEventSourceW; FALSE with ERROR_INVALID_HANDLE
// for any other handle.
BOOL DeregisterEventSource(HANDLE eventLog);

}  // namespace os

#endif  // PLATFORM_INCLUDE_OS_EVENTLOG_H_
