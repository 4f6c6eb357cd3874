// By name: plain walks from the front over every rack's readers, first
// match wins. They take no lock; the lists they walk only grow and publish
// complete elements. By card handle: one look in the connection table.
#include "pcsc/lookups.h"

#include "pcsc/connection_table.h"

#include <cstdint>
#include <string>

#include "link/rack.h"
#include "pcsc/registry.h"
#include "reader/reader.h"

namespace {

bool sameWideName(const std::string& name, const wchar_t* wide)
{
    size_t i = 0;
    for (; i < name.size(); ++i)
        if (wide[i] != static_cast<wchar_t>(static_cast<unsigned char>(name[i]))) return false;
    return wide[i] == L'\0';
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
    return firstMatch([name](const Reader& reader) { return reader.name == name; });
}

RackReader findReaderByWideName(const wchar_t* name)
{
    if (name == nullptr) return {};
    return firstMatch([name](const Reader& reader) { return sameWideName(reader.name, name); });
}

RackReader findReaderByCardHandle(SCARDHANDLE hCard)
{
    connection_table::Connection connection;
    if (!connection_table::find(hCard, connection)) return RackReader{};
    return {connection.rack, connection.reader};
}

void forgetCardHandles() { connection_table::forgetConnections(); }
