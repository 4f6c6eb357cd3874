// Which racks this process takes (TESSEL_RACKS): every rack, or those named.
#pragma once

#include <string>
#include <vector>

// TESSEL_RACKS: serial numbers separated by commas, blanks around them
// allowed, each 1 to 15 printable characters; for example "TR0001,TR0003".
// A process takes only the racks named. False for anything else (an empty
// item, a blank inside a serial).
bool parseRackSelection(const std::string& text, std::vector<std::string>& serials);

// Reads TESSEL_RACKS for the search at load and keeps it for the searches
// that follow; a refused value is traced and every rack is taken.
void takeRackSelection();

// Whether this process takes the rack with this serial number.
bool rackSelected(const char* serial);
