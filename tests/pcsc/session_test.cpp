// A host session from start to end, as a PC/SC client runs it: establish,
// list, wait for a card, connect, transmit, reconnect, disconnect, release;
// on a card that came after the bring-up.
#include "pcsc_test_support.h"

#include <cstring>
#include <thread>

namespace pcsc_test {
namespace {

using namespace std::string_literals;
using SessionTest = test_support::RackFixture;

TEST_F(SessionTest, FromEstablishToRelease)
{
    int device = addRack("C3", 2);
    startLibrary(1);
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    ASSERT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);

    char* names = nullptr;
    DWORD size = SCARD_AUTOALLOCATE;
    ASSERT_EQ(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&names), &size), SCARD_S_SUCCESS);
    ASSERT_EQ(std::string(names, size), "Tessel C3 R1\0Tessel C3 R2\0\0"s);
    const std::string reader = names;  // the first name
    SCardFreeMemory(context, names);

    // First look, then wait for a card.
    SCARD_READERSTATEA state;
    std::memset(&state, 0, sizeof state);
    state.szReader = reader.c_str();
    ASSERT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    // The high 16 bits carry the reader's count of card events.
    ASSERT_EQ(state.dwEventState & 0xFFFF, DWORD(SCARD_STATE_CHANGED | SCARD_STATE_EMPTY));
    state.dwCurrentState = state.dwEventState;
    std::thread inserter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        insertCard(device, 1, atrT0ThenT1());
    });
    EXPECT_EQ(SCardGetStatusChangeA(context, INFINITE, &state, 1), SCARD_S_SUCCESS);
    inserter.join();
    ASSERT_EQ(state.dwEventState & 0xFFFF, DWORD(SCARD_STATE_CHANGED | SCARD_STATE_PRESENT));
    ASSERT_EQ(std::vector<uint8_t>(state.rgbAtr, state.rgbAtr + state.cbAtr), atrT0ThenT1());

    // The protocol comes from the ATR the card event brought.
    SCARDHANDLE card = 0;
    DWORD active = 0;
    ASSERT_EQ(SCardConnectA(context, reader.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                            &card, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T0);

    const BYTE select[] = {0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
    BYTE answer[1024];
    DWORD length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT0Pci, select, sizeof select, nullptr, answer, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(answer, answer + length), (std::vector<uint8_t>{0x90, 0x00}));

    // After a reset by reconnect the card still answers.
    ASSERT_EQ(SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_RESET_CARD, &active), SCARD_S_SUCCESS);
    rackSimSetEcho(device, 1);
    const BYTE read[] = {0x00, 0xB0, 0x00, 0x00, 0x00};
    length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT0Pci, read, sizeof read, nullptr, answer, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(answer, answer + length), std::vector<uint8_t>(read, read + sizeof read));

    EXPECT_EQ(SCardDisconnect(card, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_FALSE(g_racks[0]->isLocked());
}

}  // namespace
}  // namespace pcsc_test
