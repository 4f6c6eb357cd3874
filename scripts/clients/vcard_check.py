"""A pyscard session with a virtual card (vicc, ISO 7816 type) in an
emulated slot: the card arrives, answers SELECT, VERIFY and GET CHALLENGE,
and leaves.

Run by scripts/test-vcard.sh, which starts vicc when this script says the
slot listens and ends it when this script asks. Arguments: the reader, the
card's ATR, the file to create once the slot listens, and the file to
create when vicc is to end. Prints what it saw; exits 1 on the first
difference."""
import pathlib
import sys

from smartcard.scard import (SCARD_S_SUCCESS, SCARD_SCOPE_USER, SCARD_STATE_EMPTY, SCARD_STATE_PRESENT,
                             SCARD_STATE_UNAWARE, SCardEstablishContext, SCardGetStatusChange,
                             SCardReleaseContext)
from smartcard.System import readers
from smartcard.util import toHexString

# vicc's ISO 7816 card keeps the PIN 1234 (virtualsmartcard's CardGenerator).
SELECT_MF = [0x00, 0xA4, 0x00, 0x0C, 0x02, 0x3F, 0x00]
VERIFY_RIGHT = [0x00, 0x20, 0x00, 0x01, 0x04] + list(b"1234")
VERIFY_WRONG = [0x00, 0x20, 0x00, 0x01, 0x04] + list(b"9999")
GET_CHALLENGE = [0x00, 0x84, 0x00, 0x00, 0x08]


def check(what, seen, expected):
    print(f"vcard: {what}: {seen}")
    if seen != expected:
        print(f"vcard: {what}: expected {expected}", file=sys.stderr)
        sys.exit(1)


def wait_for(context, reader, state, flag):
    """Waits (a minute at most) until the reader's state has `flag`."""
    for _ in range(10):
        result, states = SCardGetStatusChange(context, 60000, [(reader, state)])
        check("SCardGetStatusChange", result, SCARD_S_SUCCESS)
        state = states[0][1]
        if state & flag:
            return states[0]
    sys.exit(f"vcard: {reader} never reached state {flag:#x}")


def main():
    reader, atr, listening_file, end_file = sys.argv[1:5]

    result, context = SCardEstablishContext(SCARD_SCOPE_USER)
    check("SCardEstablishContext", result, SCARD_S_SUCCESS)
    result, states = SCardGetStatusChange(context, 0, [(reader, SCARD_STATE_UNAWARE)])
    check("the state of " + reader, result, SCARD_S_SUCCESS)
    check("empty before the card comes", bool(states[0][1] & SCARD_STATE_EMPTY), True)

    pathlib.Path(listening_file).touch()
    seen = wait_for(context, reader, states[0][1], SCARD_STATE_PRESENT)
    check("inserted, the ATR", toHexString(list(seen[2])), atr)

    found = [r for r in readers() if str(r) == reader]
    check("reader listed", len(found), 1)
    connection = found[0].createConnection()
    connection.connect()
    check("connection ATR", toHexString(connection.getATR()), atr)

    def send(apdu):
        data, sw1, sw2 = connection.transmit(apdu)
        return data, [sw1, sw2]

    check("SELECT MF", send(SELECT_MF), ([], [0x90, 0x00]))
    check("VERIFY 1234", send(VERIFY_RIGHT)[1], [0x90, 0x00])
    data, sw = send(VERIFY_WRONG)
    check("VERIFY 9999, SW1", sw[0], 0x63)
    # The right PIN again sets the retry counter back.
    check("VERIFY 1234 again", send(VERIFY_RIGHT)[1], [0x90, 0x00])
    first, sw = send(GET_CHALLENGE)
    check("GET CHALLENGE, its status and length", (sw, len(first)), ([0x90, 0x00], 8))
    second, sw = send(GET_CHALLENGE)
    check("second GET CHALLENGE, its status and length", (sw, len(second)), ([0x90, 0x00], 8))
    check("the two challenges differ", first != second, True)
    connection.disconnect()

    pathlib.Path(end_file).touch()
    result, states = SCardGetStatusChange(context, 0, [(reader, SCARD_STATE_UNAWARE)])
    wait_for(context, reader, states[0][1], SCARD_STATE_EMPTY)
    print("vcard: removed when vicc ended")
    SCardReleaseContext(context)


main()
