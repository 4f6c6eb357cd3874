#include "sim/rack_setup.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "sim/rack_sim.h"

namespace racksim {

void buildRacks(const RackSetup& setup)
{
    const std::vector<uint8_t> atr = setup.atr.empty() ? defaultCardAtr() : setup.atr;
    rackSimReset();
    for (int rack = 0; rack < setup.racks; ++rack) {
        const int device = rackSimAddDevice("Smart Card Rack", rackSerial(rack).c_str());
        rackSimAddSlots(device, 1, setup.slotsPerRack);
        for (int slot = 1; slot <= setup.slotsPerRack; ++slot) {
            if (setup.echo) rackSimSetEcho(device, slot);
            if (slot <= setup.cardsPerRack)
                rackSimInsertCard(device, slot, atr.data(), static_cast<int>(atr.size()));
            else if (slot <= setup.cardsPerRack + setup.muteCardsPerRack)
                rackSimMuteCard(device, slot);
        }
    }
    attachVirtualCards(setup.virtualCards);
    for (const BusEvent& event : setup.busEvents)
        if (event.kind == BusEvent::Kind::plug) rackSimUnplug(rackIndexOf(setup, event.serial));
}

int cardEventSlot(const RackSetup& setup)
{
    const int firstFree = setup.cardsPerRack + setup.muteCardsPerRack + 1;
    return firstFree <= setup.slotsPerRack ? firstFree : setup.slotsPerRack;
}

// Detached: the change is one call at a set time, and a process that ends
// before it simply never sees it.
void startCardEvent(const RackSetup& setup)
{
    if (setup.cardEventAfterMs <= 0) return;
    const std::vector<uint8_t> atr = setup.atr.empty() ? defaultCardAtr() : setup.atr;
    const int slot = cardEventSlot(setup);
    const bool insert = slot > setup.cardsPerRack + setup.muteCardsPerRack;
    std::thread([atr, slot, insert, delay = setup.cardEventAfterMs] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        if (insert)
            rackSimInsertCard(0, slot, atr.data(), static_cast<int>(atr.size()));
        else
            rackSimRemoveCard(0, slot);
    }).detach();
}

std::vector<uint8_t> swappedCardAtr(const std::vector<uint8_t>& atr)
{
    // The default ATR with the historical bytes "TesselSwap" and its check
    // byte; a rack whose cards already carry it gets the default ATR back.
    const std::vector<uint8_t> swapped{0x3B, 0x8A, 0x80, 0x01, 0x54, 0x65, 0x73, 0x73,
                                       0x65, 0x6C, 0x53, 0x77, 0x61, 0x70, 0x06};
    const std::vector<uint8_t>& current = atr.empty() ? defaultCardAtr() : atr;
    return current == swapped ? defaultCardAtr() : swapped;
}

// Detached, as the card change is.
void startCardSwap(const RackSetup& setup)
{
    if (setup.cardSwapAfterMs <= 0) return;
    std::thread([atr = swappedCardAtr(setup.atr), slot = setup.cardSwapSlot, delay = setup.cardSwapAfterMs] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        rackSimRemoveCard(0, slot);
        std::this_thread::sleep_for(std::chrono::milliseconds(kCardSwapGapMs));
        rackSimInsertCard(0, slot, atr.data(), static_cast<int>(atr.size()));
    }).detach();
}

// Detached, as the card change: one thread walks the events in the order of
// their moments.
void startBusEvents(const RackSetup& setup)
{
    struct Step {
        int atMs;
        int device;
        int action;  // 0 unplug, 1 plug, 2 power-cycle
    };
    std::vector<Step> steps;
    for (const BusEvent& event : setup.busEvents) {
        const int device = rackIndexOf(setup, event.serial);
        switch (event.kind) {
        case BusEvent::Kind::unplug:
            steps.push_back({event.atMs, device, 0});
            if (event.forMs > 0) steps.push_back({event.atMs + event.forMs, device, 1});
            break;
        case BusEvent::Kind::plug: steps.push_back({event.atMs, device, 1}); break;
        case BusEvent::Kind::powerCycle: steps.push_back({event.atMs, device, 2}); break;
        }
    }
    if (steps.empty()) return;
    std::stable_sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) { return a.atMs < b.atMs; });
    std::thread([steps] {
        const auto start = std::chrono::steady_clock::now();
        for (const Step& step : steps) {
            std::this_thread::sleep_until(start + std::chrono::milliseconds(step.atMs));
            if (step.action == 0) rackSimUnplug(step.device);
            if (step.action == 1) rackSimPlug(step.device);
            if (step.action == 2) rackSimPowerCycle(step.device);
        }
    }).detach();
}

}  // namespace racksim
