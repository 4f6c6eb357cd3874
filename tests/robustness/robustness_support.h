// Helpers of the robustness tests: exchanges through the exported API with
// echo cards, the state an exchange may leave behind, and log searches.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "link/rack.h"
#include "pcsc/lookups.h"
#include "pcsc/winscard_api.h"
#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace robustness {

using Bytes = std::vector<uint8_t>;

inline std::string readerName(const std::string& serial, int address)
{
    return "Tessel " + serial + " R" + std::to_string(address);
}

inline Reader* readerNamed(const std::string& name)
{
    Rack* rack = rackByReaderName(name.c_str());
    return rack != nullptr ? rack->readerByName(name.c_str()) : nullptr;
}

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
        for (uint8_t b : buffer)
            if (b != fill) return false;
        return true;
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

inline SCARDHANDLE connect(const std::string& name)
{
    SCARDHANDLE handle = 0;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(1, name.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_S_SUCCESS)
        << name;
    return handle;
}

inline size_t countOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// True if the parts occur in `text` in this order, without overlapping.
inline bool containsInOrder(const std::string& text, const std::vector<std::string>& parts)
{
    size_t at = 0;
    for (const std::string& part : parts) {
        size_t found = text.find(part, at);
        if (found == std::string::npos) return false;
        at = found + part.size();
    }
    return true;
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

}  // namespace robustness
