// The trace log: one plain text file, emptied at the first entry of each
// load of the library and appended to entry by entry. TESSEL_TRACE turns
// it to redact or off, and TESSEL_TRACE_LIMIT bounds its size: a full log
// moves aside to "<log>.1" and a new one starts (diag/trace_settings.h).
#pragma once

#include <string>
#include <vector>

#include "diag/trace_settings.h"
#include "diag/traced_bytes.h"  // for the traces that show data bytes
#include "platform/sync.h"

// The log file's path; empty until the first logWrite of the process.
// Emptying it (under g_logLock) makes the next entry start the log afresh,
// as a new load of the library does, settings included.
extern std::string g_logPath;

// Held around the time stamp and the one write of every entry, never while
// an entry is put together. The innermost lock of the library: a writer
// takes no other lock and calls nothing that traces.
extern platform::ExclusiveLock g_logLock;

// Appends one entry: "dd-mm-YYYY HH:MM:SS  [tick phase]\t" and the text.
// Adds no line end. Never reports a failure: an unwritable log loses the
// entry and the caller goes on.
void logWrite(const char* text);
inline void logWrite(const std::string& text) { logWrite(text.c_str()); }

// Appends the entries one after the other, each stamped as logWrite stamps
// it, under one hold of the lock and in one write to the file: a call that
// traces a line per reader of a large farm costs one write, not thousands.
void logWriteAll(const std::vector<std::string>& texts);

// Appends one entry of wide text: "dd-mm-YYYY HH:MM:SS\t" and the text.
void logWriteWide(const wchar_t* text);
inline void logWriteWide(const std::wstring& text) { logWriteWide(text.c_str()); }

// Names the load's first entry, the banner. It only stores the pointer (the
// text must live as long as the process), so the entry function may call
// it under the loader lock; the file is opened later, off that lock. The
// banner goes to the log ahead of whichever entry comes next from any
// thread, or with startLoadLog.
void setLoadBanner(const char* banner);

// Writes the banner set by setLoadBanner now, unless an entry already has
// (the discovery thread's first step).
void startLoadLog();
