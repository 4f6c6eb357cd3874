// Helpers shared by the PC/SC tests: reader names, guarded buffers that
// show any write past their end, and connect shortcuts.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <cstdint>
#include <string>
#include <vector>

#include "link/rack.h"
#include "pcsc/connection_table.h"
#include "pcsc/lookups.h"
#include "pcsc/winscard_api.h"
#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace pcsc_test {

using test_support::kTimeScale;
using test_support::waitUntil;

inline std::string readerName(const std::string& serial, int address)
{
    return "Tessel " + serial + " R" + std::to_string(address);
}

// Each byte as the character of its number.
inline std::wstring widen(const std::string& text)
{
    std::wstring wide;
    for (unsigned char c : text) wide.push_back(static_cast<wchar_t>(c));
    return wide;
}

// A buffer of `size` elements followed by guard elements; every element
// starts as `fill`, so a write past the end shows in guardIntact().
template <typename Element>
class Guarded {
public:
    static constexpr size_t guardCount = 16;

    explicit Guarded(size_t size, Element fill = Element(0x5A)) : size_(size), fill_(fill), storage_(size + guardCount, fill) {}

    Element* data() { return storage_.data(); }
    size_t size() const { return size_; }
    const Element& operator[](size_t i) const { return storage_[i]; }
    bool guardIntact() const
    {
        return std::all_of(storage_.begin() + static_cast<std::ptrdiff_t>(size_), storage_.end(),
                           [this](Element e) { return e == fill_; });
    }
    bool untouched() const
    {
        return std::all_of(storage_.begin(), storage_.end(), [this](Element e) { return e == fill_; });
    }
    std::vector<Element> contents(size_t count) const
    {
        return std::vector<Element>(storage_.begin(), storage_.begin() + static_cast<std::ptrdiff_t>(count));
    }

private:
    size_t size_;
    Element fill_;
    std::vector<Element> storage_;
};

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

inline size_t countOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

inline Reader* readerNamed(const std::string& name)
{
    return findReaderByName(name.c_str()).reader;
}

inline Rack* rackOf(const std::string& name) { return findReaderByName(name.c_str()).rack; }

// Frames the host wrote to one slot address, in order.
inline std::vector<std::vector<uint8_t>> framesTo(const std::vector<std::vector<uint8_t>>& wire, int address)
{
    std::vector<std::vector<uint8_t>> frames;
    for (const auto& frame : wire)
        if (frame.size() >= 4 && frame[0] == 0x55 && frame[1] == address) frames.push_back(frame);
    return frames;
}

// The card commands (command byte 0x40) among them.
inline std::vector<std::vector<uint8_t>> commandsTo(const std::vector<std::vector<uint8_t>>& wire, int address)
{
    std::vector<std::vector<uint8_t>> frames;
    for (const auto& frame : framesTo(wire, address))
        if (frame[3] == 0x40) frames.push_back(frame);
    return frames;
}

// A live context for the tests of this process: established on first use
// (and again after a test released it), kept across tests. Call it once the
// racks are up, before the log is cleared: establishing traces.
inline SCARDCONTEXT testContext()
{
    // Test threads connect at once: one of them establishes.
    static std::mutex guard;
    std::lock_guard<std::mutex> hold(guard);
    static SCARDCONTEXT context = 0;
    if (context == 0 || !connection_table::isLiveContext(context)) {
        EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    }
    return context;
}

inline SCARDHANDLE connectTo(const std::string& name, DWORD preferred = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                             DWORD shareMode = SCARD_SHARE_SHARED)
{
    SCARDHANDLE handle = 0;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(testContext(), name.c_str(), shareMode, preferred, &handle, &active), SCARD_S_SUCCESS)
        << name;
    return handle;
}

// A direct connection: for readers without a usable card too.
inline SCARDHANDLE connectDirect(const std::string& name) { return connectTo(name, 0, SCARD_SHARE_DIRECT); }

// The example ATRs: T=1 alone; T=0 then T=1; none.
inline std::vector<uint8_t> atrOnlyT1() { return {0x3B, 0x80, 0x01}; }
inline std::vector<uint8_t> atrT0ThenT1() { return {0x3B, 0x80, 0x80, 0x01}; }
inline std::vector<uint8_t> atrWithoutProtocol() { return {0x3B, 0x60, 0x00, 0x00}; }

// One rack "A1" with a slot per entry of `cards` (an empty ATR leaves the
// slot empty), the library started, the card at `muteAddress` (if any)
// turned mute, the wire log and the trace log cleared.
class OneRackTest : public test_support::RackFixture {
protected:
    void startRack(const std::vector<std::vector<uint8_t>>& cards, int muteAddress = 0)
    {
        device_ = addRack("A1", static_cast<int>(cards.size()));
        for (size_t i = 0; i < cards.size(); ++i)
            if (!cards[i].empty()) insertCard(device_, static_cast<int>(i + 1), cards[i]);
        startLibrary(1);
        if (muteAddress != 0) {
            rackSimMuteCard(device_, muteAddress);
            const std::string name = readerName("A1", muteAddress);
            ASSERT_TRUE(waitUntil([&] { return readerNamed(name)->cardState() == kStateMuteCard; }));
        }
        testContext();
        rackSimClearWireLog(device_);
        clearLog();
    }

    // Lets the status thread take the frames a test's connects left behind
    // (it traces them), so that a log cleared afterwards holds only what
    // follows.
    void settle()
    {
        for (Rack* rack : {rackOf(readerName("A1", 1))}) {
            const GrowingList<Reader*>& readers = rack->readers();
            for (size_t i = 0; i < readers.size(); ++i)
                EXPECT_TRUE(waitUntil([&] { return !readers[i]->statusWaiting(); }));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    int device_ = -1;
};

}  // namespace pcsc_test
