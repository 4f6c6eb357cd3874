// Helpers of the robustness tests: racks of echo cards, exchanges through
// the exported API, and the hexDump form of the trace. Reader names, log
// searches and connects are shared with the PC/SC tests.
#pragma once

#include "pcsc/pcsc_test_support.h"

namespace robustness {

using Bytes = std::vector<uint8_t>;
using pcsc_test::commandsTo;
using pcsc_test::containsInOrder;
using pcsc_test::countOf;
using pcsc_test::readerName;
using pcsc_test::readerNamed;
using test_support::waitUntil;

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline SCARDHANDLE connect(const std::string& name) { return pcsc_test::connectTo(name, SCARD_PROTOCOL_T1); }

// One SCardTransmit and everything it hands back. The receive buffer is
// larger than any answer, and bytes the call did not write keep their fill.
struct Exchange {
    static constexpr uint8_t fill = 0xA5;

    LONG result = 0;
    DWORD length = 0;
    Bytes buffer;

    Bytes answer() const { return Bytes(buffer.begin(), buffer.begin() + std::min<size_t>(length, buffer.size())); }
    bool bufferUntouched() const
    {
        return std::all_of(buffer.begin(), buffer.end(), [](uint8_t b) { return b == fill; });
    }
};

inline Exchange transmit(SCARDHANDLE handle, const Bytes& command, DWORD capacity = 2048)
{
    Exchange e;
    e.buffer.assign(capacity, Exchange::fill);
    e.length = capacity;
    e.result = SCardTransmit(handle, &g_rgSCardT1Pci, command.data(), static_cast<DWORD>(command.size()), nullptr,
                             e.buffer.data(), &e.length);
    return e;
}

// The hexDump form of the trace log: two lower-case digits and a blank each.
inline std::string hexText(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 0x0F];
        text += ' ';
    }
    return text;
}

class EchoRackFixture : public test_support::RackFixture {
protected:
    // A rack whose every slot holds a T=1 card that echoes each command.
    int echoRack(const std::string& serial, int slots)
    {
        int device = addRack(serial, slots);
        for (int a = 1; a <= slots; ++a) {
            insertCard(device, a, test_support::atrT1());
            rackSimSetEcho(device, a);
        }
        return device;
    }
};

}  // namespace robustness
