//! A session of Rust's pcsc crate against the emulated rack: the readers,
//! a connection with its status, attributes and control, transmits, a
//! reconnect, and a card swap that the emulator makes while the program
//! waits for it.
//!
//! Run by scripts/test-clients.sh with what it told the emulator:
//!   rust-pcsc-check NAMES ATR SWAP-READER SWAPPED-ATR RACK-SERIAL
//! (NAMES comma-separated, ATRs as hex bytes split by blanks). The card in
//! SWAP-READER must be there when the program starts and be swapped a few
//! seconds later. Prints every check; exits 1 if any failed.

use std::ffi::CString;
use std::process::exit;
use std::time::Duration;

use pcsc::{
    ctl_code, Attribute, Card, Context, Disposition, Error, Protocols, ReaderState, Scope, ShareMode, State, Status,
};

// CM_IOCTL_GET_FEATURE_REQUEST: the reader's list of features (PC/SC part 10).
const FEATURE_REQUEST: u32 = 3400;
// A control code that no reader of the rack knows.
const UNKNOWN_CONTROL: u32 = 3499;
const APDU: [u8; 7] = [0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00];

struct Checks {
    failed: u32,
}

impl Checks {
    fn check<T: std::fmt::Debug + PartialEq>(&mut self, what: &str, seen: T, expected: T) -> bool {
        if seen == expected {
            println!("rust-pcsc: ok: {}: {:?}", what, seen);
            true
        } else {
            println!("rust-pcsc: FAIL: {}: {:?}, expected {:?}", what, seen, expected);
            self.failed += 1;
            false
        }
    }

    fn truth(&mut self, what: &str, holds: bool, detail: String) -> bool {
        if holds {
            println!("rust-pcsc: ok: {}: {}", what, detail);
        } else {
            println!("rust-pcsc: FAIL: {}: {}", what, detail);
            self.failed += 1;
        }
        holds
    }

    // A step that the rest of the session needs: its failure ends it.
    fn must<T>(&mut self, what: &str, result: Result<T, Error>) -> T {
        match result {
            Ok(value) => value,
            Err(error) => {
                println!("rust-pcsc: FAIL: {}: {:?}", what, error);
                self.failed += 1;
                self.finish();
                unreachable!()
            }
        }
    }

    fn finish(&self) {
        if self.failed > 0 {
            println!("rust-pcsc: {} check(s) failed", self.failed);
            exit(1);
        }
        println!("rust-pcsc: all checks passed");
        exit(0);
    }
}

fn parse_hex(text: &str) -> Vec<u8> {
    text.split_whitespace().map(|byte| u8::from_str_radix(byte, 16).expect("an ATR byte")).collect()
}

fn hex(bytes: &[u8]) -> String {
    bytes.iter().map(|b| format!("{:02X}", b)).collect::<Vec<_>>().join(" ")
}

// The card's status: its reader, ATR, state and protocol.
fn check_status(checks: &mut Checks, card: &Card, when: &str, reader: &str, atr: &[u8]) {
    let status = match card.status2_owned() {
        Ok(status) => status,
        Err(error) => {
            checks.truth(&format!("SCardStatus {}", when), false, format!("{:?}", error));
            return;
        }
    };
    let names: Vec<String> = status.reader_names().iter().map(|n| n.to_string_lossy().into_owned()).collect();
    checks.check(&format!("SCardStatus reader {}", when), names, vec![reader.to_string()]);
    checks.check(&format!("SCardStatus ATR {}", when), hex(status.atr()), hex(atr));
    // pcsc-lite's bit flags: a card with a negotiated protocol is
    // SCARD_SPECIFIC, never SCARD_ABSENT.
    let state = status.status();
    checks.truth(
        &format!("SCardStatus state {}", when),
        state.contains(Status::SPECIFIC) && !state.contains(Status::ABSENT),
        format!("{:?} (0x{:X})", state, state.bits()),
    );
    checks.truth(
        &format!("SCardStatus protocol {}", when),
        status.protocol2().is_some(),
        format!("{:?}", status.protocol2()),
    );
}

fn check_echo(checks: &mut Checks, card: &Card, when: &str) {
    let mut answer = [0u8; 258];
    match card.transmit(&APDU, &mut answer) {
        Ok(answer) => {
            checks.check(&format!("SCardTransmit {}", when), hex(answer), hex(&APDU));
        }
        Err(error) => {
            checks.truth(&format!("SCardTransmit {}", when), false, format!("{:?}", error));
        }
    }
}

// An attribute, asked for its length first as get_attribute_owned does,
// but refused when that length is beyond any attribute's, instead of
// taking that much memory. The crate panics on an error code that PC/SC
// does not define; that is a failed check here, not the end of the run.
fn attribute(card: &Card, attribute: Attribute) -> Result<Vec<u8>, String> {
    let fetched = std::panic::catch_unwind(|| {
        let length = card.get_attribute_len(attribute)?;
        if length > 1024 {
            return Ok(Err(format!("a length of {} bytes", length)));
        }
        let mut buffer = vec![0u8; length];
        card.get_attribute(attribute, &mut buffer).map(|value| Ok(value.to_vec()))
    });
    match fetched {
        Ok(Ok(value)) => value,
        Ok(Err(error)) => Err(format!("{:?}", error)),
        Err(_) => Err("an error code that PC/SC does not define".to_string()),
    }
}

// A call whose answer the crate may panic on (a protocol it does not know,
// an error code PC/SC does not define): the panic is a failed call.
fn guarded<T>(call: impl FnOnce() -> Result<T, Error>) -> Result<T, String> {
    match std::panic::catch_unwind(std::panic::AssertUnwindSafe(call)) {
        Ok(result) => result.map_err(|error| format!("{:?}", error)),
        Err(_) => Err("the crate panicked".to_string()),
    }
}

fn check_attribute(checks: &mut Checks, card: &Card, what: &str, which: Attribute, expected: &[u8]) {
    match attribute(card, which) {
        Ok(value) => checks.check(what, hex(&value), hex(expected)),
        Err(error) => checks.truth(what, false, error),
    };
}

fn main() {
    let args: Vec<String> = std::env::args().collect();
    if args.len() != 6 {
        eprintln!("usage: rust-pcsc-check NAMES ATR SWAP-READER SWAPPED-ATR RACK-SERIAL");
        exit(2);
    }
    let names: Vec<String> = args[1].split(',').map(str::to_string).collect();
    let atr = parse_hex(&args[2]);
    let reader = args[3].clone();
    let swapped_atr = parse_hex(&args[4]);
    let serial = args[5].clone();
    let reader_c = CString::new(reader.clone()).unwrap();
    let mut checks = Checks { failed: 0 };
    std::panic::set_hook(Box::new(|info| println!("rust-pcsc: the crate panicked: {}", info)));

    let context = checks.must("SCardEstablishContext", Context::establish(Scope::User));
    let listed = checks.must("SCardListReaders", context.list_readers_owned());
    let listed: Vec<String> = listed.iter().map(|n| n.to_string_lossy().into_owned()).collect();
    checks.check("SCardListReaders", listed, names);

    // The reader's state before the swap, with its event count, twice: one
    // record to wait on through the swap, one kept as it is for a poll after
    // it. Each then holds that state as its current state.
    let mut states = [
        ReaderState::new(reader_c.clone(), State::UNAWARE),
        ReaderState::new(reader_c.clone(), State::UNAWARE),
    ];
    checks.must("SCardGetStatusChange before the swap", context.get_status_change(Duration::from_millis(0), &mut states));
    checks.truth(
        "state before the swap",
        states[0].event_state().contains(State::PRESENT),
        format!("{:?}, count {}", states[0].event_state(), states[0].event_count()),
    );
    checks.check("ATR before the swap", hex(states[0].atr()), hex(&atr));
    let count_before = states[0].event_count();
    for state in states.iter_mut() {
        state.sync_current_state();
    }
    let [watched, stale] = states;
    let mut watched = [watched];
    let mut stale = [stale];

    let mut card = checks.must("SCardConnect", context.connect(&reader_c, ShareMode::Shared, Protocols::ANY));
    check_status(&mut checks, &card, "after connect", &reader, &atr);

    // Attributes: each with its true length, asked for its size first.
    check_attribute(&mut checks, &card, "SCARD_ATTR_ATR_STRING", Attribute::AtrString, &atr);
    // (Not the names: this crate numbers the system class's attributes,
    // the friendly and system names, from class 0 instead of 0x7FFF.)
    // The channel: a USB device; its number is the library's to choose.
    match attribute(&card, Attribute::ChannelId) {
        Ok(value) => checks.truth(
            "SCARD_ATTR_CHANNEL_ID",
            value.len() == 4 && value[2..] == [0x20, 0x00],
            hex(&value),
        ),
        Err(error) => checks.truth("SCARD_ATTR_CHANNEL_ID", false, error),
    };
    // The protocol as a 4-byte number, the one that SCardStatus reports.
    let protocol = match card.status2_owned().map(|status| status.protocol2()) {
        Ok(Some(pcsc::Protocol::T1)) => 2u8,
        Ok(Some(pcsc::Protocol::T0)) => 1u8,
        _ => 0u8,
    };
    check_attribute(&mut checks, &card, "SCARD_ATTR_CURRENT_PROTOCOL_TYPE", Attribute::CurrentProtocolType, &[protocol, 0, 0, 0]);
    match attribute(&card, Attribute::VendorIfdSerialNo) {
        Ok(value) => {
            let text = String::from_utf8_lossy(&value).into_owned();
            checks.truth("SCARD_ATTR_VENDOR_IFD_SERIAL_NO", text.contains(&serial), format!("{:?}", text))
        }
        Err(error) => checks.truth("SCARD_ATTR_VENDOR_IFD_SERIAL_NO", false, error),
    };

    // Control: the feature list is there and empty; an unknown code is refused.
    let mut answer = [0u8; 256];
    match card.control(ctl_code(FEATURE_REQUEST.into()), &[], &mut answer) {
        Ok(features) => checks.check("SCardControl CM_IOCTL_GET_FEATURE_REQUEST", hex(features), String::new()),
        Err(error) => checks.truth("SCardControl CM_IOCTL_GET_FEATURE_REQUEST", false, format!("{:?}", error)),
    };
    let unknown = card.control(ctl_code(UNKNOWN_CONTROL.into()), &[], &mut answer).map(|a| a.len());
    checks.check("SCardControl with an unknown code", unknown, Err(Error::UnsupportedFeature));

    check_echo(&mut checks, &card, "before the reconnect");
    let reconnected = guarded(|| card.reconnect(ShareMode::Shared, Protocols::ANY, Disposition::ResetCard));
    checks.check("SCardReconnect with a reset", reconnected, Ok(()));
    check_echo(&mut checks, &card, "after the reconnect");
    check_status(&mut checks, &card, "after the reconnect", &reader, &atr);

    // The swap: the card goes out and another goes in. A client that feeds
    // the event state back waits once for the removal and once for the new
    // card; a few more returns are tolerated, a spinning wait is not.
    let mut returns = 0;
    let mut saw_empty = false;
    loop {
        returns += 1;
        if returns > 10 {
            checks.truth("SCardGetStatusChange during the swap", false, format!("{} returns", returns - 1));
            break;
        }
        match context.get_status_change(Duration::from_secs(30), &mut watched) {
            Ok(()) => {}
            Err(error) => {
                checks.truth("SCardGetStatusChange during the swap", false, format!("{:?}", error));
                break;
            }
        }
        let state = watched[0].event_state();
        println!("rust-pcsc: the swap: {:?}, count {}, ATR {}", state, watched[0].event_count(), hex(watched[0].atr()));
        saw_empty |= state.contains(State::EMPTY);
        if state.contains(State::PRESENT) && watched[0].atr() == &swapped_atr[..] {
            checks.truth("the new card", true, format!("{} returns", returns));
            break;
        }
        watched[0].sync_current_state();
    }
    checks.truth("the empty slot during the swap", saw_empty, String::new());
    checks.truth(
        "the event count after the swap",
        watched[0].event_count() >= count_before + 2,
        format!("{} before, {} after", count_before, watched[0].event_count()),
    );

    // A host that polled last before the swap sees it at once: the same
    // PRESENT state, but a new count and a new ATR.
    let polled = context.get_status_change(Duration::from_millis(0), &mut stale);
    checks.check("SCardGetStatusChange with the state before the swap", polled, Ok(()));
    checks.truth(
        "a swap between two polls is a change",
        stale[0].event_state().contains(State::CHANGED) && stale[0].atr() == &swapped_atr[..],
        format!("{:?}, ATR {}", stale[0].event_state(), hex(stale[0].atr())),
    );

    // Nothing changes now: the wait ends by its time-out, without CHANGED.
    watched[0].sync_current_state();
    let waited = context.get_status_change(Duration::from_millis(300), &mut watched);
    checks.check("SCardGetStatusChange with nothing changing", waited, Err(Error::Timeout));
    checks.truth(
        "no CHANGED without a change",
        !watched[0].event_state().contains(State::CHANGED),
        format!("{:?}", watched[0].event_state()),
    );

    // The handle of the card that went out: every call says so until the
    // reconnect, which reaches the new card.
    let mut answer = [0u8; 258];
    let sent = guarded(|| card.transmit(&APDU, &mut answer).map(|a| a.len()));
    checks.check("SCardTransmit to the removed card", sent, Err(format!("{:?}", Error::RemovedCard)));
    let status = guarded(|| card.status2_owned().map(|s| s.atr().to_vec()));
    checks.check("SCardStatus of the removed card", status, Err(format!("{:?}", Error::RemovedCard)));
    let reconnected = guarded(|| card.reconnect(ShareMode::Shared, Protocols::ANY, Disposition::LeaveCard));
    checks.check("SCardReconnect to the new card", reconnected, Ok(()));
    check_status(&mut checks, &card, "of the new card", &reader, &swapped_atr);
    check_echo(&mut checks, &card, "to the new card");

    let disconnected = card.disconnect(Disposition::LeaveCard).map_err(|(_, error)| format!("{:?}", error));
    checks.check("SCardDisconnect", disconnected, Ok(()));
    checks.finish();
}
