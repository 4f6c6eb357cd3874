// Names of PC/SC result codes, for error messages.
#pragma once

#include <cstdint>
#include <string>

namespace rackscan {

// The published name of a result code ("SCARD_E_NO_SMARTCARD"), or null
// for a code that is not in the table.
const char* resultName(uint32_t code);

// "SCARD_E_NO_SMARTCARD (0x8010000C)"; a code without a name is given in
// hex alone, "0x80100099".
std::string describeResult(uint32_t code);

}  // namespace rackscan
