// A whole emulated bus described in a few numbers: how many racks, how many
// slots each, which hold cards. rackscan builds its emulated racks from one
// of these, and the emulator builds one at load from the TESSEL_SIM text,
// for hosts that cannot call the control surface themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/vcard_setup.h"

namespace racksim {

// The limits of each number, as rackscan's options and TESSEL_SIM take them.
constexpr int kMostRacks = 16;
constexpr int kMostSlots = 240;
constexpr size_t kMostAtrBytes = 32;

// A timed event on the USB bus or at a rack's power switch.
struct BusEvent {
    enum class Kind { unplug, plug, powerCycle };
    Kind kind = Kind::unplug;
    std::string serial;
    int atMs = 0;
    int forMs = 0;  // unplug only: back this long after; 0 stays away
};

struct RackSetup {
    int racks = 1;
    int slotsPerRack = 4;
    int cardsPerRack = 2;          // slots 1..cards hold a card with an ATR
    int muteCardsPerRack = 0;      // the slots after them hold a mute card
    std::vector<uint8_t> atr;      // empty: the default ATR
    bool echo = false;             // cards answer with the command itself
    int cardEventAfterMs = 0;      // 0: none; else a card change that long after set-up
    std::vector<VirtualCardSlots> virtualCards;  // slots of TR0001 given over to virtual cards
    int cardSwapAfterMs = 0;       // 0: none; else a card swap that long after set-up
    int cardSwapSlot = 1;          // the slot of TR0001 whose card is swapped
    std::vector<BusEvent> busEvents;             // in the order given
};

// The longest wait for the card change or the swap, 10 minutes.
constexpr int kLongestCardEventMs = 600000;

// How long the slot of a card swap stays empty between the card that goes
// out and the one that goes in: long enough for a client that polls to
// see the empty slot, short enough for a test to wait for.
constexpr int kCardSwapGapMs = 1000;

// The serial number of rack `rack` (from 0): "TR0001", ...
std::string rackSerial(int rack);
// The index of the rack of `setup` with this serial number, or -1.
int rackIndexOf(const RackSetup& setup, const std::string& serial);

// The ATR of a card when none is given: T=0 and T=1 offered, historical
// bytes "TesselRack", with its check byte.
std::vector<uint8_t> defaultCardAtr();

// The ATR of the card that a swap puts in: never the ATR of the card it
// replaces, `atr` (empty: the default ATR).
std::vector<uint8_t> swappedCardAtr(const std::vector<uint8_t>& atr);

// Parses "racks=2,slots=8,cards=3,mute=1,echo=1,atr=3B0214" (every key is
// optional, the others keep their defaults; the ATR's bytes may be split by
// blanks or colons). Cards and mute cards that a rack cannot hold are an
// error, as is any unknown key or bad number. "swap=MS" or "swap=MS@SLOT"
// asks for a card swap (slot 1 when none is given). On failure returns false and
// says why in `error`.
bool parseRackSetupText(const std::string& text, RackSetup& setup, std::string& error);

// Replaces every device of the emulator with the racks of `setup`.
void buildRacks(const RackSetup& setup);

// The slot of rack TR0001 that the card change of `setup` is made in: the
// first one after the cards and mute cards, which gets a card; with every
// slot taken, the last one, whose card is taken out.
int cardEventSlot(const RackSetup& setup);

// Makes that change `setup.cardEventAfterMs` from now, on a thread of its
// own, for hosts that watch for card events and cannot make one.
void startCardEvent(const RackSetup& setup);

// Swaps the card in slot `setup.cardSwapSlot` of TR0001
// `setup.cardSwapAfterMs` from now, on a thread of its own: whatever the
// slot holds is taken out, and kCardSwapGapMs later a card with
// swappedCardAtr() goes in. For clients that must see one card replaced by
// another.
void startCardSwap(const RackSetup& setup);
// Makes the bus events of `setup` at their times from now, on a thread of
// their own. Racks that are plugged in later are left out of the device
// list by buildRacks already.
void startBusEvents(const RackSetup& setup);

}  // namespace racksim
