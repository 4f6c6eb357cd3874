// Reader listing: the names of all slots of all racks as one multi-string,
// narrow or wide, in the three published forms (size query, the caller's
// buffer, SCARD_AUTOALLOCATE, by the rules of host_buffer.h), of every
// reader or of those in the groups the host names. Computed afresh on every
// call from g_racks; it does not wait for enumeration, which is what
// SCardEstablishContext is for.
#include <cstdlib>
#include <cstring>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/connection_table.h"
#include "pcsc/host_buffer.h"
#include "pcsc/reader_groups.h"
#include "pcsc/registry.h"
#include "pcsc/winscard_api.h"
#include "reader/reader.h"

namespace {

// The two forms run the same steps and differ in their character type and
// their traces; a null text means that the form writes no trace there.
template <typename Char>
struct ListingForm;

template <>
struct ListingForm<char> {
    static constexpr const char* entry = "SCardListReadersA\n";
    static constexpr const char* nullSize = nullptr;
    static constexpr const char* sizePrefix = "ascii len is ";
    static constexpr const char* noReaders = nullptr;
    static constexpr const char* autoAllocateWithoutPointer = "SCardListReadersA";
    static constexpr const char* afterAllocation = nullptr;
    static constexpr const char* noMemory = nullptr;
    static constexpr const char* tooSmall = nullptr;
    static constexpr const char* sizeQuery = nullptr;
    static constexpr const char* endPrefix = "reached end of listreaders ";
};

template <>
struct ListingForm<WCHAR> {
    static constexpr const char* entry = "SCardListReadersW\n";
    static constexpr const char* nullSize = "SCARD_E_INVALID_PARAMETER\n";
    static constexpr const char* sizePrefix = "wide len is ";
    static constexpr const char* noReaders = "SCARD_E_NO_READERS_AVAILABLE\n";
    static constexpr const char* autoAllocateWithoutPointer = nullptr;
    static constexpr const char* afterAllocation = "malloc complete\n";
    static constexpr const char* noMemory = "SCARD_E_NO_MEMORY\n";
    static constexpr const char* tooSmall = "SCARD_E_INSUFFICIENT_BUFFER\n";
    static constexpr const char* sizeQuery = "No buffer provided\n";
    static constexpr const char* endPrefix = "reached end of Wlistreaders ";
};

void traceIfAny(const char* text)
{
    if (text != nullptr) logWrite(text);
}

// Every reader name with its NUL, by rack in discovery order and by reader
// in the rack's order, and one more NUL at the end. The list is built in one
// walk and its size taken from it, so that a reader that appears while the
// call runs can never make the fill longer than the size reported.
template <typename Char>
std::basic_string<Char> composeReaderList()
{
    std::basic_string<Char> list;
    for (size_t r = 0, racks = g_racks.size(); r < racks; ++r) {
        const GrowingList<Reader*>& readers = g_racks[r]->readers();
        for (size_t i = 0, n = readers.size(); i < n; ++i) {
            // A reader of a lost rack, or of a slot no longer in its slot
            // map, is not listed until it is back.
            if (!readers[i]->available()) continue;
            list += textAs<Char>(readers[i]->name);
            list.push_back(Char(0));
        }
    }
    list.push_back(Char(0));
    return list;
}

// Whether a host's group list names a group that holds the readers. Every
// reader is in the one group SCard$DefaultReaders; SCard$AllReaders names
// all readers too. Group names are compared without regard to case, as
// Windows compares them. pcsc-lite ignores the list, and so does the
// library there.
template <typename Char>
bool groupsHoldReaders(const Char* groups)
{
#ifdef _WIN32
    if (groups == nullptr) return true;
    for (const Char* group = groups; *group != Char(0);) {
        size_t length = 0;
        while (group[length] != Char(0)) ++length;
        if (isReaderGroup(group, length)) return true;
        group += length + 1;
    }
    return false;
#else
    (void)groups;
    return true;
#endif
}

template <typename Char>
LONG listReaders(const Char* mszGroups, Char* mszReaders, LPDWORD pcchReaders)
{
    using Form = ListingForm<Char>;
    logWrite(Form::entry);
    if (pcchReaders == nullptr) {
        traceIfAny(Form::nullSize);
        return SCARD_E_INVALID_PARAMETER;
    }

    // Groups that hold no reader get the answer of an empty rack list.
    const std::basic_string<Char> list =
        groupsHoldReaders(mszGroups) ? composeReaderList<Char>() : std::basic_string<Char>(1, Char(0));
    // Sizes count characters in both forms.
    const DWORD size = static_cast<DWORD>(list.size());
    logWrite(Form::sizePrefix + decimalText(static_cast<uint32_t>(size)) + "\n");

    LONG result = SCARD_S_SUCCESS;
    if (size == 1) {
        // No reader: the same answer whatever size and buffer came in.
        traceIfAny(Form::noReaders);
        *pcchReaders = size;
        result = SCARD_E_NO_READERS_AVAILABLE;
    } else {
        HostBufferTraces traces;
        traces.autoAllocate = "SCARD_AUTOALLOCATE\n";
        traces.withoutPointer = Form::autoAllocateWithoutPointer;
        traces.allocated = Form::afterAllocation;
        traces.noMemory = Form::noMemory;
        traces.sizeQuery = Form::sizeQuery;
        traces.tooSmall = Form::tooSmall;
        result = deliverElements(list.data(), size, mszReaders, pcchReaders, ShortBuffer::untouched, traces);
    }
    logWrite(Form::endPrefix + decimalText(static_cast<uint32_t>(size)) + "\n");
    return result;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardListReadersA(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                                                       LPDWORD pcchReaders)
{
    if (!connection_table::acceptsQueryContext(hContext)) return SCARD_E_INVALID_HANDLE;
    return listReaders<char>(mszGroups, mszReaders, pcchReaders);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardListReadersW(SCARDCONTEXT hContext, LPCWSTR mszGroups, LPWSTR mszReaders,
                                                       LPDWORD pcchReaders)
{
    if (!connection_table::acceptsQueryContext(hContext)) return SCARD_E_INVALID_HANDLE;
    return listReaders<WCHAR>(mszGroups, mszReaders, pcchReaders);
}

// Takes back what the listing, the status query and the attribute call
// allocated for a host under SCARD_AUTOALLOCATE; all of it came from malloc.
extern "C" TESSEL_EXPORT LONG WINAPI SCardFreeMemory(SCARDCONTEXT hContext, LPCVOID pvMem)
{
    std::free(const_cast<void*>(pvMem));
    return SCARD_S_SUCCESS;
}
