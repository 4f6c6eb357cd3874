#include "diag/trace_log.h"

#include "diag/text.h"
#include "platform/clock.h"
#include "platform/global_order.h"
#include "platform/log_folder.h"

#include <exception>
#include <fstream>
#include <mutex>

CONSTRUCTED_BEFORE_STARTUP(204) std::string g_logPath;
CONSTRUCTED_BEFORE_STARTUP(204) platform::ExclusiveLock g_logLock;

// Both writers open the file in text mode, so that on Windows every "\n"
// reaches the disk as CR LF. The run-time library's plain open shares the
// file with every other opener (deny-none), so another process or an
// editor can read the log while the library writes it.

void logWrite(const char* text)
{
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);

    uint32_t tick = platform::tickCount();
    int32_t phase = static_cast<int32_t>(tick - tick / 1000 * 1000);

    char stamp[80];
    if (platform::formatLocalTime(stamp, sizeof stamp, "%d-%m-%Y %H:%M:%S ", platform::calendarSeconds()) == 0)
        stamp[0] = '\0';

    try {
        std::string tickField = " [" + decimalText(phase) + "]\t";
        if (g_logPath.empty()) {
            g_logPath = platform::logFilePath();
            std::ofstream truncate(g_logPath, std::ios::out | std::ios::trunc);
        }
        std::ofstream file(g_logPath, std::ios::out | std::ios::app);
        file << stamp << tickField << (text ? text : "");
    } catch (const std::exception&) {
        // Memory ran out while the entry was put together: the entry is
        // lost, the caller never learns of it.
    }
}

// The file stays single-byte text: a wide character outside 7-bit ASCII,
// which has no form in every narrow code page, is written as '?' rather
// than letting the stream fail and lose the rest of the entry.
void logWriteWide(const wchar_t* text)
{
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);

    char stamp[80];
    if (platform::formatLocalTime(stamp, sizeof stamp, "%d-%m-%Y %H:%M:%S\t", platform::calendarSeconds()) == 0)
        stamp[0] = '\0';

    try {
        std::wstring line;
        for (const char* c = stamp; *c; ++c) line += static_cast<wchar_t>(static_cast<unsigned char>(*c));
        for (const wchar_t* c = text ? text : L""; *c; ++c)
            line += (static_cast<uint32_t>(*c) < 0x80) ? *c : L'?';
        std::wofstream file(g_logPath, std::ios::out | std::ios::app);
        file << line;
    } catch (const std::exception&) {
    }
}
