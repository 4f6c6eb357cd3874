"""pyscard's CardMonitor watching the emulated rack while the emulator
swaps a card: the observer must be told of the card that was there, then
of that card going out and of a card with another ATR coming in, in the
same reader.

Run by scripts/test-clients.sh with what it told the emulator: the reader
whose card is swapped, the ATR of the card before and after. Prints what
the observer saw; exits 1 on a difference."""
import queue
import sys

from smartcard.CardMonitoring import CardMonitor, CardObserver
from smartcard.util import toHexString


class Recorder(CardObserver):
    """Every notification as lists of (reader, ATR) added and removed."""

    def __init__(self):
        self.notifications = queue.Queue()

    def update(self, observable, cards):
        added, removed = cards
        self.notifications.put(([(str(c.reader), toHexString(c.atr)) for c in added],
                                [(str(c.reader), toHexString(c.atr)) for c in removed]))


def main():
    reader, atr, swapped_atr = sys.argv[1:4]
    recorder = Recorder()
    monitor = CardMonitor()
    monitor.addObserver(recorder)
    # First the cards of the rack as they are at the start (the monitor's
    # first word may come before its first poll, with no cards), then the
    # swap, which a slow poll may see as one notification or as two.
    before = (reader, atr)
    after = (reader, swapped_atr)
    seen_added, seen_removed = set(), set()
    started = False
    try:
        while True:
            try:
                added, removed = recorder.notifications.get(timeout=30)
            except queue.Empty:
                wanted = "the card there at the start" if not started else "the swap"
                print(f"pyscard monitor: no notification in 30 s; waiting for {wanted}", file=sys.stderr)
                return 1
            print(f"pyscard monitor: added {added}, removed {removed}")
            if not started:
                started = before in added
                continue
            seen_added |= set(added)
            seen_removed |= set(removed)
            if seen_added - {after} or seen_removed - {before}:
                print(f"pyscard monitor: unexpected cards: added {sorted(seen_added - {after})},"
                      f" removed {sorted(seen_removed - {before})}", file=sys.stderr)
                return 1
            if seen_added == {after} and seen_removed == {before}:
                print(f"pyscard monitor: the swap in {reader}: {atr} out, {swapped_atr} in")
                return 0
    finally:
        monitor.deleteObserver(recorder)


sys.exit(main())
