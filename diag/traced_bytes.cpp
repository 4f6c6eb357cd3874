#include "diag/traced_bytes.h"

#include <array>
#include <vector>

#include "diag/text.h"
#include "diag/trace_settings.h"
#include "platform/clock.h"
#include "platform/sync.h"
#include "platform/thread_safety.h"

namespace {

std::string hiddenCount(int32_t count)
{
    return "<" + decimalText(count) + (count == 1 ? " byte> " : " bytes> ");
}

// The commands whose data field is a PIN (or a PIN and a new one, or a
// reset code and a new PIN).
bool carriesPin(const uint8_t* apdu, int32_t count)
{
    if (count <= 5) return false;
    switch (apdu[1]) {
    case 0x20:  // VERIFY
    case 0x21:  // VERIFY, odd instruction
    case 0x24:  // CHANGE REFERENCE DATA
    case 0x2C:  // RESET RETRY COUNTER
        return true;
    default:
        return false;
    }
}

// Longer than a card may take to answer (40 s) with room for the traces of
// a busy rack after it.
constexpr uint32_t kRememberMs = 60000;

// The data fields of the latest PIN commands, so that the same bytes are
// hidden when the frames and answers of their exchanges are traced. A few
// slots at a time is what a farm does; the oldest gives way.
class RecentPins {
public:
    void remember(const uint8_t* data, int32_t count)
    {
        platform::LockGuard guard(lock_);
        Entry& entry = entries_[next_];
        next_ = (next_ + 1) % entries_.size();
        entry.bytes.assign(data, data + count);
        entry.since = platform::tickCount();
    }

    void forget()
    {
        platform::LockGuard guard(lock_);
        for (Entry& entry : entries_) entry.bytes.clear();
    }

    // Marks in `hidden` every byte of `bytes` that is part of a remembered
    // PIN: a whole occurrence, or one cut by either edge.
    bool mark(const uint8_t* bytes, int32_t count, std::vector<bool>& hidden)
    {
        platform::LockGuard guard(lock_);
        const uint32_t now = platform::tickCount();
        bool any = false;
        for (Entry& entry : entries_) {
            if (entry.bytes.empty()) continue;
            if (now - entry.since > kRememberMs) {
                entry.bytes.clear();
                continue;
            }
            const int32_t length = static_cast<int32_t>(entry.bytes.size());
            for (int32_t start = 1 - length; start < count; ++start) {
                bool matches = true;
                for (int32_t i = 0; i < length && matches; ++i) {
                    const int32_t at = start + i;
                    if (at >= 0 && at < count) matches = bytes[at] == entry.bytes[static_cast<size_t>(i)];
                }
                if (!matches) continue;
                for (int32_t i = 0; i < length; ++i) {
                    const int32_t at = start + i;
                    if (at >= 0 && at < count) hidden[static_cast<size_t>(at)] = true;
                }
                any = true;
            }
        }
        return any;
    }

private:
    struct Entry {
        std::vector<uint8_t> bytes;
        uint32_t since = 0;
    };
    platform::ExclusiveLock lock_;
    std::array<Entry, 16> entries_ GUARDED_BY(lock_);
    size_t next_ GUARDED_BY(lock_) = 0;
};

RecentPins& recentPins()
{
    static RecentPins* pins = new RecentPins;  // never destroyed: traced from threads until the end
    return *pins;
}

// The bytes with every remembered PIN byte shown as a count.
std::string withPinsHidden(const uint8_t* bytes, int32_t count)
{
    std::vector<bool> hidden(static_cast<size_t>(count), false);
    if (!recentPins().mark(bytes, count, hidden)) return hexDump(bytes, count);
    std::string text;
    int32_t at = 0;
    while (at < count) {
        int32_t end = at;
        const bool hide = hidden[static_cast<size_t>(at)];
        while (end < count && hidden[static_cast<size_t>(end)] == hide) ++end;
        text += hide ? hiddenCount(end - at) : hexDump(bytes + at, end - at);
        at = end;
    }
    return text;
}

std::string redacted(TracedBytes kind, const uint8_t* bytes, int32_t count)
{
    switch (kind) {
    case TracedBytes::command:
        if (count <= 5) return hexDump(bytes, count);
        return hexDump(bytes, 5) + hiddenCount(count - 5);
    case TracedBytes::answer:
        if (count <= 2) return hexDump(bytes, count);
        return hiddenCount(count - 2) + hexDump(bytes + count - 2, 2);
    case TracedBytes::frame:
        break;
    }
    if (count <= 4) return hexDump(bytes, count);
    return hexDump(bytes, 4) + hiddenCount(count - 4);
}

}  // namespace

std::string tracedBytesIn(TraceMode mode, TracedBytes kind, const void* data, int32_t count)
{
    if (mode == TraceMode::off) return std::string();
    if (mode == TraceMode::fullWithPins || data == nullptr || count <= 0) return hexDump(data, count);
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (mode == TraceMode::redact) return redacted(kind, bytes, count);
    if (kind == TracedBytes::command) {
        if (!carriesPin(bytes, count)) return hexDump(bytes, count);
        recentPins().remember(bytes + 5, count - 5);
        return redacted(kind, bytes, count);
    }
    return withPinsHidden(bytes, count);
}

std::string tracedBytes(TracedBytes kind, const void* data, int32_t count)
{
    return tracedBytesIn(traceMode(), kind, data, count);
}

void forgetTracedPins() { recentPins().forget(); }
