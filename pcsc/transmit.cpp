// SCardTransmit: sends one command to the card in a slot and returns its
// answer. The exchange itself is the reader's; this is the API's face of it.
#include <cstdint>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "pcsc/connection_table.h"
#include "pcsc/transmit_count.h"
#include "pcsc/winscard_api.h"
#include "link/exchange.h"

namespace {

constexpr DWORD kLongestCommand = 255;

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardTransmit(SCARDHANDLE hCard, LPCSCARD_IO_REQUEST pioSendPci,
                                                   LPCBYTE pbSendBuffer, DWORD cbSendLength,
                                                   LPSCARD_IO_REQUEST pioRecvPci, LPBYTE pbRecvBuffer,
                                                   LPDWORD pcbRecvLength)
{
    logWrite("SCardTransmit\n");
    // The send PCI is only tested for presence; the receive PCI is not
    // looked at at all.
    if (pbSendBuffer == nullptr || pbRecvBuffer == nullptr || pcbRecvLength == nullptr || pioSendPci == nullptr) {
        logWrite("invalid param\n");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (cbSendLength > kLongestCommand) {
        logWrite("invalid length, cbSend: " + decimalText(static_cast<uint32_t>(cbSendLength)) + ", pcbRecv: " +
                 decimalText(static_cast<uint32_t>(*pcbRecvLength)) + "\n");
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    // Waits while another handle holds a transaction on the reader. A card
    // that left or was reset since the connect is reported, and nothing is
    // sent, until the host reconnects.
    connection_table::Connection connection;
    const LONG entered = connection_table::enter(hCard, connection);
    if (entered != SCARD_S_SUCCESS) return entered;
    countTransmit(hCard);

    // The size of the host's buffer; the answer never goes past it.
    const ExchangeResult result = exchange(*connection.rack, *connection.reader, pbSendBuffer,
                                           static_cast<uint32_t>(cbSendLength), pbRecvBuffer,
                                           static_cast<uint32_t>(*pcbRecvLength), connection.cardEvents);
    switch (result.outcome) {
    case ExchangeOutcome::notSent:
        return SCARD_E_TIMEOUT;
    case ExchangeOutcome::cardGone:
        return SCARD_W_REMOVED_CARD;
    case ExchangeOutcome::readerGone:
        return SCARD_E_READER_UNAVAILABLE;
    case ExchangeOutcome::writeFailed:
        // As pcsc-lite reports a reader driver's failed transmission.
        return SCARD_E_NOT_TRANSACTED;
    case ExchangeOutcome::noAnswer:
        *pcbRecvLength = result.answerLength;
        return SCARD_E_TIMEOUT;
    case ExchangeOutcome::answerTooLong:
        // As the status query does: the full length, and the host is told
        // its buffer is too small.
        *pcbRecvLength = result.answerLength;
        return SCARD_E_INSUFFICIENT_BUFFER;
    case ExchangeOutcome::answered:
        break;
    }
    *pcbRecvLength = result.answerLength;
    return SCARD_S_SUCCESS;
}
