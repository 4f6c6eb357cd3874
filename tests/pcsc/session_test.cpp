// A host session from start to end, as a PC/SC client runs it: establish,
// list, wait for a card, connect, transmit, ask for status and attributes,
// disconnect, release; once with the narrow calls and once with the wide.
#include "pcsc_test_support.h"

#include <cstring>
#include <thread>

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class SessionTest : public test_support::RackFixture {
protected:
    void startEmptyRack()
    {
        device_ = addRack("C3", 2);
        startLibrary(1);
        clearLog();
    }

    void insertLater(int address, std::vector<uint8_t> atr)
    {
        inserter_ = std::thread([this, address, atr] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            insertCard(device_, address, atr);
        });
    }

    void TearDown() override
    {
        if (inserter_.joinable()) inserter_.join();
        RackFixture::TearDown();
    }

    int device_ = -1;
    std::thread inserter_;
};

TEST_F(SessionTest, NarrowSession)
{
    startEmptyRack();
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
    ASSERT_EQ(state.dwEventState, DWORD(SCARD_STATE_CHANGED | SCARD_STATE_EMPTY));
    state.dwCurrentState = state.dwEventState;
    insertLater(1, atrT0ThenT1());
    ASSERT_EQ(SCardGetStatusChangeA(context, INFINITE, &state, 1), SCARD_S_SUCCESS);
    ASSERT_EQ(state.dwEventState, DWORD(SCARD_STATE_CHANGED | SCARD_STATE_PRESENT));
    ASSERT_EQ(std::vector<uint8_t>(state.rgbAtr, state.rgbAtr + state.cbAtr), atrT0ThenT1());

    SCARDHANDLE card = 0;
    DWORD active = 0;
    ASSERT_EQ(SCardConnectA(context, reader.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                            &card, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T0);

    // A short answer, then an extended one.
    const BYTE select[] = {0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
    BYTE answer[1024];
    DWORD length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT0Pci, select, sizeof select, nullptr, answer, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(answer, answer + length), (std::vector<uint8_t>{0x90, 0x00}));
    std::vector<uint8_t> record(600);
    for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(i % 251);
    rackSimSetFixedAnswer(device_, 1, record.data(), static_cast<int>(record.size()));
    const BYTE read[] = {0x00, 0xB0, 0x00, 0x00, 0x00};
    length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT0Pci, read, sizeof read, nullptr, answer, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(answer, answer + length), record);

    char name[32];
    BYTE atr[32];
    DWORD nameSize = sizeof name, atrSize = sizeof atr, cardState = 0, protocol = 0;
    ASSERT_EQ(SCardStatusA(card, name, &nameSize, &cardState, &protocol, atr, &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(name), reader);
    EXPECT_EQ(cardState, kStateCard);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T0);
    EXPECT_EQ(std::vector<uint8_t>(atr, atr + atrSize), atrT0ThenT1());

    BYTE attribute[64];
    DWORD attributeLength = sizeof attribute;
    ASSERT_EQ(SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, attribute, &attributeLength), SCARD_S_SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(attribute), "Quorvane Ltd.");
    attributeLength = sizeof attribute;
    ASSERT_EQ(SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, attribute, &attributeLength), SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(attribute, attribute + attributeLength), atrT0ThenT1());

    ASSERT_EQ(SCardBeginTransaction(card), SCARD_S_SUCCESS);
    ASSERT_EQ(SCardEndTransaction(card, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);

    // Each disposition; the handle lives on through all of them.
    rackSimClearWireLog(device_);
    EXPECT_EQ(SCardDisconnect(card, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_TRUE(wireLog(device_).empty());
    EXPECT_EQ(SCardDisconnect(card, SCARD_RESET_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardDisconnect(card, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardDisconnect(card, SCARD_EJECT_CARD), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(framesTo(wireLog(device_), 1),
              (std::vector<std::vector<uint8_t>>{{0x55, 0x01, 0x00, 0x20, 0x8A}, {0x55, 0x01, 0x00, 0x20, 0x8A}}));
    EXPECT_EQ(SCardStatusA(card, nullptr, nullptr, &cardState, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_FALSE(g_racks[0]->isLocked());
}

TEST_F(SessionTest, WideSessionWithATOneCard)
{
    startEmptyRack();
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context), SCARD_S_SUCCESS);

    DWORD size = 0;
    ASSERT_EQ(SCardListReadersW(context, nullptr, nullptr, &size), SCARD_S_SUCCESS);
    std::vector<WCHAR> names(size);
    ASSERT_EQ(SCardListReadersW(context, nullptr, names.data(), &size), SCARD_S_SUCCESS);
    const std::wstring reader(names.data() + 13);  // the second name
    ASSERT_EQ(reader, L"Tessel C3 R2");

    SCARD_READERSTATEW state;
    std::memset(&state, 0, sizeof state);
    state.szReader = reader.c_str();
    state.dwCurrentState = SCARD_STATE_EMPTY;
    insertLater(2, atrOnlyT1());
    ASSERT_EQ(SCardGetStatusChangeW(context, INFINITE, &state, 1), SCARD_S_SUCCESS);
    ASSERT_EQ(state.cbAtr, 3u);

    SCARDHANDLE card = 0;
    DWORD active = 0;
    ASSERT_EQ(SCardConnectW(context, reader.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T1);

    rackSimSetEcho(device_, 2);
    const BYTE command[] = {0x00, 0x84, 0x00, 0x00, 0x08};
    BYTE answer[16];
    DWORD length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, command, sizeof command, nullptr, answer, &length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(answer, answer + length), std::vector<uint8_t>(command, command + sizeof command));

    WCHAR* name = nullptr;
    DWORD nameSize = SCARD_AUTOALLOCATE, protocol = 0;
    ASSERT_EQ(SCardStatusW(card, reinterpret_cast<LPWSTR>(&name), &nameSize, nullptr, &protocol, nullptr, nullptr),
              SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(name), reader);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T1);
    SCardFreeMemory(context, name);

    EXPECT_EQ(SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_RESET_CARD, &active),
              SCARD_S_SUCCESS);
    length = sizeof answer;
    ASSERT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, command, sizeof command, nullptr, answer, &length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(SCardDisconnect(card, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
}

}  // namespace
}  // namespace pcsc_test
