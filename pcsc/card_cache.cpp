// The card data cache: what a host writes for a card, under the card's
// identifier and a lookup name, it reads back in the same process as long
// as the freshness counter it gives is the one written with the data. Kept
// in memory only, as the published API allows: the cache is an
// optimisation, and a miss costs the host a read from the card.
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "pcsc/api_text.h"
#include "pcsc/call_trace.h"
#include "pcsc/host_buffer.h"
#include "pcsc/winscard_api.h"

namespace {

// The largest item kept; a larger one is refused as too big.
constexpr DWORD kLargestItem = 64 * 1024;
// So many items at most; the oldest writes make room for new ones.
constexpr size_t kMostItems = 1024;

struct Key {
    std::vector<BYTE> card;
    std::wstring name;
    bool operator<(const Key& other) const { return std::tie(card, name) < std::tie(other.card, other.name); }
};

struct Item {
    DWORD freshness = 0;
    std::vector<BYTE> data;
    unsigned long long written = 0;
};

struct Cache {
    std::mutex lock;
    std::map<Key, Item> items;
    unsigned long long writes = 0;
};

Cache& cache()
{
    static Cache instance;
    return instance;
}

template <typename Char>
Key keyOf(const UUID* card, const Char* name)
{
    const BYTE* bytes = reinterpret_cast<const BYTE*>(card);
    return Key{std::vector<BYTE>(bytes, bytes + sizeof(UUID)), wideText(name)};
}

template <typename Char>
LONG readCache(const char* stem, UUID* CardIdentifier, DWORD FreshnessCounter, const Char* LookupName, PBYTE Data,
               DWORD* DataLen)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (CardIdentifier == nullptr || LookupName == nullptr || DataLen == nullptr)
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    std::vector<BYTE> data;
    {
        Cache& items = cache();
        std::lock_guard<std::mutex> guard(items.lock);
        auto found = items.items.find(keyOf(CardIdentifier, LookupName));
        if (found == items.items.end()) return traceResult(call, SCARD_W_CACHE_ITEM_NOT_FOUND);
        if (found->second.freshness != FreshnessCounter) return traceResult(call, SCARD_W_CACHE_ITEM_STALE);
        data = found->second.data;
    }
    return traceResult(call, deliverElements(data.data(), static_cast<DWORD>(data.size()), Data, DataLen));
}

template <typename Char>
LONG writeCache(const char* stem, UUID* CardIdentifier, DWORD FreshnessCounter, const Char* LookupName, PBYTE Data,
                DWORD DataLen)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (CardIdentifier == nullptr || LookupName == nullptr || (Data == nullptr && DataLen != 0))
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    if (DataLen > kLargestItem) return traceResult(call, SCARD_W_CACHE_ITEM_TOO_BIG);
    Cache& items = cache();
    std::lock_guard<std::mutex> guard(items.lock);
    Item& item = items.items[keyOf(CardIdentifier, LookupName)];
    item.freshness = FreshnessCounter;
    item.data.assign(Data, Data + DataLen);
    item.written = ++items.writes;
    if (items.items.size() > kMostItems) {
        auto oldest = items.items.begin();
        for (auto i = items.items.begin(); i != items.items.end(); ++i)
            if (i->second.written < oldest->second.written) oldest = i;
        items.items.erase(oldest);
    }
    return traceResult(call, SCARD_S_SUCCESS);
}

}  // namespace

extern "C" {

LONG WINAPI SCardReadCacheA(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter, LPSTR LookupName,
                            PBYTE Data, DWORD* DataLen)
{
    return readCache("SCardReadCache", CardIdentifier, FreshnessCounter, LookupName, Data, DataLen);
}

LONG WINAPI SCardReadCacheW(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter, LPWSTR LookupName,
                            PBYTE Data, DWORD* DataLen)
{
    return readCache("SCardReadCache", CardIdentifier, FreshnessCounter, LookupName, Data, DataLen);
}

LONG WINAPI SCardWriteCacheA(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter, LPSTR LookupName,
                             PBYTE Data, DWORD DataLen)
{
    return writeCache("SCardWriteCache", CardIdentifier, FreshnessCounter, LookupName, Data, DataLen);
}

LONG WINAPI SCardWriteCacheW(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter, LPWSTR LookupName,
                             PBYTE Data, DWORD DataLen)
{
    return writeCache("SCardWriteCache", CardIdentifier, FreshnessCounter, LookupName, Data, DataLen);
}

}  // extern "C"
