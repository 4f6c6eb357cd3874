#include "pcsc/connection_table.h"

#include <unordered_map>

#include "pcsc/card_power.h"
#include "pcsc/host_handle.h"
#include "platform/process_fork.h"
#include "platform/random.h"
#include "platform/signal.h"
#include "platform/sync.h"
#include "reader/reader.h"

namespace connection_table {

namespace {

// A transaction or a power-up that some thread waits for ends with a
// notify; the limit only bounds a wait whose wake-up went astray.
constexpr uint32_t kRecheckMs = 1000;

struct Entry {
    SCARDCONTEXT context = 0;
    Rack* rack = nullptr;
    Reader* reader = nullptr;
    DWORD shareMode = 0;
    DWORD protocol = 0;
    uint32_t cardEvents = 0;
    uint32_t resetsSeen = 0;
    uint32_t epoch = 0;
};

// How the process holds one reader.
struct ReaderHold {
    uint32_t connections = 0;
    bool exclusive = false;
    uint32_t transactionHolder = 0;
    uint32_t transactionDepth = 0;
    // Powered by a selection at event count `poweredAt`, with `protocol`.
    bool powered = false;
    uint32_t poweredAt = 0;
    DWORD protocol = 0;
    // A thread is selecting the protocol; others wait for its answer.
    bool powering = false;
    // Resets made through a handle; a handle that saw fewer was reset.
    uint32_t resets = 0;
};

class Table {
public:
    Table() { platform::holdAcrossFork(lock, platform::ForkLockRank::connectionTable); }

    platform::ExclusiveLock lock;
    std::unordered_map<uint32_t, uint32_t> contexts GUARDED_BY(lock);  // value -> epoch
    std::unordered_map<uint32_t, Entry> connections GUARDED_BY(lock);
    std::unordered_map<const Reader*, ReaderHold> readers GUARDED_BY(lock);
    // Wakes the threads that wait for a transaction or a power-up.
    platform::Signal changed;
};

// Made on first use and never destroyed, so that a host thread still in a
// call while the process ends finds it.
Table& table()
{
    static Table* instance = new Table;
    return *instance;
}

// Sleeps until the table changes (or the recheck limit), without the lock.
// `seen` was read under the lock before the condition was tested.
void waitForChange(Table& t, uint32_t seen) REQUIRES(t.lock)
{
    t.lock.unlock();
    t.changed.wait(seen, kRecheckMs);
    t.lock.lock();
}

// A selection goes to the slot without the table's lock.
bool powerWithoutLock(Table& t, Rack& rack, Reader& reader, DWORD protocol) REQUIRES(t.lock)
{
    t.lock.unlock();
    const bool answered = powerCard(rack, reader, protocol);
    t.lock.lock();
    return answered;
}

// A value no live context or handle has: 31 bits of the system's random
// source (so that it reads positive as a signed 32-bit number in every
// client), never 0. 0 when the source fails.
uint32_t drawValue(Table& t) REQUIRES(t.lock)
{
    for (int attempt = 0; attempt < 64; ++attempt) {
        uint32_t value = 0;
        if (!platform::fillRandom(&value, sizeof value)) return 0;
        value &= 0x7FFFFFFF;
        if (value == 0 || t.contexts.count(value) != 0 || t.connections.count(value) != 0) continue;
        return value;
    }
    return 0;
}

bool liveContext(Table& t, SCARDCONTEXT context) REQUIRES(t.lock)
{
    uint32_t value = 0;
    if (!ownValueFromHost(context, value)) return false;
    auto it = t.contexts.find(value);
    return it != t.contexts.end() && it->second == platform::processEpoch();
}

Entry* liveEntry(Table& t, SCARDHANDLE handle, uint32_t& value) REQUIRES(t.lock)
{
    if (!cardHandleFromHost(handle, value)) return nullptr;
    auto it = t.connections.find(value);
    if (it == t.connections.end() || it->second.epoch != platform::processEpoch()) return nullptr;
    return &it->second;
}

bool poweredNow(const ReaderHold& hold, const Reader& reader)
{
    return hold.powered && hold.poweredAt == reader.eventCount() && reader.atrLength() != 0;
}

LONG warningOf(const Entry& entry, const ReaderHold& hold)
{
    // A direct connection is for the reader, not for a card.
    if (entry.shareMode == SCARD_SHARE_DIRECT) return SCARD_S_SUCCESS;
    if (entry.reader->eventCount() != entry.cardEvents) return SCARD_W_REMOVED_CARD;
    if (hold.resets != entry.resetsSeen) return SCARD_W_RESET_CARD;
    return SCARD_S_SUCCESS;
}

Connection viewOf(const Entry& entry, const ReaderHold& hold)
{
    Connection view;
    view.rack = entry.rack;
    view.reader = entry.reader;
    view.shareMode = entry.shareMode;
    view.protocol = entry.protocol;
    view.cardEvents = entry.cardEvents;
    view.cardWarning = warningOf(entry, hold);
    view.powered = poweredNow(hold, *entry.reader);
    return view;
}

// Whether a card powered with `protocol` suits a caller's mask. A card
// whose ATR names no protocol (0) suits any mask.
bool allows(DWORD preferred, DWORD protocol)
{
    if (protocol == 0) return true;
#ifdef SCARD_PROTOCOL_DEFAULT
    if ((preferred & SCARD_PROTOCOL_DEFAULT) != 0) return true;
#endif
    return (preferred & protocol) != 0;
}

bool sharingAllows(const ReaderHold& hold, DWORD shareMode, uint32_t othersThanSelf)
{
    if (hold.exclusive && othersThanSelf > 0) return false;
    if (shareMode == SCARD_SHARE_EXCLUSIVE && othersThanSelf > 0) return false;
    return true;
}

void changedNow(Table& t)
{
    t.changed.notify();
    // INUSE and EXCLUSIVE in a status change follow the connections.
    cardEvents().notify();
}

// Who asks to bring a card up, for the test that is made again after every
// wait: a connect (a context, no handle yet) or a reconnect (its handle).
struct Asker {
    SCARDCONTEXT context = 0;
    SCARDHANDLE handle = 0;
    bool reconnect = false;
    DWORD shareMode = 0;
};

// Whether the asker may still go on: its context or handle is live and the
// share mode fits the reader's other connections.
LONG stillAllowed(Table& t, Reader& reader, const Asker& asker) REQUIRES(t.lock)
{
    uint32_t others = 0;
    if (asker.reconnect) {
        uint32_t value = 0;
        if (liveEntry(t, asker.handle, value) == nullptr) return SCARD_E_INVALID_HANDLE;
        others = t.readers[&reader].connections - 1;
    } else {
        if (!liveContext(t, asker.context)) return SCARD_E_INVALID_HANDLE;
        others = t.readers[&reader].connections;
    }
    if (!sharingAllows(t.readers[&reader], asker.shareMode, others)) return SCARD_E_SHARING_VIOLATION;
    return SCARD_S_SUCCESS;
}

// Brings the reader's card to a powered state for a connect or a reconnect:
// joins a powered card, waits for a power-up under way, or powers it
// (always when `reset`). On success `active` holds the protocol.
LONG bringUp(Table& t, Rack& rack, Reader& reader, DWORD preferred, bool reset, ProtocolChoice choose,
             const Asker& asker, DWORD& active) REQUIRES(t.lock)
{
    bool mustPower = reset;
    for (;;) {
        const uint32_t seen = t.changed.generation();
        const LONG allowed = stillAllowed(t, reader, asker);
        if (allowed != SCARD_S_SUCCESS) return allowed;
        ReaderHold& hold = t.readers[&reader];
        if (!reader.available()) return SCARD_E_READER_UNAVAILABLE;
        if (reader.atrLength() == 0) return SCARD_E_NO_SMARTCARD;
        if (!mustPower && poweredNow(hold, reader)) {
            if (!allows(preferred, hold.protocol)) return SCARD_E_PROTO_MISMATCH;
            active = hold.protocol;
            return SCARD_S_SUCCESS;
        }
        if (hold.powering) {
            waitForChange(t, seen);
            continue;
        }
        DWORD chosen = 0;
        if (!choose(reader, preferred, chosen)) return SCARD_E_PROTO_MISMATCH;
        hold.powering = true;
        const uint32_t events = reader.eventCount();
        const bool answered = powerWithoutLock(t, rack, reader, chosen);
        ReaderHold& after = t.readers[&reader];
        after.powering = false;
        t.changed.notify();
        if (!answered) {
            after.powered = false;
            return reader.available() ? SCARD_W_UNRESPONSIVE_CARD : SCARD_E_READER_UNAVAILABLE;
        }
        // A card that changed while it was selected is powered afresh.
        if (reader.eventCount() != events) {
            mustPower = true;
            continue;
        }
        mustPower = false;
        after.powered = true;
        after.poweredAt = events;
        after.protocol = chosen;
        active = chosen;
        const LONG still = stillAllowed(t, reader, asker);
        return still;
    }
}

// Drops a connection from the table: its transaction and its share.
void dropEntry(Table& t, uint32_t value) REQUIRES(t.lock)
{
    auto it = t.connections.find(value);
    if (it == t.connections.end()) return;
    ReaderHold& hold = t.readers[it->second.reader];
    if (hold.connections > 0) --hold.connections;
    if (hold.connections == 0 || it->second.shareMode == SCARD_SHARE_EXCLUSIVE) hold.exclusive = false;
    if (hold.transactionHolder == value) {
        hold.transactionHolder = 0;
        hold.transactionDepth = 0;
    }
    t.connections.erase(it);
}

// Sends the selection again under the handle's protocol, as a reset or an
// unpower; every other handle to the reader is then reset. The card counts
// as unpowered afterwards, so the next connect selects it again.
void resetCard(Table& t, Entry& entry) REQUIRES(t.lock)
{
    Rack* rack = entry.rack;
    Reader* reader = entry.reader;
    const DWORD protocol = entry.protocol;
    ReaderHold& hold = t.readers[reader];
    ++hold.resets;
    entry.resetsSeen = hold.resets;
    hold.powered = false;
    if (reader->atrLength() == 0) return;
    hold.powering = true;
    powerWithoutLock(t, *rack, *reader, protocol);
    t.readers[reader].powering = false;
    t.changed.notify();
}

// Sleeps on the table's changes until no other handle holds a transaction
// on the reader of `handle`. Null when the handle is not live, or stops
// being live while it waits. With `warningEndsWait`, a card warning on the
// handle ends the wait at once and goes to `warning`.
Entry* awaitTransactionTurn(Table& t, SCARDHANDLE handle, uint32_t& value, bool warningEndsWait, LONG& warning)
    REQUIRES(t.lock)
{
    warning = SCARD_S_SUCCESS;
    for (;;) {
        const uint32_t seen = t.changed.generation();
        Entry* entry = liveEntry(t, handle, value);
        if (entry == nullptr) return nullptr;
        ReaderHold& hold = t.readers[entry->reader];
        if (warningEndsWait) {
            warning = warningOf(*entry, hold);
            if (warning != SCARD_S_SUCCESS) return entry;
        }
        if (hold.transactionHolder == 0 || hold.transactionHolder == value) return entry;
        waitForChange(t, seen);
    }
}

}  // namespace

LONG openContext(SCARDCONTEXT& context)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    const uint32_t value = drawValue(t);
    if (value == 0) return SCARD_E_NO_MEMORY;
    t.contexts[value] = platform::processEpoch();
    context = static_cast<SCARDCONTEXT>(value);
    return SCARD_S_SUCCESS;
}

bool closeContext(SCARDCONTEXT context)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    if (!liveContext(t, context)) return false;
    uint32_t value = 0;
    ownValueFromHost(context, value);
    t.contexts.erase(value);
    for (auto it = t.connections.begin(); it != t.connections.end();) {
        if (it->second.context == context) {
            const uint32_t handle = it->first;
            ++it;
            dropEntry(t, handle);
        } else {
            ++it;
        }
    }
    changedNow(t);
    return true;
}

bool isLiveContext(SCARDCONTEXT context)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    return liveContext(t, context);
}

bool acceptsQueryContext(SCARDCONTEXT context)
{
#ifdef _WIN32
    if (context == 0) return true;
#endif
    return isLiveContext(context);
}

bool find(SCARDHANDLE handle, Connection& connection)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    Entry* entry = liveEntry(t, handle, value);
    if (entry == nullptr) return false;
    connection = viewOf(*entry, t.readers[entry->reader]);
    return true;
}

LONG enter(SCARDHANDLE handle, Connection& connection)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    LONG warning = SCARD_S_SUCCESS;
    Entry* entry = awaitTransactionTurn(t, handle, value, false, warning);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    connection = viewOf(*entry, t.readers[entry->reader]);
    return connection.cardWarning;
}

LONG connect(const ConnectRequest& request, ProtocolChoice choose, SCARDHANDLE& handle, DWORD& active)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    Asker asker;
    asker.context = request.context;
    asker.shareMode = request.shareMode;
    DWORD protocol = 0;
    if (request.shareMode == SCARD_SHARE_DIRECT) {
        const LONG result = stillAllowed(t, *request.reader, asker);
        if (result != SCARD_S_SUCCESS) return result;
    } else {
        const LONG result =
            bringUp(t, *request.rack, *request.reader, request.preferred, false, choose, asker, protocol);
        if (result != SCARD_S_SUCCESS) return result;
    }
    const uint32_t value = drawValue(t);
    if (value == 0) return SCARD_E_NO_MEMORY;
    Entry entry;
    entry.context = request.context;
    entry.rack = request.rack;
    entry.reader = request.reader;
    entry.shareMode = request.shareMode;
    entry.protocol = protocol;
    entry.cardEvents = request.reader->eventCount();
    ReaderHold& hold = t.readers[request.reader];
    entry.resetsSeen = hold.resets;
    entry.epoch = platform::processEpoch();
    ++hold.connections;
    if (request.shareMode == SCARD_SHARE_EXCLUSIVE) hold.exclusive = true;
    t.connections[value] = entry;
    handle = static_cast<SCARDHANDLE>(value);
    active = protocol;
    changedNow(t);
    return SCARD_S_SUCCESS;
}

LONG disconnect(SCARDHANDLE handle, CardAction action)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    Entry* entry = liveEntry(t, handle, value);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    Entry copy = *entry;
    dropEntry(t, value);
    changedNow(t);
    if (action == CardAction::reset && copy.shareMode != SCARD_SHARE_DIRECT) resetCard(t, copy);
    return SCARD_S_SUCCESS;
}

LONG reconnect(SCARDHANDLE handle, DWORD shareMode, DWORD preferred, CardAction action, ProtocolChoice choose,
               DWORD& active)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    // Another handle's transaction keeps this one waiting.
    for (;;) {
        const uint32_t seen = t.changed.generation();
        Entry* entry = liveEntry(t, handle, value);
        if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
        const ReaderHold& hold = t.readers[entry->reader];
        if (hold.transactionHolder == 0 || hold.transactionHolder == value) break;
        waitForChange(t, seen);
    }
    Entry* entry = liveEntry(t, handle, value);
    Reader* reader = entry->reader;
    Rack* rack = entry->rack;
    {
        ReaderHold& hold = t.readers[reader];
        if (!sharingAllows(hold, shareMode, hold.connections - 1)) return SCARD_E_SHARING_VIOLATION;
    }
    Asker asker;
    asker.handle = handle;
    asker.reconnect = true;
    asker.shareMode = shareMode;
    DWORD protocol = 0;
    if (shareMode != SCARD_SHARE_DIRECT) {
        if (action == CardAction::reset) {
            // Every other handle sees the reset; this one asked for it.
            ReaderHold& hold = t.readers[reader];
            ++hold.resets;
            entry->resetsSeen = hold.resets;
        }
        const LONG result = bringUp(t, *rack, *reader, preferred, action == CardAction::reset, choose, asker, protocol);
        if (result != SCARD_S_SUCCESS) return result;
    }
    entry = liveEntry(t, handle, value);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    ReaderHold& hold = t.readers[reader];
    if (entry->shareMode == SCARD_SHARE_EXCLUSIVE) hold.exclusive = false;
    if (shareMode == SCARD_SHARE_EXCLUSIVE) hold.exclusive = true;
    entry->shareMode = shareMode;
    entry->protocol = protocol;
    entry->cardEvents = reader->eventCount();
    entry->resetsSeen = hold.resets;
    active = protocol;
    changedNow(t);
    return SCARD_S_SUCCESS;
}

LONG beginTransaction(SCARDHANDLE handle)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    LONG warning = SCARD_S_SUCCESS;
    Entry* entry = awaitTransactionTurn(t, handle, value, true, warning);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    if (warning != SCARD_S_SUCCESS) return warning;
    ReaderHold& hold = t.readers[entry->reader];
    hold.transactionHolder = value;
    ++hold.transactionDepth;
    return SCARD_S_SUCCESS;
}

LONG endTransaction(SCARDHANDLE handle, CardAction action)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    uint32_t value = 0;
    Entry* entry = liveEntry(t, handle, value);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    ReaderHold& hold = t.readers[entry->reader];
    if (hold.transactionHolder != value) return SCARD_E_NOT_TRANSACTED;
    const LONG warning = warningOf(*entry, hold);
    if (action == CardAction::reset && warning == SCARD_S_SUCCESS && entry->shareMode != SCARD_SHARE_DIRECT) {
        // The handle stays in its transaction while the card is reset, so
        // nobody else's command slips in before the reset; it keeps its
        // own connection usable, and the card is powered again.
        Entry copy = *entry;
        resetCard(t, copy);
        entry = liveEntry(t, handle, value);
        if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
        ReaderHold& after = t.readers[entry->reader];
        entry->resetsSeen = after.resets;
        after.powered = true;
        after.poweredAt = entry->reader->eventCount();
        after.protocol = entry->protocol;
    }
    ReaderHold& after = t.readers[entry->reader];
    if (after.transactionHolder == value && --after.transactionDepth == 0) after.transactionHolder = 0;
    changedNow(t);
    return warning;
}

ReaderUse useOf(const Reader* reader)
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    auto it = t.readers.find(reader);
    if (it == t.readers.end() || it->second.connections == 0) return ReaderUse::none;
    return it->second.exclusive ? ReaderUse::exclusive : ReaderUse::shared;
}

void forgetConnections()
{
    Table& t = table();
    platform::LockGuard guard(t.lock);
    t.connections.clear();
    t.readers.clear();
    t.changed.notify();
}

}  // namespace connection_table
