// The always-on trace log: one plain text file, emptied at the first entry
// of each load of the library and appended to entry by entry.
#pragma once

#include <string>

#include "platform/sync.h"

// The log file's path; empty until the first logWrite of the process.
extern std::string g_logPath;

// Held around the whole of every log write. The innermost lock of the
// library: a writer takes no other lock and calls nothing that traces.
extern platform::ExclusiveLock g_logLock;

// Appends one entry: "dd-mm-YYYY HH:MM:SS  [tick phase]\t" and the text.
// Adds no line end. Never reports a failure: an unwritable log loses the
// entry and the caller goes on.
void logWrite(const char* text);
inline void logWrite(const std::string& text) { logWrite(text.c_str()); }

// Appends one entry of wide text: "dd-mm-YYYY HH:MM:SS\t" and the text.
void logWriteWide(const wchar_t* text);
inline void logWriteWide(const std::wstring& text) { logWriteWide(text.c_str()); }
