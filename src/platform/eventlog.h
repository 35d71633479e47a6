// The system's event log. On Linux: events.log in the instance's directory, one line a record
// (time, source, type, event id, user, text), and syslog where there is one.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
using PSID = void*;
inline constexpr WORD EVENTLOG_ERROR_TYPE = 1;
inline constexpr WORD EVENTLOG_WARNING_TYPE = 2;
inline constexpr WORD EVENTLOG_INFORMATION_TYPE = 4;

// Null if there is no place for records. Any thread; the handle belongs to the caller.
HANDLE RegisterEventSourceA(LPCSTR server, LPCSTR source);
// One record; the texts are joined by blanks. user may be null. FALSE if it could not be written.
BOOL ReportEventA(HANDLE source, WORD type, WORD category, DWORD eventId, PSID user, WORD count,
                  DWORD dataSize, LPCSTR* texts, LPVOID data);
BOOL DeregisterEventSource(HANDLE source);
#endif
