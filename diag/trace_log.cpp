#include "diag/trace_log.h"

#include "diag/text.h"
#include "diag/trace_settings.h"
#include "platform/clock.h"
#include "platform/global_order.h"
#include "platform/log_file.h"
#include "platform/log_folder.h"
#include "platform/process_fork.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <mutex>

CONSTRUCTED_BEFORE_STARTUP(204) std::string g_logPath;
CONSTRUCTED_BEFORE_STARTUP(204) platform::ExclusiveLock g_logLock;

namespace {

// The open log of this load, all of it under g_logLock.
struct OpenLog {
    platform::LogFile file;
    TraceSettings settings;
    uint64_t size = 0;
    // The size past which the next entry moves the log aside: the limit,
    // or a little more while the move keeps failing.
    uint64_t rotateAt = 0;
    // The load's first entry, the banner, as it went to the disk: every
    // log that a rotation starts opens with it again.
    std::string banner;
    bool bannerTaken = false;
    // The date and time part of the stamps, formatted once a second: the
    // local time conversion is by far the dearest part of an entry (under
    // Wine it asks for the time zone each time), and a busy rack writes
    // hundreds of entries a second. One text per kind of stamp.
    int64_t stampSecond[2] = {-1, -1};
    std::string stampText[2];
    // The log's own place could not be used and neither could this
    // process's file beside it: no log for this load.
    bool none = false;
};

CONSTRUCTED_BEFORE_STARTUP(204) OpenLog g_open;

// Room for either stamp; the formats give 22 characters and a tick field
// of at most 8.
constexpr size_t kStampRoom = 40;

enum class Stamp { narrow, wide };

// Called under g_logLock, which also guards the stamp texts.
void appendStamp(std::string& line, Stamp kind)
{
    const int64_t second = platform::calendarSeconds();
    const int which = kind == Stamp::narrow ? 0 : 1;
    if (g_open.stampSecond[which] != second) {
        char stamp[80];
        const char* format = kind == Stamp::narrow ? "%d-%m-%Y %H:%M:%S " : "%d-%m-%Y %H:%M:%S\t";
        if (platform::formatLocalTime(stamp, sizeof stamp, format, second) == 0) stamp[0] = '\0';
        g_open.stampText[which] = stamp;
        g_open.stampSecond[which] = second;
    }
    line += g_open.stampText[which];
    if (kind == Stamp::wide) return;
    uint32_t tick = platform::tickCount();
    int32_t phase = static_cast<int32_t>(tick - tick / 1000 * 1000);
    line += " [";
    line += decimalText(phase);
    line += "]\t";
}

// The stamped lines of `count` entries, one after the other.
std::string stampedLines(const std::string* bodies, size_t count, Stamp kind)
{
    size_t room = 0;
    for (size_t i = 0; i < count; ++i) room += kStampRoom + bodies[i].size();
    std::string lines;
    lines.reserve(room);
    for (size_t i = 0; i < count; ++i) {
        appendStamp(lines, kind);
        lines += bodies[i];
    }
    return lines;
}

// Writes one stamped entry and counts it. The file is not reopened here: a
// log whose open failed waits for the next entry's own try.
void writeStamped(const std::string& body, Stamp kind)
{
    const std::string line = stampedLines(&body, 1, kind);
    if (g_open.file.append(line.data(), line.size())) g_open.size += line.size();
}

// Standard error learns once per load why the log is not where it should be.
void sayOnStandardError(const std::string& text)
{
    std::fprintf(stderr, "Tessel winscard: %s\n", text.c_str());
    std::fflush(stderr);
}

// Opens the log at g_logPath, with the file's checks. When something is at
// that path that the log must not be written to (a link, a FIFO, another
// user's file), or another running process writes the log there, this
// process writes its own log beside it, with its process id in the name,
// and never touches the other. If that file fails the checks too, there is
// no log for this load. Both are said on standard error. A plain failure
// (no folder yet) is tried again at the next entry.
bool openLogFile(bool empty)
{
    if (g_open.none) return false;
    platform::LogOpenResult result = g_open.file.open(g_logPath, empty);
    if (result.outcome == platform::LogOpenOutcome::opened) return true;
    if (result.outcome == platform::LogOpenOutcome::failed) return false;

    const std::string refused = g_logPath;
    const std::string own = platform::logPathForThisProcess(platform::logFilePath());
    std::string why = "the trace log " + refused + " is not used (" + result.reason + ")";
    if (refused != own) {
        platform::LogOpenResult second = g_open.file.open(own, true);
        if (second.outcome != platform::LogOpenOutcome::refused &&
            second.outcome != platform::LogOpenOutcome::inUse) {
            g_logPath = own;
            sayOnStandardError(why + "; this process writes its log to " + own);
            return second.outcome == platform::LogOpenOutcome::opened;
        }
        why += " and neither is " + own + " (" + second.reason + ")";
    }
    g_open.none = true;
    sayOnStandardError(why + "; this process writes no trace log");
    return false;
}

// A new load's log: the file is emptied (or, with the trace off, never
// made) and the settings are read. Tests start the log afresh by emptying
// g_logPath, which also makes them read the settings again.
void startLog()
{
    g_logPath = platform::logFilePath();
    g_open.settings = readTraceSettings();
    g_open.size = 0;
    g_open.rotateAt = g_open.settings.limitBytes;
    g_open.banner.clear();
    g_open.bannerTaken = false;
    // A new load formats its stamps afresh, under the time zone it finds.
    g_open.stampSecond[0] = g_open.stampSecond[1] = -1;
    g_open.none = false;
    forgetTracedPins();
    setTraceMode(g_open.settings.mode);
    g_open.file.close();
    if (g_open.settings.mode == TraceMode::off) return;
    openLogFile(true);
    for (const std::string& refusal : g_open.settings.refusals)
        writeStamped(platform::textForLogFile(refusal.c_str()), Stamp::narrow);
}

// Moves the full log to "<log>.1", replacing the older one, and starts a
// new one with the banner and a line that says where the older part is. It
// runs under the lock, so no entry is lost or split between the two files;
// its cost, one close, one rename and one open, falls on one entry in many
// thousands.
//
// The move fails while another program holds either file without sharing
// it for deletion (a viewer that follows the log, say). The log then goes
// on growing and the move is tried again after each further sixteenth of
// the limit; only at twice the limit, the most the two files would hold
// together, is the log emptied and its older entries given up, so that the
// disk never fills.
void rotateLog(uint64_t comingBytes)
{
    const uint64_t limit = g_open.settings.limitBytes;
    std::string older = g_logPath + ".1";
    g_open.file.close();
    bool moved = platform::replaceFile(g_logPath, older);
    if (!moved && g_open.size + comingBytes <= 2 * limit) {
        g_open.rotateAt = std::min(g_open.size + limit / 16, 2 * limit);
        openLogFile(false);
        return;
    }
    g_open.size = 0;
    g_open.rotateAt = limit;
    // The new file gets the same checks as the first; a refused one makes
    // way for this process's own file.
    if (!openLogFile(true)) return;
    writeStamped(g_open.banner, Stamp::narrow);
    std::string note = "Log rotated at " + decimalText(static_cast<uint32_t>(limit >> 10)) + " KiB; " +
                       (moved ? "the older entries are in " + older
                              : "the older entries are lost, " + older + " could not be replaced") +
                       "\n";
    writeStamped(platform::textForLogFile(note.c_str()), Stamp::narrow);
}

// Writes entries into the started log, all in one write. Under g_logLock.
void appendStarted(const std::string* bodies, size_t count, Stamp kind)
{
    if (count == 0) return;
    if (!g_open.bannerTaken) {
        g_open.banner = bodies[0];
        g_open.bannerTaken = true;
    }
    // A log whose open failed is tried again at every entry, without
    // emptying it; its size is then what the file holds.
    if (!g_open.file.isOpen()) {
        if (!openLogFile(false)) return;
        g_open.size = g_open.file.sizeAtOpen();
    }

    std::string lines = stampedLines(bodies, count, kind);
    if (g_open.settings.limitBytes != 0 && g_open.size > 0 && g_open.size + lines.size() > g_open.rotateAt) {
        rotateLog(lines.size());
        // Stamped again, so that they do not come out older than the
        // banner and the rotation line in front of them.
        lines = stampedLines(bodies, count, kind);
    }
    if (g_open.file.append(lines.data(), lines.size())) g_open.size += lines.size();
}

// The banner of the load in progress, until it is written.
std::atomic<const char*> g_pendingBanner{nullptr};

// Appends entries whose text is already in its disk form (none with
// `bannerOnly`), after the load's banner if that is still to be written.
// Only the stamps, the rotation test and the write happen under the lock.
void appendEntries(const std::string* bodies, size_t count, Stamp kind, bool mayStartLog, bool bannerOnly = false)
{
    // A forked child writes entries too (its calls with the parent's values
    // are refused, and say so). The first entry of a load, the banner,
    // comes before any other lock of the library is taken.
    static const bool heldAcrossFork =
        (platform::holdAcrossFork(g_logLock, platform::ForkLockRank::traceLog), true);
    (void)heldAcrossFork;
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
    if (g_logPath.empty()) {
        if (!mayStartLog && g_pendingBanner.load(std::memory_order_acquire) == nullptr) return;
        startLog();
    }
    const char* banner = g_pendingBanner.exchange(nullptr, std::memory_order_acq_rel);
    if (g_open.settings.mode == TraceMode::off) return;
    if (banner != nullptr) {
        const std::string bannerText = platform::textForLogFile(banner);
        appendStarted(&bannerText, 1, Stamp::narrow);
    }
    if (!bannerOnly) appendStarted(bodies, count, kind);
}

void appendEntry(const std::string& body, Stamp kind, bool mayStartLog, bool bannerOnly = false)
{
    appendEntries(&body, 1, kind, mayStartLog, bannerOnly);
}

}  // namespace


void setLoadBanner(const char* banner) { g_pendingBanner.store(banner, std::memory_order_release); }

void startLoadLog()
{
    if (g_pendingBanner.load(std::memory_order_acquire) == nullptr) return;
    try {
        appendEntry(std::string(), Stamp::narrow, true, true);
    } catch (const std::exception&) {
    }
}

void logWrite(const char* text)
{
    try {
        appendEntry(platform::textForLogFile(text), Stamp::narrow, true);
    } catch (const std::exception&) {
        // Memory ran out while the entry was put together: the entry is
        // lost, the caller never learns of it.
    }
}

void logWriteAll(const std::vector<std::string>& texts)
{
    if (texts.empty()) return;
    try {
        std::vector<std::string> bodies;
        bodies.reserve(texts.size());
        for (const std::string& text : texts) bodies.push_back(platform::textForLogFile(text.c_str()));
        appendEntries(bodies.data(), bodies.size(), Stamp::narrow, true);
    } catch (const std::exception&) {
    }
}

// The file stays single-byte text: a wide character outside 7-bit ASCII,
// which has no form in every narrow code page, is written as '?'. A wide
// entry never starts the log: the banner, a narrow entry, always comes first.
void logWriteWide(const wchar_t* text)
{
    try {
        std::string narrow;
        for (const wchar_t* c = text ? text : L""; *c; ++c)
            narrow += (static_cast<uint32_t>(*c) < 0x80) ? static_cast<char>(*c) : '?';
        appendEntry(platform::textForLogFile(narrow.c_str()), Stamp::wide, false);
    } catch (const std::exception&) {
    }
}
