// By name: one look in a map from name to reader, filled on the first
// lookup of each name by a walk from the front over every rack's readers
// (first match wins). Readers are never freed while the library runs and
// their names never change, so an entry once made stays right; a name that
// matches no reader is walked for each time and never stored. A status
// change over thousands of records thus costs one hash look per record
// instead of a walk over every rack. By card handle: one look in the
// connection table.
#include "pcsc/lookups.h"

#include "pcsc/connection_table.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/registry.h"
#include "reader/reader.h"

namespace {

struct NameMap {
    std::mutex guard;
    std::unordered_map<std::string, RackReader> readers;
};

// Never destroyed: host threads may look names up while the process exits.
NameMap& nameMap()
{
    static NameMap* map = new NameMap;
    return *map;
}

template <typename Match>
RackReader firstMatch(Match match)
{
    for (size_t r = 0, racks = g_racks.size(); r < racks; ++r) {
        const GrowingList<Reader*>& readers = g_racks[r]->readers();
        for (size_t i = 0, n = readers.size(); i < n; ++i)
            if (match(*readers[i])) return {g_racks[r], readers[i]};
    }
    return {};
}

}  // namespace

RackReader findReaderByName(const char* name)
{
    if (name == nullptr) return {};
    NameMap& map = nameMap();
    const std::string key(name);
    {
        std::lock_guard<std::mutex> hold(map.guard);
        auto found = map.readers.find(key);
        if (found != map.readers.end()) return found->second;
    }
    const RackReader walked = firstMatch([&key](const Reader& reader) { return reader.name == key; });
    if (walked.reader != nullptr) {
        std::lock_guard<std::mutex> hold(map.guard);
        map.readers.emplace(key, walked);
    }
    return walked;
}

RackReader findReaderByName(const wchar_t* name)
{
    if (name == nullptr) return {};
    // Narrowing is exact and undoes the widening, so the narrow name finds
    // the one reader whose wide name this is.
    std::string narrow;
    if (!narrowedExactly(name, narrow)) return {};
    return findReaderByName(narrow.c_str());
}

RackReader findReaderByCardHandle(SCARDHANDLE hCard)
{
    connection_table::Connection connection;
    if (!connection_table::find(hCard, connection)) return RackReader{};
    return {connection.rack, connection.reader};
}

void forgetCardHandles()
{
    connection_table::forgetConnections();
    // The readers go with the racks: the names must not find them.
    NameMap& map = nameMap();
    std::lock_guard<std::mutex> hold(map.guard);
    map.readers.clear();
}
