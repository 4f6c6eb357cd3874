"""A pyscard session against the emulated rack: the readers, a connection,
one exchange, and a card that arrives while SCardGetStatusChange waits.

Run by scripts/test-clients.sh with the rack it described in TESSEL_SIM
(the reader names, the ATR and the slot that gets a card are its
arguments). Prints what it saw; exits 1 on the first difference."""
import sys

from smartcard.System import readers
from smartcard.scard import (SCARD_S_SUCCESS, SCARD_SCOPE_USER, SCARD_STATE_EMPTY, SCARD_STATE_PRESENT,
                             SCARD_STATE_UNAWARE, SCardEstablishContext, SCardGetStatusChange,
                             SCardReleaseContext)
from smartcard.util import toHexString


def check(what, seen, expected):
    print(f"pyscard: {what}: {seen}")
    if seen != expected:
        print(f"pyscard: {what}: expected {expected}", file=sys.stderr)
        sys.exit(1)


def main():
    expected_names = sys.argv[1].split(",")
    atr = sys.argv[2]
    event_reader = sys.argv[3]
    apdu = [0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00]

    found = readers()
    check("readers", [str(r) for r in found], expected_names)

    connection = found[0].createConnection()
    connection.connect()
    check("ATR", toHexString(connection.getATR()), atr)
    data, sw1, sw2 = connection.transmit(apdu)
    check("answer", toHexString(data + [sw1, sw2]), toHexString(apdu))
    connection.disconnect()

    result, context = SCardEstablishContext(SCARD_SCOPE_USER)
    check("SCardEstablishContext", result, SCARD_S_SUCCESS)
    result, states = SCardGetStatusChange(context, 0, [(event_reader, SCARD_STATE_UNAWARE)])
    check("the state of " + event_reader, result, SCARD_S_SUCCESS)
    check("state before the event", bool(states[0][1] & SCARD_STATE_EMPTY), True)
    # The emulator puts the card in a while after it was loaded; a minute is
    # only the bound of a wait that should end in seconds.
    result, states = SCardGetStatusChange(context, 60000, [(event_reader, states[0][1])])
    check("SCardGetStatusChange", result, SCARD_S_SUCCESS)
    check("state after the event", bool(states[0][1] & SCARD_STATE_PRESENT), True)
    check("ATR after the event", toHexString(list(states[0][2])), atr)
    SCardReleaseContext(context)


main()
