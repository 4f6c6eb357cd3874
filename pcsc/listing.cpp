// Reader listing: the names of all slots of all racks as one multi-string,
// narrow or wide, in the three published forms (size query, the caller's
// buffer, SCARD_AUTOALLOCATE). Computed afresh on every call from g_racks;
// it does not wait for enumeration, which is what SCardEstablishContext is
// for.
#include <cstdlib>
#include <cstring>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/connection_table.h"
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

    static void appendName(std::string& list, const Reader& reader) { list += reader.name; }
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

    static void appendName(std::wstring& list, const Reader& reader)
    {
        std::wstring wide;
        reader.wideName(wide);
        list += wide;
    }
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
            ListingForm<Char>::appendName(list, *readers[i]);
            list.push_back(Char(0));
        }
    }
    list.push_back(Char(0));
    return list;
}

template <typename Char>
LONG listReaders(Char* mszReaders, LPDWORD pcchReaders)
{
    using Form = ListingForm<Char>;
    logWrite(Form::entry);
    if (pcchReaders == nullptr) {
        traceIfAny(Form::nullSize);
        return SCARD_E_INVALID_PARAMETER;
    }

    const std::basic_string<Char> list = composeReaderList<Char>();
    // Sizes count characters in both forms.
    const DWORD size = static_cast<DWORD>(list.size());
    logWrite(Form::sizePrefix + decimalText(static_cast<uint32_t>(size)) + "\n");
    const size_t bytes = list.size() * sizeof(Char);

    LONG result = SCARD_S_SUCCESS;
    if (size == 1) {
        // No reader: the same answer whatever size and buffer came in.
        traceIfAny(Form::noReaders);
        result = SCARD_E_NO_READERS_AVAILABLE;
    } else if (*pcchReaders == SCARD_AUTOALLOCATE) {
        logWrite("SCARD_AUTOALLOCATE\n");
        if (mszReaders == nullptr) {
            traceIfAny(Form::autoAllocateWithoutPointer);
            result = SCARD_E_INVALID_PARAMETER;
        } else {
            // The host passed the address of its pointer; the block is its
            // own until it hands it back through SCardFreeMemory.
            Char* block = static_cast<Char*>(std::malloc(bytes));
            traceIfAny(Form::afterAllocation);
            if (block == nullptr) {
                traceIfAny(Form::noMemory);
                result = SCARD_E_NO_MEMORY;
            } else {
                *reinterpret_cast<Char**>(mszReaders) = block;
                std::memcpy(block, list.data(), bytes);
            }
        }
    } else if (mszReaders == nullptr) {
        traceIfAny(Form::sizeQuery);
    } else if (*pcchReaders < size) {
        traceIfAny(Form::tooSmall);
        result = SCARD_E_INSUFFICIENT_BUFFER;
    } else {
        std::memcpy(mszReaders, list.data(), bytes);
    }

    // The size goes back on every way out from here, failures included, so
    // that a host told its buffer is too small learns what it needs.
    *pcchReaders = size;
    logWrite(Form::endPrefix + decimalText(static_cast<uint32_t>(size)) + "\n");
    return result;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardListReadersA(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                                                       LPDWORD pcchReaders)
{
    if (!connection_table::isLiveContext(hContext)) return SCARD_E_INVALID_HANDLE;
    return listReaders<char>(mszReaders, pcchReaders);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardListReadersW(SCARDCONTEXT hContext, LPCWSTR mszGroups, LPWSTR mszReaders,
                                                       LPDWORD pcchReaders)
{
    if (!connection_table::isLiveContext(hContext)) return SCARD_E_INVALID_HANDLE;
    return listReaders<WCHAR>(mszReaders, pcchReaders);
}

// Takes back what the listing, the status query and the attribute call
// allocated for a host under SCARD_AUTOALLOCATE; all of it came from malloc.
extern "C" TESSEL_EXPORT LONG WINAPI SCardFreeMemory(SCARDCONTEXT hContext, LPCVOID pvMem)
{
    std::free(const_cast<void*>(pvMem));
    return SCARD_S_SUCCESS;
}
