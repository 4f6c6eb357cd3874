// rackscan's command line: the commands, their options and the help text.
// Parsing is separate from running, so that a bad command line is refused
// before the PC/SC library is loaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/rack_setup.h"

namespace rackscan {

enum class Command { Help, List, Watch, Send, Log, Demo };

// The emulated rack that rackscan sets up before it loads the library (on
// platforms where the emulator stands in for the D2XX library); the same
// description the emulator takes from TESSEL_SIM.
using EmulatorSetup = racksim::RackSetup;

struct Options {
    Command command = Command::Help;
    std::string libraryPath;       // empty: the default place
    EmulatorSetup emulator;
    int watchSeconds = 10;
    bool demoEvents = false;
    std::string reader;
    std::vector<std::vector<uint8_t>> apdus;
    int logLines = 20;
    std::string logFile;           // empty: the library's own log path
};

// Parses the arguments after the program name. `withEmulator` says whether
// the emulator options exist on this build. On failure returns false with a
// message for the user in `error`.
bool parseCommandLine(const std::vector<std::string>& args, bool withEmulator, Options& options, std::string& error);

// The --help text.
std::string usageText(bool withEmulator);

}  // namespace rackscan
