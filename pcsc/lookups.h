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

// A wide name finds the reader whose name widens to it (api_text.h); one
// with a character above 255 finds none.
RackReader findReaderByName(const char* name);
RackReader findReaderByName(const wchar_t* name);
// The reader of a live card handle (of any share mode, direct included);
// both null for a handle that was never handed out, was disconnected, or
// belongs to a released context or to the parent of a forked process.
RackReader findReaderByCardHandle(SCARDHANDLE hCard);

// Forgets every card handle and every name looked up: the stop path,
// before the readers go.
void forgetCardHandles();
