#include "tools/rackscan/commands.h"

#include "tools/rackscan/hex.h"
#include "tools/rackscan/pcsc_library.h"
#include "tools/rackscan/result_names.h"

#ifdef RACKSCAN_EMULATOR
#include "tools/rackscan/emulated_rack.h"
#endif

#ifdef _WIN32
#include <shlobj.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

namespace rackscan {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string fixed(double value, int decimals)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

void fail(const std::string& message) { std::cerr << "rackscan: " << message << std::endl; }

void failCall(const char* call, LONG result)
{
    fail(std::string(call) + " failed: " + describeResult(static_cast<uint32_t>(result)));
}

// A loaded library with an established context.
struct Session {
    PcscLibrary library;
    SCARDCONTEXT context = 0;
    const PcscFunctions& api() const { return library.api(); }
};

// Loads the library and establishes a context on a worker thread: loading
// runs the library's start-up, and SCardEstablishContext waits until every
// rack is enumerated, which takes several seconds. Meanwhile this thread
// shows the seconds go by.
bool bringUp(const Options& options, Session& session)
{
    std::string path = options.libraryPath.empty() ? PcscLibrary::defaultPath() : options.libraryPath;
    std::cerr << "Loading " << path << std::endl;

    struct Outcome {
        std::atomic<bool> done{false};
        bool loaded = false;
        std::string error;
        LONG result = 0;
        double loadMs = 0;
        double establishMs = 0;
    };
    auto outcome = std::make_shared<Outcome>();
    Clock::time_point start = Clock::now();

    std::thread worker([&session, path, outcome, start] {
        outcome->loaded = session.library.load(path, outcome->error);
        outcome->loadMs = millisecondsSince(start);
        if (outcome->loaded) {
            Clock::time_point establishStart = Clock::now();
            outcome->result = session.api().establishContext(SCARD_SCOPE_USER, nullptr, nullptr, &session.context);
            outcome->establishMs = millisecondsSince(establishStart);
        }
        outcome->done = true;
    });

    std::cerr << "Waiting for the racks to come up:" << std::flush;
    int shown = 0;
    while (!outcome->done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        int seconds = static_cast<int>(millisecondsSince(start) / 1000);
        if (seconds > shown && !outcome->done) {
            shown = seconds;
            std::cerr << ' ' << shown << 's' << std::flush;
        }
    }
    worker.join();
    std::cerr << std::endl;

    if (!outcome->loaded) {
        fail(outcome->error);
        return false;
    }
    if (outcome->result != SCARD_S_SUCCESS) {
        failCall("SCardEstablishContext", outcome->result);
        return false;
    }
    std::cerr << "Ready after " << fixed(millisecondsSince(start) / 1000, 1) << " s (loading the library "
              << fixed(outcome->loadMs / 1000, 1) << " s, SCardEstablishContext "
              << fixed(outcome->establishMs / 1000, 1) << " s)" << std::endl;
    return true;
}

bool listReaderNames(const Session& session, std::vector<std::string>& names)
{
    DWORD size = 0;
    LONG result = session.api().listReaders(session.context, nullptr, nullptr, &size);
    std::vector<char> buffer;
    if (result == SCARD_S_SUCCESS) {
        buffer.assign(size + 1, '\0');
        result = session.api().listReaders(session.context, nullptr, buffer.data(), &size);
    }
    if (result != SCARD_S_SUCCESS) {
        failCall("SCardListReadersA", result);
        if (result == SCARD_E_NO_READERS_AVAILABLE)
            std::cerr << "No rack was found: the library opens each FTDI device described as \"Smart Card Rack\" "
                         "when it is loaded, and lists its populated slots." << std::endl;
        return false;
    }
    names.clear();
    for (const char* name = buffer.data(); *name; name += names.back().size() + 1) names.emplace_back(name);
    return true;
}

enum class CardState { None, Card, Mute };

CardState stateOf(DWORD eventState)
{
    if (eventState & SCARD_STATE_MUTE) return CardState::Mute;
    if (eventState & SCARD_STATE_PRESENT) return CardState::Card;
    return CardState::None;
}

const char* stateText(CardState state)
{
    switch (state) {
    case CardState::Card: return "card";
    case CardState::Mute: return "mute";
    default: return "no card";
    }
}

std::vector<SCARD_READERSTATEA> readerStates(const std::vector<std::string>& names)
{
    std::vector<SCARD_READERSTATEA> states(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        states[i] = SCARD_READERSTATEA();
        states[i].szReader = names[i].c_str();
        states[i].dwCurrentState = SCARD_STATE_UNAWARE;
    }
    return states;
}

// One pass over all readers: with every record unaware, the call answers
// at once.
bool currentStates(const Session& session, std::vector<SCARD_READERSTATEA>& states)
{
    for (SCARD_READERSTATEA& state : states) state.dwCurrentState = SCARD_STATE_UNAWARE;
    LONG result = session.api().getStatusChange(session.context, 0, states.data(), static_cast<DWORD>(states.size()));
    if (result != SCARD_S_SUCCESS) {
        failCall("SCardGetStatusChangeA", result);
        return false;
    }
    return true;
}

std::string atrText(const SCARD_READERSTATEA& state)
{
    DWORD length = std::min<DWORD>(state.cbAtr, sizeof state.rgbAtr);
    return length ? toHex(state.rgbAtr, length) : "-";
}

std::string padded(const std::string& text, size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string rightAligned(const std::string& text, size_t width)
{
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

int listCommand(const Session& session)
{
    std::vector<std::string> names;
    if (!listReaderNames(session, names)) return 1;
    std::vector<SCARD_READERSTATEA> states = readerStates(names);
    if (!currentStates(session, states)) return 1;

    size_t width = std::string("READER").size();
    for (const std::string& name : names) width = std::max(width, name.size());
    std::cout << padded("READER", width) << "  " << padded("STATE", 7) << "  ATR\n";
    int withCard = 0;
    int mute = 0;
    for (const SCARD_READERSTATEA& state : states) {
        CardState card = stateOf(state.dwEventState);
        withCard += card == CardState::Card;
        mute += card == CardState::Mute;
        std::cout << padded(state.szReader, width) << "  " << padded(stateText(card), 7) << "  " << atrText(state)
                  << '\n';
    }
    std::cout << names.size() << (names.size() == 1 ? " reader" : " readers") << ": " << withCard << " with a card, "
              << mute << " mute, " << names.size() - withCard - mute << " empty" << std::endl;
    return 0;
}

struct WatchResult {
    bool ok = true;
    int events = 0;
    std::string lastInsertedReader;
};

// Waits for card events for up to `seconds`, printing each one; stops after
// the first if `firstOnly`. Every pass compares the records with what was
// printed last, so a change is reported once, whatever woke the call.
WatchResult watchEvents(const Session& session, const std::vector<std::string>& names, int seconds, bool firstOnly)
{
    WatchResult outcome;
    std::vector<SCARD_READERSTATEA> states = readerStates(names);
    if (!currentStates(session, states)) {
        outcome.ok = false;
        return outcome;
    }
    std::vector<CardState> known(states.size());
    for (size_t i = 0; i < states.size(); ++i) known[i] = stateOf(states[i].dwEventState);

    Clock::time_point start = Clock::now();
    double limitMs = seconds * 1000.0;
    for (;;) {
        // What was seen goes back whole, the event count in the high bits
        // included, so that the call wakes only for a change (a card that
        // left and came back between two calls too).
        for (SCARD_READERSTATEA& state : states)
            state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
        double leftMs = limitMs - millisecondsSince(start);
        if (leftMs <= 0) break;
        DWORD timeout = static_cast<DWORD>(std::min(leftMs, 500.0));
        LONG result = session.api().getStatusChange(session.context, timeout, states.data(),
                                                    static_cast<DWORD>(states.size()));
        if (result != SCARD_S_SUCCESS && result != SCARD_E_TIMEOUT) {
            failCall("SCardGetStatusChangeA", result);
            outcome.ok = false;
            return outcome;
        }
        for (size_t i = 0; i < states.size(); ++i) {
            CardState now = stateOf(states[i].dwEventState);
            if (now == known[i]) continue;
            std::string what;
            if (now == CardState::Card) {
                what = "card inserted, ATR " + atrText(states[i]);
                outcome.lastInsertedReader = names[i];
            } else if (now == CardState::Mute) {
                what = "mute card (present, no ATR)";
            } else {
                what = "card removed";
            }
            std::cout << "[" << rightAligned(fixed(millisecondsSince(start) / 1000, 1), 5) << " s] " << names[i] << ": "
                      << what << std::endl;
            known[i] = now;
            ++outcome.events;
        }
        if (firstOnly && outcome.events) break;
    }
    return outcome;
}

int watchCommand(const Session& session, const Options& options)
{
    std::vector<std::string> names;
    if (!listReaderNames(session, names)) return 1;
#ifdef RACKSCAN_EMULATOR
    EmulatedCardEvents events(options.emulator);
    if (options.demoEvents) {
        int slot = events.start(1000, 2000);
        std::cerr << "The emulator will change the card in slot " << slot << " of " << emulatedSerial(0)
                  << " in a moment." << std::endl;
    }
#endif
    std::cout << "Watching " << names.size() << (names.size() == 1 ? " reader" : " readers") << " for "
              << options.watchSeconds << " s" << std::endl;
    WatchResult outcome = watchEvents(session, names, options.watchSeconds, false);
    if (!outcome.ok) return 1;
    std::cout << outcome.events << (outcome.events == 1 ? " card event" : " card events") << " in "
              << options.watchSeconds << " s" << std::endl;
    return 0;
}

// Connects, sends each APDU and disconnects. A reader that the library
// does not know is answered with the names of those it does.
int sendApdus(const Session& session, const std::string& reader, const std::vector<std::vector<uint8_t>>& apdus)
{
    const PcscFunctions& api = session.api();
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    Clock::time_point start = Clock::now();
    LONG result = api.connect(session.context, reader.c_str(), SCARD_SHARE_SHARED,
                              SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card, &protocol);
    if (result != SCARD_S_SUCCESS) {
        fail("SCardConnectA to \"" + reader + "\" failed: " + describeResult(static_cast<uint32_t>(result)));
        std::vector<std::string> names;
        if (result == SCARD_E_READER_UNAVAILABLE || result == SCARD_E_UNKNOWN_READER) {
            if (listReaderNames(session, names)) {
                std::cerr << "Readers:\n";
                for (const std::string& name : names) std::cerr << "  " << name << '\n';
                std::cerr << std::flush;
            }
        }
        return 1;
    }
    double connectMs = millisecondsSince(start);

    // The card's ATR as the library reports it for the connection.
    char name[256];
    DWORD nameLength = sizeof name;
    DWORD state = 0;
    DWORD activeProtocol = 0;
    BYTE atr[36];
    DWORD atrLength = sizeof atr;
    result = api.status(card, name, &nameLength, &state, &activeProtocol, atr, &atrLength);
    std::cout << "Connected to " << reader << " in " << fixed(connectMs, 0) << " ms, protocol "
              << (protocol == SCARD_PROTOCOL_T1 ? "T=1" : "T=0");
    if (result == SCARD_S_SUCCESS)
        std::cout << ", ATR " << toHex(atr, std::min<DWORD>(atrLength, sizeof atr));
    std::cout << std::endl;

    const SCARD_IO_REQUEST* pci = protocol == SCARD_PROTOCOL_T1 ? api.t1Pci : api.t0Pci;
    int status = 0;
    for (const std::vector<uint8_t>& apdu : apdus) {
        std::vector<BYTE> answer(2048);
        DWORD answerLength = static_cast<DWORD>(answer.size());
        std::cout << "> " << toHex(apdu) << std::endl;
        Clock::time_point sent = Clock::now();
        result = api.transmit(card, pci, apdu.data(), static_cast<DWORD>(apdu.size()), nullptr, answer.data(),
                              &answerLength);
        double tookMs = millisecondsSince(sent);
        if (result != SCARD_S_SUCCESS) {
            failCall("SCardTransmit", result);
            status = 1;
            break;
        }
        answerLength = std::min<DWORD>(answerLength, static_cast<DWORD>(answer.size()));
        std::string sw = answerLength >= 2 ? toHex(&answer[answerLength - 2], 2) : "-";
        sw.erase(std::remove(sw.begin(), sw.end(), ' '), sw.end());
        std::cout << "< " << toHex(answer.data(), answerLength) << "\n  SW " << sw << ", " << answerLength
                  << (answerLength == 1 ? " byte" : " bytes") << " in " << fixed(tookMs, 1) << " ms" << std::endl;
    }

    result = api.disconnect(card, SCARD_LEAVE_CARD);
    if (result != SCARD_S_SUCCESS) {
        failCall("SCardDisconnect", result);
        status = 1;
    }
    return status;
}

struct LogTail {
    bool readable = false;
    std::deque<std::string> lines;  // the last lines, at most the number asked for
    size_t total = 0;
};

LogTail readLogTail(const std::string& path, size_t lines)
{
    LogTail tail;
    std::ifstream file(path, std::ios::binary);
    if (!file) return tail;
    tail.readable = true;
    std::string line;
    while (std::getline(file, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        tail.lines.push_back(line);
        if (tail.lines.size() > lines) tail.lines.pop_front();
        ++tail.total;
    }
    return tail;
}

void printLogTail(const std::string& path, const LogTail& tail, const char* what)
{
    std::cerr << "== " << path << what << ": last " << tail.lines.size() << " of " << tail.total << " lines =="
              << std::endl;
    for (const std::string& entry : tail.lines) std::cout << entry << '\n';
    std::cout << std::flush;
}

// A log that was rotated a moment ago holds only its banner and the
// rotation line; the entries asked for are then mostly in "<log>.1", whose
// tail comes first, so that the lines read on in the order they were written.
int logCommand(const Options& options)
{
    std::string path = options.logFile.empty() ? traceLogPath() : options.logFile;
    size_t wanted = static_cast<size_t>(options.logLines);
    LogTail current = readLogTail(path, wanted);
    if (!current.readable) {
        fail("cannot read the trace log " + path + " (the library writes it from its first load on)");
        return 1;
    }
    if (current.total < wanted) {
        LogTail older = readLogTail(path + ".1", wanted - current.total);
        if (older.readable) printLogTail(path + ".1", older, " (before the log was rotated)");
    }
    printLogTail(path, current, "");
    return 0;
}

int demoCommand(const Session& session, [[maybe_unused]] const Options& options)
{
    std::cout << "\n== Readers ==" << std::endl;
    if (listCommand(session) != 0) return 1;

    std::vector<std::string> names;
    if (!listReaderNames(session, names)) return 1;
    const int eventSeconds = 15;
    std::cout << "\n== Card event ==" << std::endl;
#ifdef RACKSCAN_EMULATOR
    EmulatedCardEvents events(options.emulator);
    int slot = events.start(1000, -1);
    std::cout << "The emulator changes the card in slot " << slot << " of rack " << emulatedSerial(0)
              << " in a moment; waiting for SCardGetStatusChangeA to see it" << std::endl;
#else
    std::cout << "Insert or remove a card within " << eventSeconds << " s" << std::endl;
#endif
    WatchResult watched = watchEvents(session, names, eventSeconds, true);
    if (!watched.ok) return 1;
    bool eventSeen = watched.events > 0;
    if (!eventSeen) std::cout << "No card event in " << eventSeconds << " s" << std::endl;

    std::cout << "\n== APDU exchange ==" << std::endl;
    std::string reader = watched.lastInsertedReader;
    if (reader.empty()) {
        std::vector<SCARD_READERSTATEA> states = readerStates(names);
        if (!currentStates(session, states)) return 1;
        for (const SCARD_READERSTATEA& state : states)
            if (reader.empty() && stateOf(state.dwEventState) == CardState::Card) reader = state.szReader;
    }
    if (reader.empty()) {
        std::cout << "No reader holds a card with an ATR; nothing to send to" << std::endl;
        return 1;
    }
    // SELECT of an application by a proprietary AID ("Tessel"): harmless on
    // any card, which answers 90 00 or 6A 82 (not found).
    int status = sendApdus(session, reader, {{0x00, 0xA4, 0x04, 0x00, 0x07, 0xF0, 0x54, 0x65, 0x73, 0x73, 0x65, 0x6C}});
#ifdef RACKSCAN_EMULATOR
    // On the emulated rack the event is certain; not seeing it is a fault.
    if (!eventSeen) status = 1;
#endif
    return status;
}

}  // namespace

std::string traceLogPath()
{
#ifdef _WIN32
    char folder[MAX_PATH] = "C:\\Users\\Public\\Documents";
    SHGetFolderPathA(nullptr, CSIDL_COMMON_DOCUMENTS, nullptr, 0, folder);
    return std::string(folder) + "\\QuorvaneDLL.log";
#else
    return "/var/tmp/QuorvaneDLL.log";
#endif
}

int runCommand(const Options& options)
{
    if (options.command == Command::Log) return logCommand(options);

#ifdef RACKSCAN_EMULATOR
    setUpEmulatedRacks(options.emulator);
    std::cerr << "Emulated rack: " << options.emulator.racks << " x " << options.emulator.slotsPerRack << " slots, "
              << options.emulator.cardsPerRack << " card(s) and " << options.emulator.muteCardsPerRack
              << " mute card(s) per rack" << std::endl;
    for (const racksim::VirtualCardSlots& v : options.emulator.virtualCards)
        std::cerr << "Virtual cards: slot(s) " << v.first << "-" << v.last << " of " << emulatedSerial(0)
                  << (v.connect ? " connect to cards listening on 127.0.0.1:" : " listen on 127.0.0.1:") << v.port
                  << "-" << v.port + (v.last - v.first) << std::endl;
#endif
    Session session;
    if (!bringUp(options, session)) return 1;

    int status = 0;
    switch (options.command) {
    case Command::List: status = listCommand(session); break;
    case Command::Watch: status = watchCommand(session, options); break;
    case Command::Send: status = sendApdus(session, options.reader, options.apdus); break;
    case Command::Demo: status = demoCommand(session, options); break;
    default: break;
    }
    session.api().releaseContext(session.context);
    return status;
}

}  // namespace rackscan
