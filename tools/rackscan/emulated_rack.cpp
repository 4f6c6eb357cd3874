#include "tools/rackscan/emulated_rack.h"

#include "sim/rack_sim.h"

#include <chrono>

namespace rackscan {
namespace {

void putCard(const EmulatorSetup& setup, int device, int slot)
{
    std::vector<uint8_t> atr = setup.atr.empty() ? defaultEmulatedAtr() : setup.atr;
    rackSimInsertCard(device, slot, atr.data(), static_cast<int>(atr.size()));
}

}  // namespace

std::string emulatedSerial(int rack) { return racksim::rackSerial(rack); }

std::vector<uint8_t> defaultEmulatedAtr() { return racksim::defaultCardAtr(); }

void setUpEmulatedRacks(const EmulatorSetup& setup) { racksim::buildRacks(setup); }

int EmulatedCardEvents::start(int delayMs, int thenRemoveAfterMs)
{
    stop();
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = false;
    }
    int used = setup_.cardsPerRack + setup_.muteCardsPerRack + 1;
    bool insertFirst = used <= setup_.slotsPerRack;
    if (!insertFirst) used = setup_.slotsPerRack;
    thread_ = std::thread([this, used, insertFirst, delayMs, thenRemoveAfterMs] {
        if (!pause(delayMs)) return;
        if (insertFirst)
            putCard(setup_, 0, used);
        else
            rackSimRemoveCard(0, used);
        if (thenRemoveAfterMs < 0 || !pause(thenRemoveAfterMs)) return;
        if (insertFirst)
            rackSimRemoveCard(0, used);
        else
            putCard(setup_, 0, used);
    });
    return used;
}

void EmulatedCardEvents::stop()
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

bool EmulatedCardEvents::pause(int milliseconds)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopping_; });
}

}  // namespace rackscan
