// rackscan's commands, run on a parsed command line.
#pragma once

#include "tools/rackscan/options.h"

#include <string>

namespace rackscan {

// Runs the command and returns the exit status: 0 success, 1 failure of
// the library or a PC/SC call. Results go to standard output, progress and
// errors to standard error.
int runCommand(const Options& options);

// Where the library writes its trace log on this platform.
std::string traceLogPath();

}  // namespace rackscan
