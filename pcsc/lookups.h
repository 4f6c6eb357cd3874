// From a reader name or a card handle to the reader and the rack that
// holds it.
#pragma once

#include "pcsc/pcsc_types.h"

class Rack;
class Reader;

// Both null when nothing matches.
struct RackReader {
    Rack* rack = nullptr;
    Reader* reader = nullptr;
};

RackReader findReaderByName(const char* name);
RackReader findReaderByWideName(const wchar_t* name);
RackReader findReaderByCardHandle(SCARDHANDLE hCard);
