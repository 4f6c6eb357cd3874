#include "sim/rack_setup.h"

#include <cstdio>
#include <cstdlib>

namespace racksim {
namespace {

bool parseCount(const std::string& key, const std::string& text, int low, int high, int& value, std::string& error)
{
    bool digitsOnly = !text.empty() && text.size() <= 9;
    for (char c : text) digitsOnly = digitsOnly && c >= '0' && c <= '9';
    const long number = digitsOnly ? std::strtol(text.c_str(), nullptr, 10) : -1;
    if (!digitsOnly || number < low || number > high) {
        error = key + " needs a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
                ", not \"" + text + "\"";
        return false;
    }
    value = static_cast<int>(number);
    return true;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool parseAtr(const std::string& text, std::vector<uint8_t>& atr, std::string& error)
{
    std::vector<uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if ((c == ' ' || c == ':') && high < 0) continue;
        const int digit = hexDigit(c);
        if (digit < 0) break;
        if (high < 0) {
            high = digit;
            continue;
        }
        bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
        high = -1;
    }
    const bool whole = high < 0 && !bytes.empty() && bytes.size() <= kMostAtrBytes &&
                       text.find_first_not_of("0123456789abcdefABCDEF :") == std::string::npos;
    if (!whole) {
        error = "atr needs 1 to " + std::to_string(kMostAtrBytes) + " bytes of hex, not \"" + text + "\"";
        return false;
    }
    atr = bytes;
    return true;
}

// "MS" or "MS@SLOT": when the card swap comes, and in which slot.
bool parseSwap(const std::string& value, RackSetup& setup, std::string& error)
{
    const size_t at = value.find('@');
    if (!parseCount("swap", value.substr(0, at), 0, kLongestCardEventMs, setup.cardSwapAfterMs, error)) return false;
    setup.cardSwapSlot = 1;
    return at == std::string::npos || parseCount("swap slot", value.substr(at + 1), 1, kMostSlots, setup.cardSwapSlot, error);
}

// "TR0001@5000+3000": a serial, the moment in ms after set-up and, for an
// unplug only, how long the rack stays away.
bool parseBusEvent(const std::string& key, const std::string& text, BusEvent::Kind kind, RackSetup& setup,
                   std::string& error)
{
    BusEvent event;
    event.kind = kind;
    const size_t at = text.find('@');
    const size_t plus = text.find('+');
    const bool shaped = at != std::string::npos && at > 0 && (plus == std::string::npos || plus > at);
    if (!shaped || (plus != std::string::npos && kind != BusEvent::Kind::unplug)) {
        error = key + " needs SERIAL@MS" + (kind == BusEvent::Kind::unplug ? "[+MS]" : "") + ", not \"" + text + "\"";
        return false;
    }
    event.serial = text.substr(0, at);
    const std::string when = text.substr(at + 1, plus == std::string::npos ? std::string::npos : plus - at - 1);
    if (!parseCount(key, when, 0, kLongestCardEventMs, event.atMs, error)) return false;
    if (plus != std::string::npos && !parseCount(key, text.substr(plus + 1), 1, kLongestCardEventMs, event.forMs, error))
        return false;
    setup.busEvents.push_back(event);
    return true;
}

bool applySetting(const std::string& key, const std::string& value, RackSetup& setup, std::string& error)
{
    if (key == "racks") return parseCount(key, value, 1, kMostRacks, setup.racks, error);
    if (key == "slots") return parseCount(key, value, 1, kMostSlots, setup.slotsPerRack, error);
    if (key == "cards") return parseCount(key, value, 0, kMostSlots, setup.cardsPerRack, error);
    if (key == "mute") return parseCount(key, value, 0, kMostSlots, setup.muteCardsPerRack, error);
    if (key == "atr") return parseAtr(value, setup.atr, error);
    if (key == "echo") {
        int on = 0;
        if (!parseCount(key, value, 0, 1, on, error)) return false;
        setup.echo = on != 0;
        return true;
    }
    if (key == "event") return parseCount(key, value, 0, kLongestCardEventMs, setup.cardEventAfterMs, error);
    if (key == "swap") return parseSwap(value, setup, error);
    if (key == "vcard") {
        setup.virtualCards.emplace_back();
        return parseVirtualCardText(value, setup.virtualCards.back(), error);
    }
    if (key == "unplug") return parseBusEvent(key, value, BusEvent::Kind::unplug, setup, error);
    if (key == "plug") return parseBusEvent(key, value, BusEvent::Kind::plug, setup, error);
    if (key == "powercycle") return parseBusEvent(key, value, BusEvent::Kind::powerCycle, setup, error);
    error = "unknown setting \"" + key +
            "\" (racks, slots, cards, mute, atr, echo, event, swap, vcard, unplug, plug, powercycle)";
    return false;
}

}  // namespace

std::string rackSerial(int rack)
{
    char serial[16];
    std::snprintf(serial, sizeof serial, "TR%04d", rack + 1);
    return serial;
}

int rackIndexOf(const RackSetup& setup, const std::string& serial)
{
    for (int rack = 0; rack < setup.racks; ++rack)
        if (rackSerial(rack) == serial) return rack;
    return -1;
}

std::vector<uint8_t> defaultCardAtr()
{
    return {0x3B, 0x8A, 0x80, 0x01, 0x54, 0x65, 0x73, 0x73, 0x65, 0x6C, 0x52, 0x61, 0x63, 0x6B, 0x08};
}

bool parseRackSetupText(const std::string& text, RackSetup& setup, std::string& error)
{
    RackSetup parsed;
    // Empty text is the defaults, as a command line without options is.
    size_t at = text.empty() ? 1 : 0;
    while (at <= text.size()) {
        size_t end = text.find(',', at);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(at, end - at);
        at = end + 1;
        if (item.empty() && end == text.size() && !text.empty()) break;  // a trailing comma
        const size_t equals = item.find('=');
        if (equals == std::string::npos) {
            error = "\"" + item + "\" is not key=value";
            return false;
        }
        if (!applySetting(item.substr(0, equals), item.substr(equals + 1), parsed, error)) return false;
    }
    if (parsed.cardsPerRack + parsed.muteCardsPerRack > parsed.slotsPerRack) {
        error = "cards and mute together are more than the " + std::to_string(parsed.slotsPerRack) +
                " slots of a rack";
        return false;
    }
    if (!checkVirtualCardSlots(parsed.virtualCards, parsed.slotsPerRack, error)) return false;
    if (parsed.cardSwapSlot > parsed.slotsPerRack) {
        error = "swap slot " + std::to_string(parsed.cardSwapSlot) + " is not one of the " +
                std::to_string(parsed.slotsPerRack) + " slots of a rack";
        return false;
    }
    for (const BusEvent& event : parsed.busEvents) {
        if (rackIndexOf(parsed, event.serial) < 0) {
            error = "no rack " + event.serial + " among the " + std::to_string(parsed.racks) + " racks";
            return false;
        }
    }
    setup = parsed;
    return true;
}

}  // namespace racksim
