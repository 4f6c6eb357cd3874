#include "pcsc/reader_groups.h"

#include <string>

#include "pcsc/api_text.h"
#include "pcsc/call_trace.h"
#include "pcsc/connection_table.h"
#include "pcsc/host_buffer.h"
#include "pcsc/winscard_api.h"

namespace {

constexpr char kDefaultGroup[] = "SCard$DefaultReaders";
constexpr char kAllReaders[] = "SCard$AllReaders";

template <typename Char>
bool holdsReaders(const Char* name, size_t length)
{
    return sameIgnoringCase(name, length, kDefaultGroup) || sameIgnoringCase(name, length, kAllReaders);
}

template <typename Char>
LONG listGroups(Char* mszGroups, DWORD* pcchGroups)
{
    if (pcchGroups == nullptr) return SCARD_E_INVALID_PARAMETER;
    const std::basic_string<Char> list = multiString<Char>({wideText(kDefaultGroup)});
    return deliverElements(list.data(), static_cast<DWORD>(list.size()), mszGroups, pcchGroups);
}

}  // namespace

bool isReaderGroup(const char* name, size_t length) { return holdsReaders(name, length); }
bool isReaderGroup(const wchar_t* name, size_t length) { return holdsReaders(name, length); }

LONG listReaderGroups(char* mszGroups, DWORD* pcchGroups) { return listGroups(mszGroups, pcchGroups); }
LONG listReaderGroups(wchar_t* mszGroups, DWORD* pcchGroups) { return listGroups(mszGroups, pcchGroups); }

#ifdef _WIN32

namespace {

// The calls that would change readers or groups: their arguments are
// checked as the published API checks them, and then they are refused,
// since the readers come from the racks.
template <typename Char>
LONG refuseChange(const char* stem, const Char* first, const Char* second)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    const LONG result = first == nullptr || second == nullptr ? SCARD_E_INVALID_PARAMETER : SCARD_E_UNSUPPORTED_FEATURE;
    return traceResult(call, result);
}

// The calls that name one reader or group.
template <typename Char>
LONG refuseChange(const char* stem, const Char* name)
{
    return refuseChange(stem, name, name);
}

template <typename Char>
LONG listGroupsCall(const char* stem, SCARDCONTEXT context, Char* mszGroups, DWORD* pcchGroups)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (!connection_table::acceptsQueryContext(context)) return traceResult(call, SCARD_E_INVALID_HANDLE);
    return traceResult(call, listReaderGroups(mszGroups, pcchGroups));
}

}  // namespace

extern "C" {

TESSEL_EXPORT LONG WINAPI SCardListReaderGroupsA(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups)
{
    return listGroupsCall("SCardListReaderGroups", hContext, mszGroups, pcchGroups);
}

TESSEL_EXPORT LONG WINAPI SCardListReaderGroupsW(SCARDCONTEXT hContext, LPWSTR mszGroups, LPDWORD pcchGroups)
{
    return listGroupsCall("SCardListReaderGroups", hContext, mszGroups, pcchGroups);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderGroupA(SCARDCONTEXT hContext, LPCSTR szGroupName)
{
    return refuseChange("SCardIntroduceReaderGroup", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderGroupW(SCARDCONTEXT hContext, LPCWSTR szGroupName)
{
    return refuseChange("SCardIntroduceReaderGroup", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderGroupA(SCARDCONTEXT hContext, LPCSTR szGroupName)
{
    return refuseChange("SCardForgetReaderGroup", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderGroupW(SCARDCONTEXT hContext, LPCWSTR szGroupName)
{
    return refuseChange("SCardForgetReaderGroup", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szDeviceName)
{
    return refuseChange("SCardIntroduceReader", szReaderName, szDeviceName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPCWSTR szDeviceName)
{
    return refuseChange("SCardIntroduceReader", szReaderName, szDeviceName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderA(SCARDCONTEXT hContext, LPCSTR szReaderName)
{
    return refuseChange("SCardForgetReader", szReaderName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderW(SCARDCONTEXT hContext, LPCWSTR szReaderName)
{
    return refuseChange("SCardForgetReader", szReaderName);
}

TESSEL_EXPORT LONG WINAPI SCardAddReaderToGroupA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szGroupName)
{
    return refuseChange("SCardAddReaderToGroup", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardAddReaderToGroupW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPCWSTR szGroupName)
{
    return refuseChange("SCardAddReaderToGroup", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardRemoveReaderFromGroupA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szGroupName)
{
    return refuseChange("SCardRemoveReaderFromGroup", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardRemoveReaderFromGroupW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                                      LPCWSTR szGroupName)
{
    return refuseChange("SCardRemoveReaderFromGroup", szReaderName, szGroupName);
}

}  // extern "C"

#endif
