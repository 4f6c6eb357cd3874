// The trace of the calls that write their entry and their result: the
// entry is the call's name on a line, the result the name followed by the
// result's published name (or its number, for one without a name here).
#pragma once

#include <string>

#include "pcsc/pcsc_types.h"

std::string resultText(LONG result);

// Writes "<call>\n".
void traceEntry(const char* call);
// Writes "<call> <result>\n" and returns the result.
LONG traceResult(const char* call, LONG result);
