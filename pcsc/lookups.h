// From a reader name or a card handle to the rack that holds the reader.
// Plain walks from the front over g_racks and each rack's readers.
#pragma once

#include <cstdint>

class Rack;

Rack* rackByReaderName(const char* name);
Rack* rackByReaderNameWide(const wchar_t* name);
Rack* rackByCardHandle(uint32_t handle);
