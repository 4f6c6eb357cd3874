#include "sim/rack_device.h"

#include <algorithm>

#include "sim/rx_event.h"

namespace racksim {

namespace {

constexpr uint8_t kAcknowledge = 0x06;
constexpr uint8_t kNoCard = 0x01;
constexpr uint8_t kMuteCard = 0x03;
constexpr uint8_t kCardWithData = 0x05;

constexpr uint8_t kReset = 0xF0;
constexpr uint8_t kEnumerate = 0xC1;
constexpr uint8_t kStatusCollected = 0xC2;
constexpr uint8_t kSlotMap = 0xC5;
constexpr uint8_t kCardCommand = 0x40;
constexpr uint8_t kSelectT0 = 0x20;
constexpr uint8_t kSelectT1 = 0x60;

constexpr size_t kOversizedLength = 1600;
constexpr size_t kTruncatedBy = 2;

// What a slot puts on the line for the garbage fault: no sync byte in it,
// so that a receiver hunting for 0x55 skips all of it.
const Bytes kGarbage{0xFE, 0x00, 0x13, 0xAA, 0x7F};

}  // namespace

Bytes Slot::answerTo(const Bytes& apdu) const
{
    switch (responder) {
    case Responder::Echo: return apdu;
    case Responder::Fixed: return fixedAnswer;
    case Responder::Table:
        for (const auto& entry : table)
            if (entry.first == apdu) return entry.second;
        return {0x6D, 0x00};
    case Responder::Default: break;
    }
    return {0x90, 0x00};
}

RackDevice::RackDevice(std::string description, std::string serial, Nanos addedAt)
    : description_(std::move(description)), serial_(std::move(serial)), addedAt_(addedAt)
{
}

void RackDevice::open(Nanos now)
{
    open_ = true;
    inbound_.clear();
    inLineFreeAt_ = 0;
    parser_.clear();
    line_.clear();
    line_.setLatencyTimer(driverLatencyTimer_);
    eventMask_ = 0;
    eventParameter_ = nullptr;
    signalledBytes_ = 0;
    busSlot_ = 0;
    busAnswered_ = true;
    baud_ = 0;
    wordLength_ = stopBits_ = parity_ = 0;
    ++counters_[RACKSIM_OPENS];
}

void RackDevice::close()
{
    // The watcher looks once more, finds nothing to watch and ends.
    if (eventArmed()) wakeEventWatcher();
    open_ = false;
    eventMask_ = 0;
    eventParameter_ = nullptr;
    inbound_.clear();
    parser_.clear();
    line_.clear();
}

void RackDevice::powerCycle(Nanos now)
{
    if (!open_) return;
    advance(now);
    inbound_.clear();
    inLineFreeAt_ = 0;
    parser_.clear();
    line_.clear();
    busSlot_ = 0;
    busAnswered_ = true;
    for (Slot& s : slots_)
        if (s.virtualCard) s.virtualCard->rackReset();
    masterFrame(kEnumerate, now);
}

bool RackDevice::write(const uint8_t* bytes, size_t count, Nanos now)
{
    advance(now);
    if (writeFails_) {
        ++counters_[RACKSIM_WRITE_FAILURES];
        return false;
    }
    wireLog_.push_back({Bytes(bytes, bytes + count), (now - addedAt_) / 1000});
    counters_[RACKSIM_BYTES_FROM_HOST] += static_cast<long long>(count);
    Nanos start = std::max(now, inLineFreeAt_);
    for (size_t i = 0; i < count; ++i) {
        Nanos arrives = paced_ ? start + static_cast<Nanos>(i + 1) * 1000000000 / kBytesPerSecond : now;
        inbound_.push_back({bytes[i], arrives, now});
    }
    if (paced_ && count > 0) inLineFreeAt_ = inbound_.back().arrivesAt;
    advance(now);
    if (eventArmed()) wakeEventWatcher();
    return true;
}

size_t RackDevice::queued(Nanos now)
{
    advance(now);
    size_t n = line_.readable(now, coalesce_);
    return byteAtATime_ ? std::min<size_t>(n, 1) : n;
}

size_t RackDevice::read(uint8_t* out, size_t count, Nanos now)
{
    size_t n = std::min(queued(now), count);
    n = line_.take(out, n, [&](int source, bool wholeFrame) { delivered(source, wholeFrame, now); });
    counters_[RACKSIM_BYTES_TO_HOST] += static_cast<long long>(n);
    signalledBytes_ = n < signalledBytes_ ? signalledBytes_ - n : 0;
    // Bytes left behind, or held back one at a time, are news again.
    if (eventArmed()) wakeEventWatcher();
    return n;
}

void RackDevice::setCharacteristics(int wordLength, int stopBits, int parity)
{
    wordLength_ = wordLength;
    stopBits_ = stopBits;
    parity_ = parity;
}

void RackDevice::lineSettings(unsigned* baud, int* wordLength, int* stopBits, int* parity) const
{
    if (baud) *baud = baud_;
    if (wordLength) *wordLength = wordLength_;
    if (stopBits) *stopBits = stopBits_;
    if (parity) *parity = parity_;
}

void RackDevice::cardChanged(int address, Nanos now)
{
    advance(now);
    if (open_ && slot(address).answers()) send(now, statusFrame(address), address, true);
    advance(now);
}

void RackDevice::virtualCardAnswered(int address, const Bytes& answer, uint8_t status, Nanos now)
{
    advance(now);
    if (!open_) return;
    Slot& s = slot(address);
    const uint8_t a = static_cast<uint8_t>(address);
    send(now, status != 0 ? rackFrame(a, status, {}) : rackFrame(a, s.answerStatus, answer), address, true,
         status == 0);
    advance(now);
}

void RackDevice::setDeviceFault(int fault, bool on)
{
    switch (fault) {
    case RACKSIM_BYTE_AT_A_TIME: byteAtATime_ = on; break;
    case RACKSIM_COALESCE: coalesce_ = on; break;
    case RACKSIM_WRITE_FAILS: writeFails_ = on; break;
    case RACKSIM_MASTER_SILENT_ENUMERATE: silentEnumerate_ = on; break;
    case RACKSIM_MASTER_SILENT_COLLECTED: silentCollected_ = on; break;
    default: break;
    }
}

void RackDevice::injectBytes(const uint8_t* bytes, size_t count, Nanos now)
{
    advance(now);
    if (open_ && count > 0) send(now, Bytes(bytes, bytes + count), -1, false);
    advance(now);
}

void RackDevice::clearWireLog()
{
    wireLog_.clear();
    counters_.fill(0);
}

void RackDevice::advance(Nanos now)
{
    if (!open_) return;
    // Host bytes arriving and rack bytes leaving, in the order of their
    // moments, so that every reaction of the rack happens at its time.
    for (;;) {
        Nanos inAt = inbound_.empty() ? kNever : inbound_.front().arrivesAt;
        Nanos outAt = line_.nextScheduled();
        // At equal moments the rack's due bytes go first: it answers a
        // frame before it takes in the next one.
        if (inAt < outAt) {
            if (inAt > now) break;
            InByte b = inbound_.front();
            inbound_.pop_front();
            switch (parser_.feed(b.value)) {
            case HostStreamParser::GoodFrame: hostFrame(parser_.frame(), b.arrivesAt, b.writtenAt); break;
            case HostStreamParser::BadFrame: ++counters_[RACKSIM_BAD_FRAMES_FROM_HOST]; break;
            case HostStreamParser::Incomplete: break;
            }
        } else {
            if (outAt > now) break;
            Chunk chunk = line_.commitNext(paced_);
            if (chunk.wholeFrame) ++counters_[RACKSIM_FRAMES_TO_HOST];
            if (chunk.commandAnswer) ++counters_[RACKSIM_COMMANDS_ANSWERED];
        }
    }
    line_.flush(now, paced_);
}

void RackDevice::hostFrame(const Bytes& frame, Nanos at, Nanos sentAt)
{
    ++counters_[RACKSIM_FRAMES_FROM_HOST];
    int address = frame[1];
    uint8_t command = frame[3];
    if (address == 0) {
        busSlot_ = 0;
        busAnswered_ = true;
        masterFrame(command, at);
        return;
    }
    if (address > kSlotCount) return;
    if (busSlot_ != 0 && busSlot_ != address && !(busAnswered_ && busAnsweredAt_ <= sentAt))
        ++counters_[RACKSIM_BUS_VIOLATIONS];
    busSlot_ = address;
    busAnswered_ = false;
    slotFrame(address, command, Bytes(frame.begin() + 4, frame.end() - 1), at);
}

void RackDevice::masterFrame(uint8_t command, Nanos at)
{
    switch (command) {
    case kReset:
        // The rack drops whatever its slots were still working on.
        line_.dropScheduled();
        for (Slot& s : slots_)
            if (s.virtualCard) s.virtualCard->rackReset();
        break;
    case kEnumerate:
        if (!silentEnumerate_) {
            Bytes map(kSlotCount);
            for (int i = 0; i < kSlotCount; ++i) map[i] = slots_[i].mapByte;
            send(at, rackFrame(0, kSlotMap, map), 0, true);
        }
        break;
    case kStatusCollected:
        if (!silentCollected_) send(at, rackFrame(0, kStatusCollected, {}), 0, true);
        break;
    default: break;
    }
}

Bytes RackDevice::statusFrame(int address) const
{
    const Slot& s = slots_[address - 1];
    uint8_t a = static_cast<uint8_t>(address);
    switch (s.card) {
    case Slot::Card::Present: return rackFrame(a, kCardWithData, s.atr);
    case Slot::Card::Mute: return rackFrame(a, kMuteCard, {});
    case Slot::Card::None: break;
    }
    return rackFrame(a, kNoCard, {});
}

void RackDevice::slotFrame(int address, uint8_t command, const Bytes& data, Nanos at)
{
    Slot& s = slot(address);
    if (!s.answers()) return;

    int fault = RACKSIM_SLOT_OK;
    if (s.faultFrames != 0) {
        fault = s.fault;
        if (s.faultFrames > 0 && --s.faultFrames == 0) s.fault = RACKSIM_SLOT_OK;
    }

    uint8_t a = static_cast<uint8_t>(address);
    if (s.virtualCard && command == kCardCommand && s.card == Slot::Card::Present) {
        // The card answers when it has worked; the acknowledge goes now.
        send(at, rackFrame(a, kAcknowledge, {}), address, true);
        s.virtualCard->command(data);
        return;
    }
    // A protocol selection resets the card.
    if (s.virtualCard && s.card == Slot::Card::Present && (command == kSelectT0 || command == kSelectT1))
        s.virtualCard->resetCard();

    Bytes reply;
    uint8_t status;
    Nanos replyAt = at;
    bool cardAnswer = false;
    if (command == kCardCommand && s.card == Slot::Card::Present) {
        cardAnswer = true;
        status = s.answerStatus;
        reply = rackFrame(a, status, s.answerTo(data));
        replyAt = at + static_cast<Nanos>(s.delayMs) * kMillisecond;
    } else if (command == kCardCommand) {
        status = s.card == Slot::Card::Mute ? kMuteCard : kNoCard;
        reply = rackFrame(a, status, {});
    } else {
        // Status request, protocol selection (which resets the card) and
        // anything else: the slot reports its card.
        reply = statusFrame(address);
        status = reply[3];
    }

    if (fault != RACKSIM_NO_ACK && fault != RACKSIM_ACK_LOST) send(at, rackFrame(a, kAcknowledge, {}), address, true);
    switch (fault) {
    case RACKSIM_NO_ACK:
    case RACKSIM_NO_ANSWER: return;
    case RACKSIM_EMPTY_ANSWER: reply = rackFrame(a, status, {}); break;
    case RACKSIM_GARBAGE: send(replyAt, kGarbage, -1, false); break;
    case RACKSIM_TRUNCATED:
        reply.resize(reply.size() - kTruncatedBy);
        send(replyAt, reply, -1, false, cardAnswer);
        return;
    case RACKSIM_BAD_CHECKSUM: reply.back() = static_cast<uint8_t>(reply.back() + 1); break;
    case RACKSIM_OVERSIZED: {
        Bytes data1600(kOversizedLength);
        for (size_t i = 0; i < data1600.size(); ++i) data1600[i] = static_cast<uint8_t>(i);
        reply = extendedFrame(a, data1600);
        break;
    }
    default: break;
    }
    send(replyAt, reply, address, true, cardAnswer);
}

void RackDevice::send(Nanos at, Bytes bytes, int source, bool wholeFrame, bool commandAnswer)
{
    Chunk chunk;
    chunk.bytes = std::move(bytes);
    chunk.source = source;
    chunk.wholeFrame = wholeFrame;
    chunk.commandAnswer = commandAnswer;
    line_.schedule(at, std::move(chunk));
    if (eventArmed()) wakeEventWatcher();
}

void RackDevice::setLatencyTimer(Nanos timer)
{
    driverLatencyTimer_ = timer;
    line_.setLatencyTimer(timer);
}

void RackDevice::setEventNotification(uint32_t mask, void* parameter)
{
    eventMask_ = mask;
    eventParameter_ = parameter;
    signalledBytes_ = 0;
    if (eventArmed()) wakeEventWatcher();
}

Nanos RackDevice::notifyIfReadable(Nanos now)
{
    if (!eventArmed()) return kNever;
    size_t readable = queued(now);
    if (readable > signalledBytes_) {
        signalledBytes_ = readable;
        ++counters_[RACKSIM_EVENTS_SIGNALLED];
        signalEvent(eventParameter_);
    }
    Nanos next = std::min(inbound_.empty() ? kNever : inbound_.front().arrivesAt, line_.nextScheduled());
    next = std::min(next, line_.nextHandOver(now, paced_));
    // Coalesced bytes are let go by their age, which no schedule shows.
    if (coalesce_) next = std::min(next, now + kCoalesceLimit / 10);
    return next;
}

void RackDevice::delivered(int source, bool wholeFrame, Nanos now)
{
    if (wholeFrame && source != 0 && source == busSlot_ && !busAnswered_) {
        busAnswered_ = true;
        busAnsweredAt_ = now;
    }
}

}  // namespace racksim
