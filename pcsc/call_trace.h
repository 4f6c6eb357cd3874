// The trace of the calls that write their entry and their result: the
// entry is the call's name on a line, the result the name followed by the
// result's published name (or its number, for one without a name here).
#pragma once

#include <string>

#include "pcsc/pcsc_types.h"

std::string resultText(LONG result);

// Writes "<call>\n".
void traceEntry(const std::string& call);
// Writes "<call> <result>\n" and returns the result.
LONG traceResult(const std::string& call, LONG result);

// The name of a call with an A and a W form, in the form of its
// characters: the stem and 'A' for the narrow form, 'W' for the wide one.
template <typename Char>
std::string formName(const char* stem)
{
    return std::string(stem) + (sizeof(Char) == 1 ? 'A' : 'W');
}
