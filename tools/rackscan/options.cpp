#include "tools/rackscan/options.h"

#include "tools/rackscan/hex.h"

#include <cstdlib>

namespace rackscan {
namespace {

enum : unsigned {
    kList = 1u << 0,
    kWatch = 1u << 1,
    kSend = 1u << 2,
    kLog = 1u << 3,
    kDemo = 1u << 4,
    kLoadsLibrary = kList | kWatch | kSend | kDemo,
};

struct OptionSpec {
    const char* name;
    bool takesValue;
    bool emulatorOnly;
    unsigned commands;  // the commands it applies to
};

const OptionSpec kOptions[] = {
    {"--library", true, false, kLoadsLibrary},
    {"--racks", true, true, kLoadsLibrary},
    {"--slots", true, true, kLoadsLibrary},
    {"--cards", true, true, kLoadsLibrary},
    {"--mute", true, true, kLoadsLibrary},
    {"--atr", true, true, kLoadsLibrary},
    {"--echo", false, true, kLoadsLibrary},
    {"--vcard", true, true, kLoadsLibrary},
    {"--seconds", true, false, kWatch},
    {"--demo-events", false, true, kWatch},
    {"--lines", true, false, kLog},
    {"--log-file", true, false, kLog},
};

struct CommandName {
    const char* name;
    Command command;
    unsigned bit;
};

const CommandName kCommands[] = {
    {"list", Command::List, kList},  {"watch", Command::Watch, kWatch}, {"send", Command::Send, kSend},
    {"log", Command::Log, kLog},     {"demo", Command::Demo, kDemo},    {"help", Command::Help, 0},
};

const OptionSpec* findOption(const std::string& name)
{
    for (const OptionSpec& known : kOptions)
        if (name == known.name) return &known;
    return nullptr;
}

// A whole decimal number within [low, high].
bool parseNumber(const std::string& option, const std::string& text, int low, int high, int& value,
                 std::string& error)
{
    bool digitsOnly = !text.empty() && text.size() <= 9;
    for (char c : text) digitsOnly = digitsOnly && c >= '0' && c <= '9';
    long number = digitsOnly ? std::strtol(text.c_str(), nullptr, 10) : -1;
    if (!digitsOnly || number < low || number > high) {
        error = option + " needs a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
                ", not \"" + text + "\"";
        return false;
    }
    value = static_cast<int>(number);
    return true;
}

bool applyOption(const std::string& name, const std::string& value, Options& options, std::string& error)
{
    EmulatorSetup& emulator = options.emulator;
    if (name == "--library") {
        if (value.empty()) {
            error = "--library needs a path";
            return false;
        }
        options.libraryPath = value;
        return true;
    }
    if (name == "--racks") return parseNumber(name, value, 1, racksim::kMostRacks, emulator.racks, error);
    if (name == "--slots") return parseNumber(name, value, 1, racksim::kMostSlots, emulator.slotsPerRack, error);
    if (name == "--cards") return parseNumber(name, value, 0, racksim::kMostSlots, emulator.cardsPerRack, error);
    if (name == "--mute") return parseNumber(name, value, 0, racksim::kMostSlots, emulator.muteCardsPerRack, error);
    if (name == "--atr") {
        std::string why;
        if (!parseHex(value, emulator.atr, why, racksim::kMostAtrBytes)) {
            error = "bad --atr: " + why;
            return false;
        }
        return true;
    }
    if (name == "--echo") {
        emulator.echo = true;
        return true;
    }
    if (name == "--vcard") {
        racksim::VirtualCardSlots slots;
        std::string why;
        if (!racksim::parseVirtualCardText(value, slots, why)) {
            error = "bad --vcard: " + why;
            return false;
        }
        emulator.virtualCards.push_back(slots);
        return true;
    }
    if (name == "--seconds") return parseNumber(name, value, 1, 86400, options.watchSeconds, error);
    if (name == "--demo-events") {
        options.demoEvents = true;
        return true;
    }
    if (name == "--lines") return parseNumber(name, value, 1, 1000000, options.logLines, error);
    if (name == "--log-file") {
        if (value.empty()) {
            error = "--log-file needs a path";
            return false;
        }
        options.logFile = value;
        return true;
    }
    error = "unknown option " + name;
    return false;
}

}  // namespace

bool parseCommandLine(const std::vector<std::string>& args, bool withEmulator, Options& options, std::string& error)
{
    options = Options();
    std::vector<std::string> positional;
    std::vector<const OptionSpec*> seen;
    bool helpAsked = false;
    bool optionsEnded = false;

    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            helpAsked = true;
            continue;
        }
        std::string name = arg;
        std::string value;
        bool hasInlineValue = false;
        size_t equals = arg.find('=');
        if (equals != std::string::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
            hasInlineValue = true;
        }
        const OptionSpec* known = findOption(name);
        if (!known || (known->emulatorOnly && !withEmulator)) {
            error = "unknown option " + name;
            if (known) error += " (this build has no emulated rack)";
            return false;
        }
        if (known->takesValue && !hasInlineValue) {
            if (i + 1 >= args.size()) {
                error = name + " needs a value";
                return false;
            }
            value = args[++i];
        } else if (!known->takesValue && hasInlineValue) {
            error = name + " takes no value";
            return false;
        }
        if (!applyOption(name, value, options, error)) return false;
        seen.push_back(known);
    }

    if (helpAsked) {
        options.command = Command::Help;
        return true;
    }
    if (positional.empty()) {
        error = "no command given";
        return false;
    }

    const CommandName* command = nullptr;
    for (const CommandName& entry : kCommands)
        if (positional[0] == entry.name) command = &entry;
    if (!command) {
        error = "unknown command \"" + positional[0] + "\"";
        return false;
    }
    options.command = command->command;
    if (options.command == Command::Help) return true;

    for (const OptionSpec* known : seen) {
        if (!(known->commands & command->bit)) {
            error = std::string(known->name) + " does not apply to the " + command->name + " command";
            return false;
        }
    }

    // Defaults that do not fit a small rack shrink to it; only what the
    // user asked for explicitly is an error.
    auto given = [&](const char* name) {
        for (const OptionSpec* known : seen)
            if (std::string(known->name) == name) return true;
        return false;
    };
    EmulatorSetup& emulator = options.emulator;
    if (emulator.cardsPerRack > emulator.slotsPerRack) {
        if (given("--cards")) {
            error = "--cards " + std::to_string(emulator.cardsPerRack) + " is more than the " +
                    std::to_string(emulator.slotsPerRack) + " slots of a rack";
            return false;
        }
        emulator.cardsPerRack = emulator.slotsPerRack;
    }
    if (emulator.cardsPerRack + emulator.muteCardsPerRack > emulator.slotsPerRack) {
        if (given("--mute")) {
            error = "--cards and --mute together are more than the " + std::to_string(emulator.slotsPerRack) +
                    " slots of a rack";
            return false;
        }
        emulator.muteCardsPerRack = emulator.slotsPerRack - emulator.cardsPerRack;
    }

    std::string why;
    if (!racksim::checkVirtualCardSlots(emulator.virtualCards, emulator.slotsPerRack, why)) {
        error = "bad --vcard: " + why;
        return false;
    }

    std::vector<std::string> rest(positional.begin() + 1, positional.end());
    if (options.command == Command::Send) {
        if (rest.empty()) {
            error = "send needs a reader name and at least one APDU";
            return false;
        }
        if (rest.size() < 2) {
            error = "send needs at least one APDU after the reader name";
            return false;
        }
        options.reader = rest[0];
        for (size_t i = 1; i < rest.size(); ++i) {
            std::vector<uint8_t> apdu;
            std::string why;
            if (!parseHex(rest[i], apdu, why)) {
                error = "bad APDU: " + why;
                return false;
            }
            options.apdus.push_back(apdu);
        }
        return true;
    }
    if (!rest.empty()) {
        error = std::string(command->name) + " takes no arguments, but was given \"" + rest[0] + "\"";
        return false;
    }
    return true;
}

std::string usageText(bool withEmulator)
{
    std::string text =
        "usage: rackscan <command> [options]\n"
        "\n"
        "Looks at Tessel Rack card slots through the PC/SC library.\n"
        "\n"
        "commands:\n"
        "  list                       every reader with its card state (no card, card, mute) and ATR\n"
        "  watch [--seconds N]        print card insertions, removals and mute cards as they\n"
        "                             happen, for N seconds (default 10)\n"
        "  send <reader> <apdu>...    connect to the reader, send each APDU (hex, e.g. 00A4040000\n"
        "                             or \"00 A4 04 00 00\"), print the answer, its status word and\n"
        "                             the time taken, then disconnect\n"
        "  log [--lines N]            the last N lines of the trace log (default 20); does not load\n"
        "                             the library, so the log of the last run stays as it was;\n"
        "                             a log rotated a moment ago is preceded by the end of its .1\n"
        "  demo                       list, one card event and one APDU exchange\n"
        "  help                       this text\n"
        "\n"
        "options:\n"
        "  --library PATH             the PC/SC library to load";
#ifdef _WIN32
    text += " (default: winscard.dll, found the\n"
            "                             way Windows finds it, the program's folder first)\n";
#else
    text += " (default: libpcsclite.so.1 of\n"
            "                             the build, or the one beside rackscan)\n";
#endif
    text += "  --log-file PATH            log: the file to read instead of the library's trace log\n";
    if (withEmulator) {
        text +=
            "\n"
            "emulated rack (list, watch, send, demo):\n"
            "  --racks N                  racks on the USB bus (1-16, default 1), serial numbers\n"
            "                             TR0001, TR0002, ...\n"
            "  --slots N                  populated slots per rack (1-240, default 4)\n"
            "  --cards N                  slots 1..N of each rack hold a card (default 2)\n"
            "  --mute N                   the N slots after them hold a mute card (default 0)\n"
            "  --atr HEX                  the cards' ATR (1-32 bytes; default\n"
            "                             3B 8A 80 01 54 65 73 73 65 6C 52 61 63 6B 08)\n"
            "  --echo                     cards answer each APDU with the APDU itself (default:\n"
            "                             every APDU is answered 90 00)\n"
            "  --demo-events              watch: the emulator inserts a card into the first empty\n"
            "                             slot after a moment and takes it out again\n"
            "  --vcard FIRST[-LAST]@PORT  slots FIRST..LAST of TR0001 hold virtual cards (vsmartcard's\n"
            "                             vicc, jCardSim's VSmartCard) that connect to 127.0.0.1 on\n"
            "                             PORT, PORT+1, ...; a card that connects is inserted, one\n"
            "                             that leaves is removed. FIRST[-LAST]@connect:PORT: the\n"
            "                             emulator connects to cards that listen (vicc -R). May be\n"
            "                             given more than once\n";
    }
    text +=
        "\n"
        "Reader names are \"Tessel <serial> R<slot>\", e.g. \"Tessel TR0001 R1\"; quote them.\n"
        "Start-up takes several seconds: the library resets every rack and collects each slot's\n"
        "state before it answers.\n"
        "\n"
        "exit status: 0 success, 1 a PC/SC call failed or the library could not be loaded,\n"
        "2 a bad command line.\n";
    return text;
}

}  // namespace rackscan
