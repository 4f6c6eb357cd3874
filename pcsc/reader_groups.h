// Reader groups. Every reader is in one group, SCard$DefaultReaders, and
// the group SCard$AllReaders names every reader as well. The readers and
// their groups come from the racks: nothing a host calls changes them.
#pragma once

#include <cstddef>

#include "pcsc/pcsc_types.h"

// Whether the group of `length` characters names a group that holds the
// readers; group names are compared without regard to case.
bool isReaderGroup(const char* name, size_t length);
bool isReaderGroup(const wchar_t* name, size_t length);

// The list of groups, "SCard$DefaultReaders" and a second NUL, by the
// buffer rules of host_buffer.h.
LONG listReaderGroups(char* mszGroups, DWORD* pcchGroups);
LONG listReaderGroups(wchar_t* mszGroups, DWORD* pcchGroups);
