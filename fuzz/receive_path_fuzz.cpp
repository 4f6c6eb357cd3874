// Fuzz target: the byte stream from a rack into the receive path
// (reassembly, dispatch, enumeration, card state), with the emulator's
// slots behind the rack answering whatever the library sends them.
//
// Each input gets a new Rack on a fresh emulator. Its worker threads are
// stopped at once, and this thread does their work in their order, on a
// clock of its own, so that a run depends on the input alone:
//   byte 0, bits 0-5: the size of the pieces in which the rest of the input
//                     is put on the line (0: all at once);
//   byte 0, bit 6:    the rack is brought up first (slot map, status of
//                     every reader, closing frame), so that the stream
//                     meets readers in the event state; otherwise it meets
//                     a rack that has not asked for its slot map;
//   byte 0, bit 7:    the receive thread comes back late to every pass,
//                     as on a loaded machine, so that the quiet-link
//                     watchdog's limit has always passed;
//   bytes 1 on:       the bytes the rack sends.
// After each piece, the receive thread's passes and the status thread's
// pass over the readers' incoming mailboxes run until the device's queue is
// empty. At the end the link goes quiet for longer than the watchdog waits.
#include <cstddef>
#include <algorithm>
#include <cstdint>

#include "fuzz_support.h"
#include "link/rack.h"
#include "platform/clock.h"
#include "link/status_worker.h"

namespace {

// A bound on the passes of one drain. Each pass either reads bytes that the
// device holds or gives a stuck frame up, and the slots answer each frame
// of the host with a few frames, so a healthy drain ends well below.
constexpr int kMostPasses = 4096;

constexpr int64_t kPollMs = 5;
constexpr int64_t kLateMs = FrameAssembler::quietLimitMs + 1;

struct Run {
    Rack& rack;
    int64_t now;
    int64_t step;

    // Both threads' passes until the device has nothing more to give.
    void drain()
    {
        for (int pass = 0; pass < kMostPasses; ++pass) {
            now += step;
            bool waited = rack.receivePass(now) > 0;
            takeNewStatuses(rack);
            if (!waited && rack.receivePass(now += step) == 0) return;
        }
        __builtin_trap();  // the receive path went round without end
    }

    void quietLink()
    {
        now += kLateMs;
        drain();
    }
};

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
    const bool late = (mode & 0x80) != 0;
    ++data;
    --size;

    int device = fuzz_support::freshRack();
    {
        Rack rack(fuzz_support::kSerial);
        rack.stopWorkers();
        // The loop's own start, on this run's clock.
        Run run{rack, platform::wallClockMs(), late ? kLateMs : kPollMs};
        rack.startReceiving(run.now);
        if (broughtUp) {
            // The start of the rack's life as discovery drives it: the
            // enumerate frame, the master's slot map, the status of each
            // reader and the closing frame, all answered by the emulator.
            rack.startEnumeration();
            run.drain();
        }

        for (size_t at = 0; at < size;) {
            size_t n = piece == 0 ? size - at : std::min(piece, size - at);
            rackSimInjectBytes(device, data + at, static_cast<int>(n));
            run.drain();
            at += n;
        }
        run.quietLink();

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
        if (rack.heldBytes() > FrameAssembler::capacity) __builtin_trap();
    }
    return 0;
}
