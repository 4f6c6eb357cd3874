// Transactions: SCardBeginTransaction gives its handle the card alone until
// SCardEndTransaction, SCardDisconnect, or the end of the handle or its
// context. Another handle's begin, transmit, reconnect and control wait
// for it (connection_table.h).
#include "diag/trace_log.h"
#include "pcsc/connection_table.h"
#include "pcsc/winscard_api.h"

extern "C" TESSEL_EXPORT LONG WINAPI SCardBeginTransaction(SCARDHANDLE hCard)
{
    logWrite("SCardBeginTransaction\n");
    return connection_table::beginTransaction(hCard);
}

// Leave ends the transaction alone; reset, unpower and eject reset the card
// first, as a disconnect with them does.
extern "C" TESSEL_EXPORT LONG WINAPI SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition)
{
    logWrite("SCardEndTransaction\n");
    connection_table::CardAction action = connection_table::CardAction::leave;
    switch (dwDisposition) {
    case SCARD_LEAVE_CARD: break;
    case SCARD_RESET_CARD:
    case SCARD_UNPOWER_CARD:
    case SCARD_EJECT_CARD: action = connection_table::CardAction::reset; break;
    default: return SCARD_E_INVALID_VALUE;
    }
    return connection_table::endTransaction(hCard, action);
}
