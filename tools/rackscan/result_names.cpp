#include "tools/rackscan/result_names.h"

#include <cstdio>

namespace rackscan {
namespace {

struct NamedCode {
    uint32_t code;
    const char* name;
};

// The codes of the PC/SC API with their published values. Besides the
// SCARD_* codes the library hands out two Win32 codes of its own: 6 from
// SCardIsValidContext and 50 from SCardGetAttrib.
const NamedCode kNames[] = {
    {0x00000000, "SCARD_S_SUCCESS"},
    {0x00000006, "ERROR_INVALID_HANDLE"},
    {0x00000032, "ERROR_NOT_SUPPORTED"},
    {0x80100001, "SCARD_F_INTERNAL_ERROR"},
    {0x80100002, "SCARD_E_CANCELLED"},
    {0x80100003, "SCARD_E_INVALID_HANDLE"},
    {0x80100004, "SCARD_E_INVALID_PARAMETER"},
    {0x80100005, "SCARD_E_INVALID_TARGET"},
    {0x80100006, "SCARD_E_NO_MEMORY"},
    {0x80100007, "SCARD_F_WAITED_TOO_LONG"},
    {0x80100008, "SCARD_E_INSUFFICIENT_BUFFER"},
    {0x80100009, "SCARD_E_UNKNOWN_READER"},
    {0x8010000A, "SCARD_E_TIMEOUT"},
    {0x8010000B, "SCARD_E_SHARING_VIOLATION"},
    {0x8010000C, "SCARD_E_NO_SMARTCARD"},
    {0x8010000D, "SCARD_E_UNKNOWN_CARD"},
    {0x8010000E, "SCARD_E_CANT_DISPOSE"},
    {0x8010000F, "SCARD_E_PROTO_MISMATCH"},
    {0x80100010, "SCARD_E_NOT_READY"},
    {0x80100011, "SCARD_E_INVALID_VALUE"},
    {0x80100012, "SCARD_E_SYSTEM_CANCELLED"},
    {0x80100013, "SCARD_F_COMM_ERROR"},
    {0x80100014, "SCARD_F_UNKNOWN_ERROR"},
    {0x80100015, "SCARD_E_INVALID_ATR"},
    {0x80100016, "SCARD_E_NOT_TRANSACTED"},
    {0x80100017, "SCARD_E_READER_UNAVAILABLE"},
    {0x80100018, "SCARD_P_SHUTDOWN"},
    {0x80100019, "SCARD_E_PCI_TOO_SMALL"},
    {0x8010001A, "SCARD_E_READER_UNSUPPORTED"},
    {0x8010001B, "SCARD_E_DUPLICATE_READER"},
    {0x8010001C, "SCARD_E_CARD_UNSUPPORTED"},
    {0x8010001D, "SCARD_E_NO_SERVICE"},
    {0x8010001E, "SCARD_E_SERVICE_STOPPED"},
    {0x8010001F, "SCARD_E_UNEXPECTED"},
    {0x80100020, "SCARD_E_ICC_INSTALLATION"},
    {0x80100021, "SCARD_E_ICC_CREATESORDER"},
    {0x80100022, "SCARD_E_UNSUPPORTED_FEATURE"},
    {0x80100023, "SCARD_E_DIR_NOT_FOUND"},
    {0x80100024, "SCARD_E_FILE_NOT_FOUND"},
    {0x80100025, "SCARD_E_NO_DIR"},
    {0x80100026, "SCARD_E_NO_FILE"},
    {0x80100027, "SCARD_E_NO_ACCESS"},
    {0x80100028, "SCARD_E_WRITE_TOO_MANY"},
    {0x80100029, "SCARD_E_BAD_SEEK"},
    {0x8010002A, "SCARD_E_INVALID_CHV"},
    {0x8010002B, "SCARD_E_UNKNOWN_RES_MNG"},
    {0x8010002C, "SCARD_E_NO_SUCH_CERTIFICATE"},
    {0x8010002D, "SCARD_E_CERTIFICATE_UNAVAILABLE"},
    {0x8010002E, "SCARD_E_NO_READERS_AVAILABLE"},
    {0x8010002F, "SCARD_E_COMM_DATA_LOST"},
    {0x80100030, "SCARD_E_NO_KEY_CONTAINER"},
    {0x80100031, "SCARD_E_SERVER_TOO_BUSY"},
    {0x80100065, "SCARD_W_UNSUPPORTED_CARD"},
    {0x80100066, "SCARD_W_UNRESPONSIVE_CARD"},
    {0x80100067, "SCARD_W_UNPOWERED_CARD"},
    {0x80100068, "SCARD_W_RESET_CARD"},
    {0x80100069, "SCARD_W_REMOVED_CARD"},
};

}  // namespace

const char* resultName(uint32_t code)
{
    for (const NamedCode& entry : kNames)
        if (entry.code == code) return entry.name;
    return nullptr;
}

std::string describeResult(uint32_t code)
{
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(code));
    const char* name = resultName(code);
    if (!name) return hex;
    return std::string(name) + " (" + hex + ")";
}

}  // namespace rackscan
