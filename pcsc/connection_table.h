// The contexts and card connections of this process, and how each reader
// is held by them: share modes, transactions, whether the card is powered
// and whether a power-up is under way. One table for the process, behind
// one short lock that is never held across a message to a slot.
//
// Contexts and card handles are values drawn from the operating system's
// random source: 31 bits, never 0, never equal to a live context or handle.
// A value is live from the call that hands it out to its release (contexts)
// or disconnect (handles; a context's release ends its handles too). A
// forked child's calls with its parent's values are refused: every value
// carries the process epoch it was drawn in.
#pragma once

#include <cstdint>

#include "pcsc/pcsc_types.h"

class Rack;
class Reader;

namespace connection_table {

// ---- Contexts --------------------------------------------------------------

// A new live context; SCARD_E_NO_MEMORY if no value could be drawn.
LONG openContext(SCARDCONTEXT& context);
// Ends the context and every connection made with it (their cards are
// left as they are, their transactions end). False if it was not live.
bool closeContext(SCARDCONTEXT context);
bool isLiveContext(SCARDCONTEXT context);

// ---- Connections -----------------------------------------------------------

// What a live handle stands for.
struct Connection {
    Rack* rack = nullptr;
    Reader* reader = nullptr;
    DWORD shareMode = 0;
    // The active protocol, an SCARD_PROTOCOL_* value; 0 for a direct
    // connection or a card whose ATR names none.
    DWORD protocol = 0;
    // The reader's card event count at the connect or the last reconnect.
    uint32_t cardEvents = 0;
    // SCARD_S_SUCCESS, or SCARD_W_REMOVED_CARD / SCARD_W_RESET_CARD while
    // the card has left or been reset by another handle since.
    LONG cardWarning = SCARD_S_SUCCESS;
    // The card is powered: selected and not since removed, reset by a
    // disconnect, unpowered or turned mute.
    bool powered = false;
};

// The connection of a live handle; false for any other value.
bool find(SCARDHANDLE handle, Connection& connection);

// As find, but first waits while another handle holds a transaction on the
// reader (for calls that talk to the card: transmit, control). Returns
// SCARD_E_INVALID_HANDLE for a handle that is not live (or ends while it
// waits), else the connection's card warning or SCARD_S_SUCCESS.
LONG enter(SCARDHANDLE handle, Connection& connection);

// Picks the active protocol for a card that has to be powered, from the
// caller's protocol mask and the card's ATR; false on a mismatch.
using ProtocolChoice = bool (*)(Reader& reader, DWORD preferred, DWORD& active);

struct ConnectRequest {
    SCARDCONTEXT context = 0;
    Rack* rack = nullptr;
    Reader* reader = nullptr;
    DWORD shareMode = 0;
    DWORD preferred = 0;
};

// Makes a new connection. A direct one never touches the card. Otherwise
// the connect joins a powered card without a message (its protocol must be
// in the caller's mask), waits for a power-up under way and then joins, or
// powers the card itself. Results: SCARD_S_SUCCESS, SCARD_E_INVALID_HANDLE
// (context), SCARD_E_SHARING_VIOLATION, SCARD_E_NO_SMARTCARD,
// SCARD_E_PROTO_MISMATCH, SCARD_W_UNRESPONSIVE_CARD (no answer in time).
LONG connect(const ConnectRequest& request, ProtocolChoice choose, SCARDHANDLE& handle, DWORD& active);

// What a disconnect, a reconnect or the end of a transaction does to the
// card.
enum class CardAction { leave, reset };

// Ends a live handle (its transaction too); with reset, the card is sent
// its selection again and every other handle to it is marked reset.
LONG disconnect(SCARDHANDLE handle, CardAction action);

// Reconnects a live handle with a new share mode and protocol mask. Leave
// joins or powers the card as a connect does; reset powers it again and
// marks every other handle reset. Clears the handle's card warning.
LONG reconnect(SCARDHANDLE handle, DWORD shareMode, DWORD preferred, CardAction action, ProtocolChoice choose,
               DWORD& active);

// ---- Transactions ----------------------------------------------------------

// Waits until no other handle holds the reader's transaction, then holds
// it (a handle may begin again while it holds it; each begin needs an end).
LONG beginTransaction(SCARDHANDLE handle);
// SCARD_E_NOT_TRANSACTED when the handle holds no transaction.
LONG endTransaction(SCARDHANDLE handle, CardAction action);

// ---- Readers ---------------------------------------------------------------

enum class ReaderUse { none, shared, exclusive };
// How this process holds the reader.
ReaderUse useOf(const Reader* reader);

// Forgets every connection and what it knew of the readers: the readers are
// about to be destroyed (the stop path and tests). Contexts stay.
void forgetConnections();

}  // namespace connection_table
