// Fuzz target: the byte stream from a rack into the receive path
// (reassembly, dispatch, enumeration, card state), with the emulator's
// slots behind the rack answering whatever the library sends them.
//
// Each input gets a new Rack on a fresh emulator. Its worker threads are
// stopped at once, and this thread does their work in their order, so
// that a run depends on the input alone:
//   byte 0, bits 0-5: the size of the pieces in which the rest of the input
//                     is put on the line (0: all at once);
//   byte 0, bit 6:    the rack is brought up first (slot map, status of
//                     every reader, closing frame), so that the stream
//                     meets readers in the event state; otherwise it meets
//                     a rack that has not asked for its slot map;
//   bytes 1 on:       the bytes the rack sends.
// After each piece, the receive loop's steps run until the device's queue
// is empty: read what waits, the watchdog when a frame cannot complete,
// and the status thread's pass over the readers' incoming mailboxes.
#include <cstddef>
#include <algorithm>
#include <cstdint>

#include "fuzz_support.h"
#include "link/rack.h"
#include "reader/status_worker.h"
#include "platform/d2xx.h"

namespace {

// A bound on the rounds of one drain. Each round either reads bytes that
// the device holds or gives a stuck frame up, and the slots answer each
// frame of the host with a few frames, so a healthy drain ends well below.
constexpr int kMostRounds = 4096;

// The status thread's pass.
void statusPass(Rack& rack)
{
    for (size_t i = 0, n = rack.readers().size(); i < n; ++i) {
        Reader* reader = rack.readers()[i];
        if (reader->mailboxFull(false, false)) takeReaderStatus(rack, *reader);
    }
}

// The receive thread's watchdog, fired as if the link had been quiet for
// longer than its limit.
void watchdog(Rack& rack)
{
    if (rack.expectedLength != 0 && rack.rxMsgLastIndexOf != 0 && rack.expectedLength != rack.rxMsgLastIndexOf) {
        rack.rxMsg[0] = 0;
        rack.receiveBytes(0);
        rack.receiveBytes(0);
    }
}

// The receive thread's polls until the device has nothing more to give.
void drain(Rack& rack)
{
    for (int round = 0; round < kMostRounds; ++round) {
        uint32_t waiting = 0;
        FT_GetQueueStatus(rack.ftHandle, &waiting);
        if (waiting == 0) {
            statusPass(rack);
            FT_GetQueueStatus(rack.ftHandle, &waiting);
            if (waiting == 0) return;
        }
        uint32_t heldBefore = rack.rxMsgLastIndexOf;
        rack.receiveBytes(waiting);
        // Bytes wait but none could be read: the frame at the head can
        // never complete, which the receive loop gives up at once.
        if (rack.rxMsgLastIndexOf == heldBefore && rack.rxMsgLastIndexOf >= 1000) watchdog(rack);
        statusPass(rack);
    }
    __builtin_trap();  // the receive path went round without end
}

// The start of the rack's life as discovery drives it: the enumerate
// frame, the master's slot map, the status of each reader and the closing
// frame, all answered by the emulator.
void bringUp(Rack& rack)
{
    rack.startEnumeration();
    drain(rack);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const uint8_t mode = data[0];
    const size_t piece = mode & 0x3F;
    const bool broughtUp = (mode & 0x40) != 0;
    ++data;
    --size;

    int device = fuzz_support::freshRack();
    {
        Rack rack(fuzz_support::kSerial);
        rack.stopWorkers();
        if (broughtUp) bringUp(rack);

        for (size_t at = 0; at < size;) {
            size_t n = piece == 0 ? size - at : std::min(piece, size - at);
            rackSimInjectBytes(device, data + at, static_cast<int>(n));
            drain(rack);
            at += n;
        }
        // The link goes quiet: a second and more pass, the watchdog fires,
        // and what it brings to the head is parsed.
        watchdog(rack);
        rack.receiveBytes(0);
        rack.receiveBytes(0);
        drain(rack);

        // The rack lock is free or held by one of this rack's readers.
        Reader* holder = rack.lockHolder();
        if (holder != nullptr) {
            bool known = false;
            for (size_t i = 0, n = rack.readers().size(); i < n; ++i) known = known || rack.readers()[i] == holder;
            if (!known) __builtin_trap();
        }
        // Card states are only ever the three of the model.
        for (size_t i = 0, n = rack.readers().size(); i < n; ++i) {
            uint32_t state = rack.readers()[i]->cardState();
            if (state != kStateNoCard && state != kStateCard && state != kStateMuteCard) __builtin_trap();
            if (rack.readers()[i]->atrLength() > Atr::capacity) __builtin_trap();
        }
        if (rack.rxMsgLastIndexOf > Rack::rxCapacity) __builtin_trap();
    }
    fuzz_support::forgetCardHandles();
    return 0;
}
