// What the device manager would say of a reader: its type, the instance id
// of the device it belongs to, and its icon. A rack is one device: each
// has one stable instance id, made of its serial number, shared by all its
// slots.
#include <string>
#include <vector>

#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/call_trace.h"
#include "pcsc/host_buffer.h"
#include "pcsc/lookups.h"
#include "pcsc/registry.h"
#include "pcsc/winscard_api.h"
#include "reader/reader.h"

namespace {

std::wstring instanceIdOf(const Rack& rack) { return wideText("TESSEL\\RACK\\" + rack.serialNumber()); }

template <typename Char>
LONG deviceTypeId(const char* stem, const Char* szReaderName, LPDWORD pdwDeviceTypeId)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szReaderName == nullptr || pdwDeviceTypeId == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    if (findReaderByName(szReaderName).reader == nullptr) return traceResult(call, SCARD_E_UNKNOWN_READER);
    // The racks hang on USB.
    *pdwDeviceTypeId = SCARD_READER_TYPE_USB;
    return traceResult(call, SCARD_S_SUCCESS);
}

template <typename Char>
LONG readerInstanceId(const char* stem, const Char* szReaderName, Char* szDeviceInstanceId,
                      LPDWORD pcchDeviceInstanceId)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szReaderName == nullptr || pcchDeviceInstanceId == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    const RackReader found = findReaderByName(szReaderName);
    if (found.reader == nullptr) return traceResult(call, SCARD_E_UNKNOWN_READER);
    const std::basic_string<Char> id = textAs<Char>(instanceIdOf(*found.rack));
    return traceResult(call, deliverElements(id.c_str(), static_cast<DWORD>(id.size() + 1), szDeviceInstanceId,
                                             pcchDeviceInstanceId));
}

template <typename Char>
LONG readersWithInstanceId(const char* stem, const Char* szDeviceInstanceId, Char* mszReaders, LPDWORD pcchReaders)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szDeviceInstanceId == nullptr || pcchReaders == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    const std::wstring wanted = wideText(szDeviceInstanceId);
    std::vector<std::wstring> names;
    for (size_t r = 0, racks = g_racks.size(); r < racks; ++r) {
        const Rack& rack = *g_racks[r];
        if (instanceIdOf(rack) != wanted) continue;
        const GrowingList<Reader*>& readers = rack.readers();
        for (size_t i = 0, n = readers.size(); i < n; ++i) names.push_back(wideText(readers[i]->name));
    }
    // No such device: the answer of a listing without readers.
    if (names.empty()) {
        *pcchReaders = 1;
        return traceResult(call, SCARD_E_NO_READERS_AVAILABLE);
    }
    const std::basic_string<Char> list = multiString<Char>(names);
    return traceResult(call, deliverElements(list.data(), static_cast<DWORD>(list.size()), mszReaders, pcchReaders));
}

// The slots have no icon of their own; the host shows its default.
template <typename Char>
LONG readerIcon(const char* stem, const Char* szReaderName, LPDWORD pcbIcon)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szReaderName == nullptr || pcbIcon == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    if (findReaderByName(szReaderName).reader == nullptr) return traceResult(call, SCARD_E_UNKNOWN_READER);
    return traceResult(call, SCARD_E_UNSUPPORTED_FEATURE);
}

}  // namespace

extern "C" {

LONG WINAPI SCardGetDeviceTypeIdA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPDWORD pdwDeviceTypeId)
{
    return deviceTypeId("SCardGetDeviceTypeId", szReaderName, pdwDeviceTypeId);
}

LONG WINAPI SCardGetDeviceTypeIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPDWORD pdwDeviceTypeId)
{
    return deviceTypeId("SCardGetDeviceTypeId", szReaderName, pdwDeviceTypeId);
}

LONG WINAPI SCardGetReaderDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId)
{
    return readerInstanceId("SCardGetReaderDeviceInstanceId", szReaderName, szDeviceInstanceId, pcchDeviceInstanceId);
}

LONG WINAPI SCardGetReaderDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPWSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId)
{
    return readerInstanceId("SCardGetReaderDeviceInstanceId", szReaderName, szDeviceInstanceId, pcchDeviceInstanceId);
}

LONG WINAPI SCardListReadersWithDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szDeviceInstanceId, LPSTR mszReaders,
                                                  LPDWORD pcchReaders)
{
    return readersWithInstanceId("SCardListReadersWithDeviceInstanceId", szDeviceInstanceId, mszReaders, pcchReaders);
}

LONG WINAPI SCardListReadersWithDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szDeviceInstanceId,
                                                  LPWSTR mszReaders, LPDWORD pcchReaders)
{
    return readersWithInstanceId("SCardListReadersWithDeviceInstanceId", szDeviceInstanceId, mszReaders, pcchReaders);
}

LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPBYTE pbIcon, LPDWORD pcbIcon)
{
    return readerIcon("SCardGetReaderIcon", szReaderName, pcbIcon);
}

LONG WINAPI SCardGetReaderIconW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPBYTE pbIcon, LPDWORD pcbIcon)
{
    return readerIcon("SCardGetReaderIcon", szReaderName, pcbIcon);
}

}  // extern "C"
