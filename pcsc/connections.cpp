// Card connections. There are no connection objects: a card handle belongs
// to its reader for the reader's whole life, so connecting means checking
// the card and the protocol, telling the slot which protocol to use and
// waiting for its reply; disconnecting means, at most, sending the same
// message again.
#include <cstdint>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/host_handle.h"
#include "pcsc/lookups.h"
#include "pcsc/winscard_api.h"
#include "platform/clock.h"
#include "reader/protocol_walk.h"
#include "reader/reader.h"

namespace {

// The slot gets this long to take up the protocol before the reply wait.
constexpr uint32_t kSettlePauseMs = 1000;
// Whole calendar seconds that a connect or disconnect waits for the reply.
constexpr int64_t kReplyWaitSeconds = 17;
// dwPreferredProtocols is compared with this as a plain number, not read as
// a mask: above it the ATR chooses.
constexpr DWORD kHighestRequestedProtocol = SCARD_PROTOCOL_T1;

// Waits until a frame from the slot stands in its incoming mailbox, or the
// limit has passed. The flag is not cleared before the message goes out, so
// one that an earlier exchange left set ends the wait at once. Nobody looks
// at how the wait ended. The thread sleeps on the reader's signal, which a
// frame landing in the mailbox wakes; without a wake it sleeps until the
// calendar clock's next whole second, the next moment its limit test can
// change.
void waitForReaderReply(Reader* reader)
{
    const int64_t start = platform::calendarSeconds();
    int64_t secondBeforeSleep = start;
    bool sleptToBoundary = false;
    for (;;) {
        const uint32_t seen = reader->activity.generation();
        if (reader->mailboxFull(false, true) != 0) return;
        const int64_t now = platform::calendarSeconds();
        if (now - start >= kReplyWaitSeconds) return;
        // The calendar clock can lag the finer clock that timed the sleep
        // by a scheduler tick: if the second has not moved on yet, look
        // again in a millisecond rather than a whole second later.
        uint32_t sleepMs = platform::msToNextCalendarSecond();
        if (sleptToBoundary && now == secondBeforeSleep) sleepMs = 1;
        secondBeforeSleep = now;
        sleptToBoundary = !reader->activity.wait(seen, sleepMs);
    }
}

// The protocol choice of a connect. Returns false on a mismatch; otherwise
// *pdwActiveProtocol holds the protocol to use. Up to T=1 the request is
// tested against the ATR's protocols; above, the ATR's first protocol is
// taken, which may be 0 for an ATR that names none.
bool chooseProtocol(Reader* reader, DWORD requested, LPDWORD pdwActiveProtocol)
{
    const OfferedProtocols offered = offeredProtocols(reader->atrValue());
    // An ATR that names no protocol leaves the reader's mask as it was, so
    // a request is then tested against the protocols of an earlier card.
    if (offered.mask != 0) {
        reader->protocolMask.store(offered.mask, std::memory_order_release);
        logWrite("atr says " + decimalText(offered.first) + "\n");
    }
    if (requested > kHighestRequestedProtocol) {
        *pdwActiveProtocol = offered.first;
        return true;
    }
    const uint32_t mask = reader->protocolMask.load(std::memory_order_acquire);
    return (mask & requested) == requested;
}

// Tells the slot the protocol to use and gives it time to take it up.
void connectCard(Rack* rack, Reader* reader, uint32_t activeProtocol)
{
    if (!rack->connected()) return;
    // The API numbers protocols T + 1; the reader keeps the T number. An
    // active protocol of 0 leaves 0xFFFFFFFF, which the select message
    // treats as T=0.
    const uint32_t tNumber = activeProtocol - 1;
    logWrite("Connecting with prot T" + decimalText(tNumber) + "\n");
    reader->setProtocol(tNumber);
    rack->selectProtocol(reader);
    platform::pauseMs(kSettlePauseMs);
}

// Selects the protocol on the slot and waits for its reply, holding the
// reader's turn so that the reply cannot go to another thread's exchange
// with the same slot. The rack lock is freed afterwards in any case.
void selectAndWait(Rack* rack, Reader* reader, DWORD activeProtocol)
{
    ReaderTurn turn(reader);
    connectCard(rack, reader, activeProtocol);
    waitForReaderReply(reader);
    rack->unlockIfHeldBy(reader->address);
}

// What SCardDisconnect and SCardReconnect do with a disposition.
enum class Disposition { leave, resend, refused };

Disposition dispositionOf(DWORD value)
{
    if (value == SCARD_LEAVE_CARD) return Disposition::leave;
    // Reset and unpower are the same here: the slot has no message for
    // either but the protocol selection, sent again.
    if (value == SCARD_RESET_CARD || value == SCARD_UNPOWER_CARD) return Disposition::resend;
    return Disposition::refused;
}

}  // namespace

// szReader, phCard and pdwActiveProtocol are the caller's to supply; a null
// among them is refused after the entry trace instead of written through.
extern "C" TESSEL_EXPORT LONG WINAPI SCardConnectA(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode,
                                                   DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                                                   LPDWORD pdwActiveProtocol)
{
    logWrite(std::string("SCardConnectA: ") + (szReader != nullptr ? szReader : "") + "\n");
    if (szReader == nullptr || phCard == nullptr || pdwActiveProtocol == nullptr) return SCARD_E_INVALID_PARAMETER;
    *pdwActiveProtocol = dwPreferredProtocols;

    const RackReader found = findReaderByName(szReader);
    Rack* rack = found.rack;
    Reader* reader = found.reader;
    if (rack != nullptr) {
        logWrite("Got rack\n");
        logWrite("Got reader\n");
    }
    if (reader == nullptr) {
        logWrite("No Reader\n");
        return SCARD_E_READER_UNAVAILABLE;
    }
    // A card without an ATR (a mute one, or none) cannot be connected.
    if (reader->atrLength() == 0) {
        logWrite("No card\n");
        return SCARD_E_NO_SMARTCARD;
    }

    if (dwPreferredProtocols > kHighestRequestedProtocol)
        logWrite("Protocol unspecified\n");
    else
        logWrite("Requested protocol is " + decimalText(static_cast<uint32_t>(dwPreferredProtocols)) + "\n");
    if (!chooseProtocol(reader, dwPreferredProtocols, pdwActiveProtocol)) return SCARD_E_PROTO_MISMATCH;

    // Every connect to a slot gets the slot's one handle.
    *phCard = reader->handle;
    selectAndWait(rack, reader, *pdwActiveProtocol);
    // A slot that does not reply is no failure: the wait ran out, the rack
    // lock has been freed, and the host has its handle.
    return SCARD_S_SUCCESS;
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardConnectW(SCARDCONTEXT hContext, LPCWSTR szReader, DWORD dwShareMode,
                                                   DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                                                   LPDWORD pdwActiveProtocol)
{
    // The library's only wide trace.
    logWriteWide(std::wstring(L"SCardConnectW: ") + (szReader != nullptr ? szReader : L"") + L"\n");
    if (szReader == nullptr || phCard == nullptr || pdwActiveProtocol == nullptr) return SCARD_E_INVALID_PARAMETER;
    *pdwActiveProtocol = dwPreferredProtocols;

    const RackReader found = findReaderByWideName(szReader);
    Rack* rack = found.rack;
    Reader* reader = found.reader;
    if (reader == nullptr) return SCARD_E_READER_UNAVAILABLE;
    if (reader->atrLength() == 0) return SCARD_E_NO_SMARTCARD;

    // Unlike the narrow form, the handle is stored before the protocol
    // choice, so the host holds it after a mismatch too.
    *phCard = reader->handle;
    logWrite("pref prot is " + decimalText(static_cast<uint32_t>(dwPreferredProtocols)) + "\n");
    if (!chooseProtocol(reader, dwPreferredProtocols, pdwActiveProtocol)) return SCARD_E_PROTO_MISMATCH;
    logWrite("Connected\n");
    logWrite("active is " + decimalText(static_cast<uint32_t>(*pdwActiveProtocol)) + "\n");

    selectAndWait(rack, reader, *pdwActiveProtocol);
    return SCARD_S_SUCCESS;
}

// What SCardReconnect and SCardDisconnect do with reset or unpower: the slot
// is sent its stored protocol again, the one message it has for either.
// A disconnect then waits for the reply and frees the rack lock; a
// reconnect does neither, and the slot's next frame frees the lock.
namespace {

enum class AfterResend { returnAtOnce, waitForReply };

LONG resendProtocol(SCARDHANDLE hCard, DWORD disposition, AfterResend after)
{
    switch (dispositionOf(disposition)) {
    case Disposition::leave:
        // Nothing to tell the rack, and the handle is not even looked at.
        logWrite("leave card\n");
        return SCARD_S_SUCCESS;
    case Disposition::refused:
        return SCARD_E_INVALID_PARAMETER;
    case Disposition::resend:
        break;
    }
    const RackReader found = findReaderByCardHandle(hCard);
    Rack* rack = found.rack;
    Reader* reader = found.reader;
    if (reader == nullptr) {
        logWrite("idx missing\n");
        return SCARD_E_READER_UNAVAILABLE;
    }
    logWrite(reader->name + " reset\n");
    ReaderTurn turn(reader);
    rack->selectProtocol(reader);
    platform::pauseMs(kSettlePauseMs);
    if (after == AfterResend::waitForReply) {
        waitForReaderReply(reader);
        rack->unlockIfHeldBy(reader->address);
    }
    return SCARD_S_SUCCESS;
}

}  // namespace

// The protocol is not negotiated anew: dwPreferredProtocols is not read and
// pdwActiveProtocol is not written.
extern "C" TESSEL_EXPORT LONG WINAPI SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols,
                                                    DWORD dwInitialization, LPDWORD pdwActiveProtocol)
{
    logWrite("SCardReconnect: " + decimalText(static_cast<uint32_t>(dwInitialization)) + "\n");
    return resendProtocol(hCard, dwInitialization, AfterResend::returnAtOnce);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition)
{
    logWrite("SCardDisconnect: " + decimalText(static_cast<uint32_t>(dwDisposition)) + ", handle: " +
             decimalText(static_cast<int32_t>(hCard)) + "\n");
    return resendProtocol(hCard, dwDisposition, AfterResend::waitForReply);
}
