// rackscan: looks at Tessel Rack card slots through the PC/SC library.
// See `rackscan --help`.
#include "tools/rackscan/commands.h"
#include "tools/rackscan/options.h"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

int main(int argc, char** argv)
{
#ifdef RACKSCAN_EMULATOR
    const bool withEmulator = true;
#else
    const bool withEmulator = false;
#endif
    std::vector<std::string> args(argv + 1, argv + argc);
    rackscan::Options options;
    std::string error;
    // The command line is checked whole before the library is loaded.
    if (!rackscan::parseCommandLine(args, withEmulator, options, error)) {
        std::cerr << "rackscan: " << error << "\n(rackscan --help lists the commands and options)" << std::endl;
        return 2;
    }
    if (options.command == rackscan::Command::Help) {
        std::cout << rackscan::usageText(withEmulator);
        return 0;
    }
    int status = rackscan::runCommand(options);
#ifdef _WIN32
    return status;
#else
    // The library's worker threads keep running until the process ends, and
    // an ordinary exit() destroys the library's static objects while they
    // may still be in use. Windows ends the other threads before a DLL hears
    // of the exit; here the process leaves without running destructors.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    _exit(status);
#endif
}
