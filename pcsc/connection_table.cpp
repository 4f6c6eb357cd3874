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
    Table() { platform::onFork(lockForFork, unlockAfterFork, unlockAfterFork); }

    platform::ExclusiveLock lock;
    std::unordered_map<uint32_t, uint32_t> contexts GUARDED_BY(lock);  // value -> epoch
    std::unordered_map<uint32_t, Entry> connections GUARDED_BY(lock);
    std::unordered_map<const Reader*, ReaderHold> readers GUARDED_BY(lock);
    // Wakes the threads that wait for a transaction or a power-up.
    platform::Signal changed;

private:
    static void lockForFork() NO_THREAD_SAFETY_ANALYSIS;
    static void unlockAfterFork() NO_THREAD_SAFETY_ANALYSIS;
};

// Made on first use and never destroyed, so that a host thread still in a
// call while the process ends finds it.
Table& table()
{
    static Table* instance = new Table;
    return *instance;
}

void Table::lockForFork() { table().lock.lock(); }
void Table::unlockAfterFork() { table().lock.unlock(); }

// Holds the table's lock; can let it go for a wait and take it again.
class Held {
public:
    Held() : table_(table()) { table_.lock.lock(); }
    ~Held() { table_.lock.unlock(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    Table* operator->() { return &table_; }
    // Sleeps until the table changes (or the recheck limit), without the
    // lock. `seen` was read under the lock before the condition was tested.
    void waitForChange(uint32_t seen) NO_THREAD_SAFETY_ANALYSIS
    {
        table_.lock.unlock();
        table_.changed.wait(seen, kRecheckMs);
        table_.lock.lock();
    }
    // Lets the lock go for a slot's exchange.
    template <typename Work>
    auto unlocked(Work work) NO_THREAD_SAFETY_ANALYSIS
    {
        table_.lock.unlock();
        auto result = work();
        table_.lock.lock();
        return result;
    }

private:
    Table& table_;
};

// A value no live context or handle has: 31 bits of the system's random
// source (so that it reads positive as a signed 32-bit number in every
// client), never 0. 0 when the source fails.
uint32_t drawValue(Table& t) NO_THREAD_SAFETY_ANALYSIS
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

bool liveContext(Table& t, SCARDCONTEXT context) NO_THREAD_SAFETY_ANALYSIS
{
    uint32_t value = 0;
    if (!ownValueFromHost(context, value)) return false;
    auto it = t.contexts.find(value);
    return it != t.contexts.end() && it->second == platform::processEpoch();
}

Entry* liveEntry(Table& t, SCARDHANDLE handle, uint32_t& value) NO_THREAD_SAFETY_ANALYSIS
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

// Brings the reader's card to a powered state for a connect or a reconnect
// with leave: joins a powered card, waits for a power-up under way, or
// powers it (always when `reset`). On success `active` holds the protocol.
// `stillAllowed` is asked again after every wait.
template <typename Check>
LONG bringUp(Held& held, Rack& rack, Reader& reader, DWORD preferred, bool reset, ProtocolChoice choose,
             DWORD& active, Check stillAllowed) NO_THREAD_SAFETY_ANALYSIS
{
    bool mustPower = reset;
    for (;;) {
        const uint32_t seen = held->changed.generation();
        const LONG allowed = stillAllowed();
        if (allowed != SCARD_S_SUCCESS) return allowed;
        ReaderHold& hold = held->readers[&reader];
        if (!reader.available()) return SCARD_E_READER_UNAVAILABLE;
        if (reader.atrLength() == 0) return SCARD_E_NO_SMARTCARD;
        if (!mustPower && poweredNow(hold, reader)) {
            if (!allows(preferred, hold.protocol)) return SCARD_E_PROTO_MISMATCH;
            active = hold.protocol;
            return SCARD_S_SUCCESS;
        }
        if (hold.powering) {
            held.waitForChange(seen);
            continue;
        }
        DWORD chosen = 0;
        if (!choose(reader, preferred, chosen)) return SCARD_E_PROTO_MISMATCH;
        hold.powering = true;
        const uint32_t events = reader.eventCount();
        const bool answered = held.unlocked([&] { return powerCard(rack, reader, chosen); });
        ReaderHold& after = held->readers[&reader];
        after.powering = false;
        held->changed.notify();
        if (!answered) {
            after.powered = false;
            return reader.available() ? SCARD_W_UNRESPONSIVE_CARD : SCARD_E_READER_UNAVAILABLE;
        }
        // A card that changed while it was selected is powered afresh.
        if (reader.eventCount() != events) continue;
        after.powered = true;
        after.poweredAt = events;
        after.protocol = chosen;
        active = chosen;
        return SCARD_S_SUCCESS;
    }
}

// Drops a connection from the table: its transaction and its share.
void dropEntry(Table& t, uint32_t value) NO_THREAD_SAFETY_ANALYSIS
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
void resetCard(Held& held, Entry& entry) NO_THREAD_SAFETY_ANALYSIS
{
    Rack* rack = entry.rack;
    Reader* reader = entry.reader;
    const DWORD protocol = entry.protocol;
    ReaderHold& hold = held->readers[reader];
    ++hold.resets;
    entry.resetsSeen = hold.resets;
    hold.powered = false;
    if (reader->atrLength() == 0) return;
    hold.powering = true;
    held.unlocked([&] { return powerCard(*rack, *reader, protocol); });
    ReaderHold& after = held->readers[reader];
    after.powering = false;
    held->changed.notify();
}

}  // namespace

LONG openContext(SCARDCONTEXT& context)
{
    Held held;
    const uint32_t value = drawValue(*held.operator->());
    if (value == 0) return SCARD_E_NO_MEMORY;
    held->contexts[value] = platform::processEpoch();
    context = static_cast<SCARDCONTEXT>(value);
    return SCARD_S_SUCCESS;
}

bool closeContext(SCARDCONTEXT context)
{
    Held held;
    Table& t = *held.operator->();
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
    Held held;
    return liveContext(*held.operator->(), context);
}

bool find(SCARDHANDLE handle, Connection& connection)
{
    Held held;
    uint32_t value = 0;
    Entry* entry = liveEntry(*held.operator->(), handle, value);
    if (entry == nullptr) return false;
    connection = viewOf(*entry, held->readers[entry->reader]);
    return true;
}

LONG enter(SCARDHANDLE handle, Connection& connection)
{
    Held held;
    for (;;) {
        const uint32_t seen = held->changed.generation();
        uint32_t value = 0;
        Entry* entry = liveEntry(*held.operator->(), handle, value);
        if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
        ReaderHold& hold = held->readers[entry->reader];
        if (hold.transactionHolder == 0 || hold.transactionHolder == value) {
            connection = viewOf(*entry, hold);
            return connection.cardWarning;
        }
        held.waitForChange(seen);
    }
}

LONG connect(const ConnectRequest& request, ProtocolChoice choose, SCARDHANDLE& handle, DWORD& active)
{
    Held held;
    Table& t = *held.operator->();
    auto allowed = [&]() NO_THREAD_SAFETY_ANALYSIS -> LONG {
        if (!liveContext(t, request.context)) return SCARD_E_INVALID_HANDLE;
        ReaderHold& hold = t.readers[request.reader];
        if (!sharingAllows(hold, request.shareMode, hold.connections)) return SCARD_E_SHARING_VIOLATION;
        return SCARD_S_SUCCESS;
    };
    DWORD protocol = 0;
    if (request.shareMode == SCARD_SHARE_DIRECT) {
        const LONG result = allowed();
        if (result != SCARD_S_SUCCESS) return result;
    } else {
        const LONG result =
            bringUp(held, *request.rack, *request.reader, request.preferred, false, choose, protocol, allowed);
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
    Held held;
    Table& t = *held.operator->();
    uint32_t value = 0;
    Entry* entry = liveEntry(t, handle, value);
    if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
    Entry copy = *entry;
    dropEntry(t, value);
    changedNow(t);
    if (action == CardAction::reset && copy.shareMode != SCARD_SHARE_DIRECT) resetCard(held, copy);
    return SCARD_S_SUCCESS;
}

LONG reconnect(SCARDHANDLE handle, DWORD shareMode, DWORD preferred, CardAction action, ProtocolChoice choose,
               DWORD& active)
{
    Held held;
    Table& t = *held.operator->();
    uint32_t value = 0;
    // Another handle's transaction keeps this one waiting.
    for (;;) {
        const uint32_t seen = t.changed.generation();
        Entry* entry = liveEntry(t, handle, value);
        if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
        const ReaderHold& hold = t.readers[entry->reader];
        if (hold.transactionHolder == 0 || hold.transactionHolder == value) break;
        held.waitForChange(seen);
    }
    Entry* entry = liveEntry(t, handle, value);
    Reader* reader = entry->reader;
    Rack* rack = entry->rack;
    {
        ReaderHold& hold = t.readers[reader];
        if (!sharingAllows(hold, shareMode, hold.connections - 1)) return SCARD_E_SHARING_VIOLATION;
    }
    auto allowed = [&]() NO_THREAD_SAFETY_ANALYSIS -> LONG {
        Entry* self = liveEntry(t, handle, value);
        if (self == nullptr) return SCARD_E_INVALID_HANDLE;
        ReaderHold& hold = t.readers[reader];
        if (!sharingAllows(hold, shareMode, hold.connections - 1)) return SCARD_E_SHARING_VIOLATION;
        return SCARD_S_SUCCESS;
    };
    DWORD protocol = 0;
    if (shareMode != SCARD_SHARE_DIRECT) {
        if (action == CardAction::reset) {
            // Every other handle sees the reset; this one asked for it.
            ReaderHold& hold = t.readers[reader];
            ++hold.resets;
            entry->resetsSeen = hold.resets;
        }
        const LONG result =
            bringUp(held, *rack, *reader, preferred, action == CardAction::reset, choose, protocol, allowed);
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
    Held held;
    Table& t = *held.operator->();
    for (;;) {
        const uint32_t seen = t.changed.generation();
        uint32_t value = 0;
        Entry* entry = liveEntry(t, handle, value);
        if (entry == nullptr) return SCARD_E_INVALID_HANDLE;
        ReaderHold& hold = t.readers[entry->reader];
        const LONG warning = warningOf(*entry, hold);
        if (warning != SCARD_S_SUCCESS) return warning;
        if (hold.transactionHolder == 0 || hold.transactionHolder == value) {
            hold.transactionHolder = value;
            ++hold.transactionDepth;
            return SCARD_S_SUCCESS;
        }
        held.waitForChange(seen);
    }
}

LONG endTransaction(SCARDHANDLE handle, CardAction action)
{
    Held held;
    Table& t = *held.operator->();
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
        resetCard(held, copy);
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
    Held held;
    auto it = held->readers.find(reader);
    if (it == held->readers.end() || it->second.connections == 0) return ReaderUse::none;
    return it->second.exclusive ? ReaderUse::exclusive : ReaderUse::shared;
}

void forgetConnections()
{
    Held held;
    held->connections.clear();
    held->readers.clear();
    held->changed.notify();
}

}  // namespace connection_table
