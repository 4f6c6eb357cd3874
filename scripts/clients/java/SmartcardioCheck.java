/*
 * A javax.smartcardio session against the emulated rack: the terminals,
 * waitForCardPresent with 0 and with a time-out, a transmit, and a card
 * swap that must come back as a new Card.
 *
 * Run by scripts/test-clients.sh with the library given in
 * -Dsun.security.smartcardio.library and what it told the emulator:
 *   java SmartcardioCheck.java NAMES ATR EVENT-READER SWAP-READER SWAPPED-ATR
 * (NAMES comma-separated, ATRs as hex bytes split by blanks). EVENT-READER
 * is empty at the start and gets a card more than a minute later; the card
 * in SWAP-READER is swapped after that. Prints every check; exits 1 if any
 * failed.
 */
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import javax.smartcardio.Card;
import javax.smartcardio.CardException;
import javax.smartcardio.CardTerminal;
import javax.smartcardio.CommandAPDU;
import javax.smartcardio.ResponseAPDU;
import javax.smartcardio.TerminalFactory;

public class SmartcardioCheck {
    private static final byte[] APDU = {0x00, (byte) 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
    private static int failed = 0;

    private static boolean check(String what, Object seen, Object expected) {
        final boolean same = seen.equals(expected);
        System.out.println("java: " + (same ? "ok: " : "FAIL: ") + what + ": " + seen
                           + (same ? "" : ", expected " + expected));
        if (!same) failed++;
        return same;
    }

    private static String hex(byte[] bytes) {
        return HexFormat.ofDelimiter(" ").withUpperCase().formatHex(bytes);
    }

    // The whole answer, data and status word, to the echo card's APDU.
    private static String echo(Card card) throws CardException {
        final ResponseAPDU answer = card.getBasicChannel().transmit(new CommandAPDU(APDU));
        return hex(answer.getBytes());
    }

    private static void finish() {
        System.out.println(failed == 0 ? "java: all checks passed" : "java: " + failed + " check(s) failed");
        System.exit(failed == 0 ? 0 : 1);
    }

    public static void main(String[] args) throws Exception {
        if (args.length != 5) {
            System.err.println("usage: SmartcardioCheck NAMES ATR EVENT-READER SWAP-READER SWAPPED-ATR");
            System.exit(2);
        }
        final List<String> names = Arrays.asList(args[0].split(","));
        final String atr = args[1];
        final String swappedAtr = args[4];

        // Without the library the factory falls back to a provider of no
        // terminals; "PC/SC" is the one that loaded it.
        final TerminalFactory factory = TerminalFactory.getDefault();
        if (!check("TerminalFactory type", factory.getType(), "PC/SC")) finish();
        final List<String> listed = new ArrayList<>();
        for (CardTerminal terminal : factory.terminals().list()) listed.add(terminal.getName());
        check("terminals", listed, names);

        final CardTerminal eventTerminal = factory.terminals().getTerminal(args[2]);
        final CardTerminal swapTerminal = factory.terminals().getTerminal(args[3]);
        if (eventTerminal == null || swapTerminal == null) {
            check("the event and swap terminals", "missing", "there");
            finish();
        }

        // A card that is there is there at once, with 0 as with a time-out.
        check("waitForCardPresent(0) with a card", swapTerminal.waitForCardPresent(0), true);
        check("waitForCardPresent(100) with a card", swapTerminal.waitForCardPresent(100), true);
        // An empty slot: the time-out ends the wait with false.
        check("isCardPresent of an empty slot", eventTerminal.isCardPresent(), false);
        check("waitForCardPresent(500) of an empty slot", eventTerminal.waitForCardPresent(500), false);
        // 0 waits for as long as it takes: until the emulator puts a card in,
        // more than a minute later, so that a wait cut short at a minute
        // (a time-out that the JDK reads as "no card") shows.
        final long start = System.nanoTime();
        check("waitForCardPresent(0) until a card comes", eventTerminal.waitForCardPresent(0), true);
        System.out.println("java: the card came after " + (System.nanoTime() - start) / 1_000_000 + " ms");
        final Card arrived = eventTerminal.connect("*");
        check("ATR of the card that came", hex(arrived.getATR().getBytes()), atr);
        arrived.disconnect(false);

        final Card card = swapTerminal.connect("*");
        check("ATR before the swap", hex(card.getATR().getBytes()), atr);
        check("transmit", echo(card), hex(APDU));

        // The swap: the card goes out and another goes in.
        check("waitForCardAbsent(30000) during the swap", swapTerminal.waitForCardAbsent(30000), true);
        check("waitForCardPresent(30000) during the swap", swapTerminal.waitForCardPresent(30000), true);
        String removed;
        try {
            removed = "answered " + echo(card);
        } catch (CardException e) {
            removed = e.getMessage() + (e.getCause() != null ? " / " + e.getCause().getMessage() : "");
        }
        check("transmit to the card that went out fails with SCARD_W_REMOVED_CARD",
              removed.contains("SCARD_W_REMOVED_CARD"), true);
        System.out.println("java: the transmit gave: " + removed);

        final Card next = swapTerminal.connect("*");
        check("connect after the swap gives a new Card", next != card, true);
        check("ATR after the swap", hex(next.getATR().getBytes()), swappedAtr);
        check("transmit to the new card", echo(next), hex(APDU));
        next.disconnect(false);
        finish();
    }
}
