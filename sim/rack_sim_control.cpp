// The control surface: tests, tools and benchmarks set up devices, slots,
// cards and faults here and read back what the host did.
#include "sim/rack_sim.h"

#include <cstring>

#include "sim/rack_registry.h"
#include "sim/rx_event.h"
#include "sim/vcard_bridge.h"

using racksim::Bytes;
using racksim::RackDevice;
using racksim::Slot;

namespace {

using Lock = std::lock_guard<std::mutex>;

bool validAddress(int address) { return address >= 1 && address <= racksim::kSlotCount; }

// Runs `change` on a slot under the registry's lock, if device and address
// exist, and brings the device up to date around it.
template <class Change>
void withSlot(int device, int address, Change change)
{
    Lock lock(racksim::registry().mutex);
    RackDevice* d = racksim::deviceAt(device);
    if (!d || !validAddress(address)) return;
    racksim::Nanos now = racksim::clockNow();
    d->advance(now);
    change(*d, d->slot(address), now);
}

template <class Change>
void withDevice(int device, Change change)
{
    Lock lock(racksim::registry().mutex);
    RackDevice* d = racksim::deviceAt(device);
    if (!d) return;
    change(*d, racksim::clockNow());
}

Bytes bytesOf(const unsigned char* bytes, int length)
{
    if (!bytes || length <= 0) return {};
    return Bytes(bytes, bytes + length);
}

}  // namespace

extern "C" {

void RACKSIM_CALL rackSimReset(void)
{
    racksim::detachAllVirtualCards();  // before the devices go
    racksim::Registry& r = racksim::registry();
    Lock lock(r.mutex);
    r.handles.clear();
    r.unpluggedHandles.clear();
    r.infoList.clear();
    r.infoListMade = false;
    r.devices.clear();
}

int RACKSIM_CALL rackSimAddDevice(const char* description, const char* serial)
{
    racksim::Registry& r = racksim::registry();
    Lock lock(r.mutex);
    r.devices.push_back(std::unique_ptr<RackDevice>(
        new RackDevice(description ? description : "", serial ? serial : "", racksim::clockNow())));
    return static_cast<int>(r.devices.size() - 1);
}

void RACKSIM_CALL rackSimUnplug(int device)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        racksim::setPluggedLocked(d, false);
    });
}

void RACKSIM_CALL rackSimPlug(int device)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos) { racksim::setPluggedLocked(d, true); });
}

void RACKSIM_CALL rackSimPowerCycle(int device)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) { d.powerCycle(now); });
}

int RACKSIM_CALL rackSimIsPlugged(int device)
{
    int result = -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos) { result = d.plugged() ? 1 : 0; });
    return result;
}

void RACKSIM_CALL rackSimSetOpenFails(int device, int fails)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos) { d.openFails = fails != 0; });
}

int RACKSIM_CALL rackSimIsOpen(int device)
{
    int result = -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos) { result = d.isOpen() ? 1 : 0; });
    return result;
}

void RACKSIM_CALL rackSimSetSlotMapByte(int device, int address, unsigned char mapByte)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) { s.mapByte = mapByte; });
}

void RACKSIM_CALL rackSimSetSlotAnswers(int device, int address, int answers)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) { s.answerMode = answers < 0 ? -1 : answers != 0; });
}

void RACKSIM_CALL rackSimAddSlots(int device, int firstAddress, int count)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos) {
        for (int a = firstAddress; a < firstAddress + count; ++a)
            if (validAddress(a)) d.slot(a).mapByte = 0x01;
    });
}

void RACKSIM_CALL rackSimInsertCard(int device, int address, const unsigned char* atr, int atrLength)
{
    if (!atr || atrLength < 1 || atrLength > 64) return;
    withSlot(device, address, [&](RackDevice& d, Slot& s, racksim::Nanos now) {
        s.card = Slot::Card::Present;
        s.atr = bytesOf(atr, atrLength);
        d.cardChanged(address, now);
    });
}

void RACKSIM_CALL rackSimRemoveCard(int device, int address)
{
    withSlot(device, address, [&](RackDevice& d, Slot& s, racksim::Nanos now) {
        s.card = Slot::Card::None;
        s.atr.clear();
        d.cardChanged(address, now);
    });
}

void RACKSIM_CALL rackSimMuteCard(int device, int address)
{
    withSlot(device, address, [&](RackDevice& d, Slot& s, racksim::Nanos now) {
        s.card = Slot::Card::Mute;
        s.atr.clear();
        d.cardChanged(address, now);
    });
}

void RACKSIM_CALL rackSimSetEcho(int device, int address)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) { s.responder = Slot::Responder::Echo; });
}

void RACKSIM_CALL rackSimSetFixedAnswer(int device, int address, const unsigned char* answer, int length)
{
    if (length < 0 || length > 4096 || (length > 0 && !answer)) return;
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) {
        s.responder = Slot::Responder::Fixed;
        s.fixedAnswer = bytesOf(answer, length);
    });
}

void RACKSIM_CALL rackSimAddTableEntry(int device, int address, const unsigned char* command, int commandLength,
                                       const unsigned char* answer, int answerLength)
{
    if (commandLength < 0 || answerLength < 0 || answerLength > 4096) return;
    if ((commandLength > 0 && !command) || (answerLength > 0 && !answer)) return;
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) {
        s.responder = Slot::Responder::Table;
        Bytes key = bytesOf(command, commandLength);
        for (auto& entry : s.table)
            if (entry.first == key) {
                entry.second = bytesOf(answer, answerLength);
                return;
            }
        s.table.emplace_back(key, bytesOf(answer, answerLength));
    });
}

void RACKSIM_CALL rackSimSetCardDelayMs(int device, int address, unsigned milliseconds)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) { s.delayMs = milliseconds; });
}

void RACKSIM_CALL rackSimSetAnswerStatus(int device, int address, unsigned char statusByte)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) { s.answerStatus = statusByte; });
}

void RACKSIM_CALL rackSimSetSlotFault(int device, int address, int fault, int frames)
{
    withSlot(device, address, [&](RackDevice&, Slot& s, racksim::Nanos) {
        bool clear = fault == RACKSIM_SLOT_OK || frames == 0;
        s.fault = clear ? RACKSIM_SLOT_OK : fault;
        s.faultFrames = clear ? 0 : (frames < 0 ? -1 : frames);
    });
}

void RACKSIM_CALL rackSimSetDeviceFault(int device, int fault, int on)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        d.setDeviceFault(fault, on != 0);
    });
}

void RACKSIM_CALL rackSimInjectBytes(int device, const unsigned char* bytes, int length)
{
    if (!bytes || length <= 0) return;
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) { d.injectBytes(bytes, static_cast<size_t>(length), now); });
}

void RACKSIM_CALL rackSimSetWireRealism(int device, int on)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        d.setWireRealism(on != 0);
    });
}

void RACKSIM_CALL rackSimSetLatencyTimerMs(int device, unsigned milliseconds)
{
    if (milliseconds < 1) milliseconds = 1;
    if (milliseconds > 255) milliseconds = 255;
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        d.setLatencyTimer(static_cast<racksim::Nanos>(milliseconds) * racksim::kMillisecond);
    });
}

int RACKSIM_CALL rackSimLineSettings(int device, unsigned* baudRate, int* wordLength, int* stopBits, int* parity)
{
    int result = -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos) {
        d.lineSettings(baudRate, wordLength, stopBits, parity);
        result = 0;
    });
    return result;
}

int RACKSIM_CALL rackSimWireLogCount(int device)
{
    int result = -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos) { result = static_cast<int>(d.wireLog().size()); });
    return result;
}

int RACKSIM_CALL rackSimWireLogEntry(int device, int index, unsigned char* buffer, int capacity,
                                     long long* microseconds)
{
    int result = -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos) {
        const auto& log = d.wireLog();
        if (index < 0 || static_cast<size_t>(index) >= log.size()) return;
        const racksim::WireLogEntry& entry = log[static_cast<size_t>(index)];
        size_t n = capacity > 0 ? std::min(entry.bytes.size(), static_cast<size_t>(capacity)) : 0;
        if (buffer && n > 0) std::memcpy(buffer, entry.bytes.data(), n);
        if (microseconds) *microseconds = entry.microseconds;
        result = static_cast<int>(entry.bytes.size());
    });
    return result;
}

void RACKSIM_CALL rackSimClearWireLog(int device)
{
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        d.clearWireLog();
    });
}

long long RACKSIM_CALL rackSimCounter(int device, int counter)
{
    long long result = -1;
    if (counter < 0 || counter >= racksim::kCounterCount) return -1;
    withDevice(device, [&](RackDevice& d, racksim::Nanos now) {
        d.advance(now);
        result = d.counter(counter);
    });
    return result;
}

long long RACKSIM_CALL rackSimOwnCpuUs(void) { return racksim::watcherCpuUs(); }

}  // extern "C"
