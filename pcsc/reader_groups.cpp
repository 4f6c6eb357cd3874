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
LONG refuseChange(const char* call, const void* first, const void* second = reinterpret_cast<const void*>(1))
{
    traceEntry(call);
    const LONG result = first == nullptr || second == nullptr ? SCARD_E_INVALID_PARAMETER : SCARD_E_UNSUPPORTED_FEATURE;
    return traceResult(call, result);
}

template <typename Char>
LONG listGroupsCall(const char* call, SCARDCONTEXT context, Char* mszGroups, DWORD* pcchGroups)
{
    traceEntry(call);
    if (!connection_table::acceptsQueryContext(context)) return traceResult(call, SCARD_E_INVALID_HANDLE);
    return traceResult(call, listReaderGroups(mszGroups, pcchGroups));
}

}  // namespace

extern "C" {

TESSEL_EXPORT LONG WINAPI SCardListReaderGroupsA(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups)
{
    return listGroupsCall("SCardListReaderGroupsA", hContext, mszGroups, pcchGroups);
}

TESSEL_EXPORT LONG WINAPI SCardListReaderGroupsW(SCARDCONTEXT hContext, LPWSTR mszGroups, LPDWORD pcchGroups)
{
    return listGroupsCall("SCardListReaderGroupsW", hContext, mszGroups, pcchGroups);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderGroupA(SCARDCONTEXT hContext, LPCSTR szGroupName)
{
    return refuseChange("SCardIntroduceReaderGroupA", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderGroupW(SCARDCONTEXT hContext, LPCWSTR szGroupName)
{
    return refuseChange("SCardIntroduceReaderGroupW", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderGroupA(SCARDCONTEXT hContext, LPCSTR szGroupName)
{
    return refuseChange("SCardForgetReaderGroupA", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderGroupW(SCARDCONTEXT hContext, LPCWSTR szGroupName)
{
    return refuseChange("SCardForgetReaderGroupW", szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szDeviceName)
{
    return refuseChange("SCardIntroduceReaderA", szReaderName, szDeviceName);
}

TESSEL_EXPORT LONG WINAPI SCardIntroduceReaderW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPCWSTR szDeviceName)
{
    return refuseChange("SCardIntroduceReaderW", szReaderName, szDeviceName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderA(SCARDCONTEXT hContext, LPCSTR szReaderName)
{
    return refuseChange("SCardForgetReaderA", szReaderName);
}

TESSEL_EXPORT LONG WINAPI SCardForgetReaderW(SCARDCONTEXT hContext, LPCWSTR szReaderName)
{
    return refuseChange("SCardForgetReaderW", szReaderName);
}

TESSEL_EXPORT LONG WINAPI SCardAddReaderToGroupA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szGroupName)
{
    return refuseChange("SCardAddReaderToGroupA", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardAddReaderToGroupW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPCWSTR szGroupName)
{
    return refuseChange("SCardAddReaderToGroupW", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardRemoveReaderFromGroupA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPCSTR szGroupName)
{
    return refuseChange("SCardRemoveReaderFromGroupA", szReaderName, szGroupName);
}

TESSEL_EXPORT LONG WINAPI SCardRemoveReaderFromGroupW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                                      LPCWSTR szGroupName)
{
    return refuseChange("SCardRemoveReaderFromGroupW", szReaderName, szGroupName);
}

}  // extern "C"

#endif
