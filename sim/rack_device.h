// One emulated FTDI device with a rack behind it: the master at address 0
// and card slots at 1 to 240.
//
// The device does its work lazily: every call from the host or from the
// control surface brings it up to the present with advance(), which takes
// in the host's bytes as they arrive, lets the rack react to whole frames
// and moves the rack's bytes along the line. A RackDevice has no lock of
// its own; the registry serialises all calls.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "sim/rack_bytes.h"
#include "sim/rack_line.h"
#include "sim/rack_sim.h"
#include "sim/virtual_card_port.h"

namespace racksim {

constexpr int kSlotCount = 240;
constexpr int kCounterCount = 10;

struct WireLogEntry {
    Bytes bytes;
    long long microseconds;
};

struct Slot {
    enum class Card { None, Mute, Present };
    enum class Responder { Default, Echo, Fixed, Table };

    uint8_t mapByte = 0;
    Card card = Card::None;
    Bytes atr;
    Responder responder = Responder::Default;
    Bytes fixedAnswer;
    std::vector<std::pair<Bytes, Bytes>> table;
    unsigned delayMs = 0;
    uint8_t answerStatus = 0x04;
    int fault = RACKSIM_SLOT_OK;
    int faultFrames = 0;  // -1: until cleared

    int answerMode = -1;  // 1 answers, 0 silent, -1 as the map byte says

    // A card outside the emulator answers this slot's commands instead of
    // the responder; null for the emulator's own cards.
    VirtualCardPort* virtualCard = nullptr;

    bool populated() const { return (mapByte & 0x0F) >= 1 && (mapByte & 0x0F) <= 3; }
    bool answers() const { return answerMode < 0 ? populated() : answerMode != 0; }
    Bytes answerTo(const Bytes& apdu) const;
};

class RackDevice {
public:
    RackDevice(std::string description, std::string serial, Nanos addedAt);

    const std::string& description() const { return description_; }
    const std::string& serial() const { return serial_; }
    Nanos addedAt() const { return addedAt_; }

    // Whether the device is on the USB bus. An unplugged device is in no
    // device list and cannot be opened; the registry fails the handles the
    // host still holds.
    bool plugged() const { return plugged_; }
    void setPlugged(bool plugged) { plugged_ = plugged; }

    // Host side.
    bool isOpen() const { return open_; }
    void open(Nanos now);
    void close();
    // Returns false (and takes nothing) while writes are made to fail.
    bool write(const uint8_t* bytes, size_t count, Nanos now);
    size_t queued(Nanos now);
    size_t read(uint8_t* out, size_t count, Nanos now);
    void setLine(uint32_t baud) { baud_ = baud; }
    void setCharacteristics(int wordLength, int stopBits, int parity);
    void lineSettings(unsigned* baud, int* wordLength, int* stopBits, int* parity) const;

    // Control side.
    bool openFails = false;
    // FT_SetLatencyTimer fails with FT_OTHER_ERROR, as a driver that does not
    // support the call does.
    bool refusesLatencyTimer = false;
    Slot& slot(int address) { return slots_[address - 1]; }
    void cardChanged(int address, Nanos now);  // sends the unsolicited status
    // A virtual card's answer to a command: the answer frame goes on the
    // line now, with the slot's answer status, or with `status` if not 0
    // (the card was taken out or went mute meanwhile, and the frame
    // carries no data).
    void virtualCardAnswered(int address, const Bytes& answer, uint8_t status, Nanos now);
    void setDeviceFault(int fault, bool on);
    // The rack loses power for a moment while its USB side stays: whatever
    // was on the line or under way is gone, and the master, once up again,
    // announces its slot map on its own.
    void powerCycle(Nanos now);
    void injectBytes(const uint8_t* bytes, size_t count, Nanos now);
    void setWireRealism(bool on) { paced_ = on; }
    // The latency timer as the driver sets it for every open, and as the
    // host sets it for this open (FT_SetLatencyTimer).
    void setLatencyTimer(Nanos timer);
    void hostSetLatencyTimer(Nanos timer) { line_.setLatencyTimer(timer); }
    Nanos latencyTimer() const { return line_.latencyTimer(); }

    // The host's receive event (FT_SetEventNotification); see rx_event.h.
    void setEventNotification(uint32_t mask, void* parameter);
    // Signals the event if bytes have become readable since it was last
    // signalled; returns the next moment worth another look.
    Nanos notifyIfReadable(Nanos now);
    bool eventArmed() const { return open_ && eventMask_ != 0 && eventParameter_ != nullptr; }
    const std::vector<WireLogEntry>& wireLog() const { return wireLog_; }
    void clearWireLog();
    long long counter(int which) const { return counters_[which]; }
    void count(int which, long long by = 1) { counters_[which] += by; }

    // Brings the device up to `now`.
    void advance(Nanos now);

private:
    struct InByte {
        uint8_t value;
        Nanos arrivesAt;
        Nanos writtenAt;
    };

    void hostFrame(const Bytes& frame, Nanos at, Nanos sentAt);
    void masterFrame(uint8_t command, Nanos at);
    void slotFrame(int address, uint8_t command, const Bytes& data, Nanos at);
    Bytes statusFrame(int address) const;
    void send(Nanos at, Bytes bytes, int source, bool wholeFrame, bool commandAnswer = false);
    void delivered(int source, bool wholeFrame, Nanos now);

    std::string description_;
    std::string serial_;
    Nanos addedAt_;
    std::array<Slot, kSlotCount> slots_{};

    bool open_ = false;
    bool plugged_ = true;
    bool paced_ = false;
    bool byteAtATime_ = false;
    bool coalesce_ = false;
    bool writeFails_ = false;
    bool silentEnumerate_ = false;
    bool silentCollected_ = false;
    uint32_t baud_ = 0;
    int wordLength_ = 0, stopBits_ = 0, parity_ = 0;

    Nanos driverLatencyTimer_ = kLatencyTimer;
    uint32_t eventMask_ = 0;
    void* eventParameter_ = nullptr;
    size_t signalledBytes_ = 0;  // readable bytes the last signal told of

    std::deque<InByte> inbound_;
    Nanos inLineFreeAt_ = 0;
    HostStreamParser parser_;
    RackLine line_;

    // The one-message-at-a-time rule: the slot whose frame was sent last,
    // and whether a frame from it has reached the host since.
    int busSlot_ = 0;
    bool busAnswered_ = true;
    Nanos busAnsweredAt_ = 0;

    std::vector<WireLogEntry> wireLog_;
    std::array<long long, kCounterCount> counters_{};
};

}  // namespace racksim
