// Status change: tells a host what is in its readers and lets it wait for a
// card to arrive or leave. The call never talks to a rack. Each rack's
// status thread keeps the card state and the ATR of its readers, and the
// call reads those against what the host says it knows, again each time a
// card event wakes it.
//
// SCARD_STATE_CHANGED marks only the records whose state differs from what
// the host knows, and the high 16 bits carry each reader's count of card
// events, as pcsc-lite and Windows report them.
//
// Besides the readers, a record may name the plug-and-play pseudo-reader
// "\\?PnP?\Notification", through which clients learn that readers came
// or went. A wait ends early when SCardCancel is called with its context.
#include <cstring>
#include <string>
#include <vector>

#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/connection_table.h"
#include "pcsc/lookups.h"
#include "pcsc/registry.h"
#include "pcsc/wait_cancel.h"
#include "pcsc/winscard_api.h"
#include "platform/clock.h"
#include "reader/atr.h"
#include "reader/reader.h"

namespace {

// The flags a record's state is compared by: what the host says it knows
// against what the call finds. CHANGED is the answer, not part of it.
constexpr uint32_t kInfiniteRecheckMs = 60000;

constexpr DWORD kComparedFlags = SCARD_STATE_EMPTY | SCARD_STATE_PRESENT | SCARD_STATE_MUTE | SCARD_STATE_INUSE |
                                 SCARD_STATE_EXCLUSIVE;
// Compared as well while the reader is unavailable. A reader that is there
// differs from a host's "unavailable" in its card flags already.
constexpr DWORD kGoneFlags = SCARD_STATE_UNAVAILABLE | SCARD_STATE_UNKNOWN;

// The pseudo-reader's name, which clients write in any case.
constexpr char kPnpName[] = "\\\\?PnP?\\Notification";

template <typename Char>
bool isPnpName(const Char* name)
{
    return sameIgnoringCase(name, std::char_traits<Char>::length(name), kPnpName);
}

// The readers a listing would name: every available reader of every rack.
// It changes when a rack is lost or comes back, when a new rack is added
// and when a slot leaves or joins a rack's slot map.
DWORD readerCount()
{
    DWORD count = 0;
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) {
        const GrowingList<Reader*>& readers = g_racks[i]->readers();
        for (size_t r = 0, m = readers.size(); r < m; ++r)
            if (readers[r]->available()) ++count;
    }
    return count;
}

// The pseudo-reader's record: the number of readers in the high 16 bits,
// and a change when it differs from the number the host gave, or, from a
// host that gave none (0), from the number when the call began, as
// pcsc-lite compares it: such a host is not woken at once, since there is
// no reader event to report, but is woken when a rack goes or comes back
// during its wait. It names no reader, so it never has an ATR.
template <typename Record>
bool refreshPnpRecord(Record& record, DWORD countAtStart)
{
    const DWORD count = readerCount();
    const DWORD given = record.dwCurrentState >> 16;
    const DWORD known = given != 0 ? given : countAtStart;
    const bool changed = known != count;
    record.dwEventState = (count << 16) | (changed ? SCARD_STATE_CHANGED : 0);
    record.cbAtr = 0;
    return changed;
}

// What differs between the narrow and the wide form: the record type and
// the traces.
template <typename Record>
struct StatusChangeForm;

template <>
struct StatusChangeForm<SCARD_READERSTATEA> {
    static constexpr const char* entry = "SCardGetStatusChangeA\n";
    static constexpr bool tracesNames = true;

    static void traceName(std::vector<std::string>& trace, const char* name) { trace.push_back(std::string(name) + "\n"); }
};

template <>
struct StatusChangeForm<SCARD_READERSTATEW> {
    static constexpr const char* entry = "SCardGetStatusChangeW\n";
    static constexpr bool tracesNames = false;

    static void traceName(std::vector<std::string>&, const wchar_t*) {}
};

// The state flags of a reader as this process sees it: the card, and the
// connections to it.
DWORD readerFlags(const Reader& reader, uint32_t cardState)
{
    // A reader that is unavailable is also gone from the listing, and is
    // reported as pcsc-lite reports a reader that was removed.
    if (!reader.available()) return kGoneFlags;
    DWORD flags = 0;
    if (cardState == kStateNoCard) {
        flags = SCARD_STATE_EMPTY;
    } else {
        flags = SCARD_STATE_PRESENT;
        if (cardState == kStateMuteCard) flags |= SCARD_STATE_MUTE;
    }
    switch (connection_table::useOf(&reader)) {
    case connection_table::ReaderUse::none: break;
    case connection_table::ReaderUse::shared: flags |= SCARD_STATE_INUSE; break;
    case connection_table::ReaderUse::exclusive: flags |= SCARD_STATE_EXCLUSIVE; break;
    }
    return flags;
}

// Fills one record from its reader's present state. Returns true if the
// state differs from what the host said it knows (dwCurrentState), and only
// then marks the record SCARD_STATE_CHANGED. The high 16 bits carry the
// reader's count of card events; a host that gives a count of its own sees
// a change when the count moved, so a card swapped between two calls is not
// missed. A host that knows nothing (SCARD_STATE_UNAWARE) always sees one.
// `reader` is the record's reader, found by its name at the start of the
// call (null for the plug-and-play pseudo-reader): readers live as long as
// the library, so the name need not be looked up again at every pass.
template <typename Record>
bool refreshRecord(Record& record, const Reader* reader, DWORD countAtStart)
{
    if (reader == nullptr) return refreshPnpRecord(record, countAtStart);

    // The count and the state are read first and the ATR after them. The
    // ATR comes out as one whole value, never the bytes of one card with
    // the length of another, even while the status thread stores a new one.
    const uint32_t events = reader->eventCount() & 0xFFFF;
    const uint32_t state = reader->cardState();
    if (state == kStateCard) {
        const Atr atr = reader->atrValue();
        std::memcpy(record.rgbAtr, atr.bytes, atr.length);
        record.cbAtr = atr.length;
    } else {
        record.cbAtr = 0;
    }

    const DWORD flags = readerFlags(*reader, state);
    const DWORD known = record.dwCurrentState;
    const DWORD knownEvents = (known >> 16) & 0xFFFF;
    const DWORD compared = kComparedFlags | ((flags & kGoneFlags) != 0 ? kGoneFlags : 0);
    bool changed = known == SCARD_STATE_UNAWARE || (flags & compared) != (known & compared);
    if (knownEvents != 0 && knownEvents != events) changed = true;
    record.dwEventState = (static_cast<DWORD>(events) << 16) | flags | (changed ? SCARD_STATE_CHANGED : 0);
    return changed;
}

template <typename Record>
LONG getStatusChange(SCARDCONTEXT context, DWORD dwTimeout, Record* records, DWORD count)
{
    using Form = StatusChangeForm<Record>;
    // Registered before the entry trace, so that a cancel made once the
    // trace is in the log always reaches this call.
    CancellableWait wait(context);
    logWrite(Form::entry);
    if (!connection_table::isLiveContext(context)) return SCARD_E_INVALID_HANDLE;
    if (records == nullptr && count > 0) return SCARD_E_INVALID_PARAMETER;
    if (count == 0) return SCARD_S_SUCCESS;

    DWORD watched = 0;
    for (DWORD i = 0; i < count; ++i)
        if ((records[i].dwCurrentState & SCARD_STATE_IGNORE) == 0) ++watched;
    if (watched == 0) return SCARD_S_SUCCESS;

    // Every name must belong to a reader, the ignored records' too. A null
    // name is refused rather than read. The names go to the log as one
    // entry each, all in one write: a farm's thousands of records would
    // otherwise cost a write each, at every call.
    std::vector<const Reader*> readers(count, nullptr);
    std::vector<std::string> namesTrace;
    if (Form::tracesNames) namesTrace.reserve(count);
    for (DWORD i = 0; i < count; ++i) {
        if (records[i].szReader == nullptr) {
            logWriteAll(namesTrace);
            return SCARD_E_INVALID_PARAMETER;
        }
        Form::traceName(namesTrace, records[i].szReader);
        if (isPnpName(records[i].szReader)) continue;
        readers[i] = findReaderByName(records[i].szReader).reader;
        if (readers[i] == nullptr) {
            if (Form::tracesNames) namesTrace.push_back("Reader doesn't exist");
            logWriteAll(namesTrace);
            return SCARD_E_UNKNOWN_READER;
        }
    }
    logWriteAll(namesTrace);

    for (DWORD i = 0; i < count; ++i) records[i].dwEventState = 0;

    // Milliseconds of the tick counter, taken as an unsigned difference so
    // that the wait also ends across the counter's wrap. Between passes the
    // thread sleeps on the card events, which a change of card state, a new
    // reader, a rack reset and a cancel all wake; without a wake it sleeps
    // to the end of its limit. The generation is taken before the pass, so
    // a change made during the pass ends the sleep at once.
    // INFINITE waits until a change, a cancel or the release of the
    // context (which cancels). Where DWORD is wider than 32 bits
    // (pcsc-lite's ABI on 64-bit Linux), a time-out past the 32-bit range
    // cannot be counted on the tick counter; it is taken as INFINITE, as
    // (DWORD)-1 from such a client means, rather than cut to whatever its
    // low bits say.
    const bool infinite = dwTimeout == INFINITE || dwTimeout > 0xFFFFFFFFu;
    const uint32_t limitMs = infinite ? 0 : static_cast<uint32_t>(dwTimeout);
    const uint32_t start = platform::tickCount();
    const DWORD countAtStart = readerCount();
    platform::Signal& events = cardEvents();
    for (;;) {
        const uint32_t seen = events.generation();
        if (wait.cancelled()) {
            logWrite("Wait cancelled\n");
            return SCARD_E_CANCELLED;
        }
        // A pass always runs to the last record, so that every record is
        // fresh when the call returns.
        bool changed = false;
        for (DWORD i = 0; i < count; ++i) {
            if ((records[i].dwCurrentState & SCARD_STATE_IGNORE) != 0) continue;
            if (refreshRecord(records[i], readers[i], countAtStart)) changed = true;
        }
        if (changed) return SCARD_S_SUCCESS;
        if (infinite) {
            // The limit only bounds a wait whose wake-up went astray.
            events.wait(seen, kInfiniteRecheckMs);
            continue;
        }
        const uint32_t elapsedMs = platform::tickCount() - start;
        if (elapsedMs >= limitMs) return SCARD_E_TIMEOUT;
        events.wait(seen, limitMs - elapsedMs);
    }
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardGetStatusChangeA(SCARDCONTEXT hContext, DWORD dwTimeout,
                                                           LPSCARD_READERSTATEA rgReaderStates, DWORD cReaders)
{
    return getStatusChange(hContext, dwTimeout, rgReaderStates, cReaders);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardGetStatusChangeW(SCARDCONTEXT hContext, DWORD dwTimeout,
                                                           LPSCARD_READERSTATEW rgReaderStates, DWORD cReaders)
{
    return getStatusChange(hContext, dwTimeout, rgReaderStates, cReaders);
}
