// Every way from a bus address, a reader name or a card handle to its
// reader and rack: plain walks from the front, first match wins. They take
// no lock; the lists they walk only grow and publish complete elements.
#include "pcsc/lookups.h"

#include <cwchar>

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
Reader* firstReader(const GrowingList<Reader*>& readers, Match match)
{
    for (size_t i = 0, n = readers.size(); i < n; ++i)
        if (match(readers[i])) return readers[i];
    return nullptr;
}

template <typename Find>
Rack* firstRack(Find find)
{
    for (size_t i = 0, n = g_racks.size(); i < n; ++i)
        if (find(g_racks[i]) != nullptr) return g_racks[i];
    return nullptr;
}

}  // namespace

Reader* Rack::readerByAddress(uint32_t address) const
{
    return firstReader(readers, [address](Reader* r) { return r->address == address; });
}

Reader* Rack::readerByName(const char* name) const
{
    if (name == nullptr) return nullptr;
    return firstReader(readers, [name](Reader* r) { return r->name == name; });
}

Reader* Rack::readerByWideName(const wchar_t* name) const
{
    if (name == nullptr) return nullptr;
    return firstReader(readers, [name](Reader* r) { return sameWideName(r->name, name); });
}

Reader* Rack::readerByHandle(uint32_t cardHandle) const
{
    return firstReader(readers, [cardHandle](Reader* r) { return r->handle == cardHandle; });
}

Rack* rackByReaderName(const char* name)
{
    return firstRack([name](Rack* rack) { return rack->readerByName(name); });
}

Rack* rackByReaderNameWide(const wchar_t* name)
{
    return firstRack([name](Rack* rack) { return rack->readerByWideName(name); });
}

Rack* rackByCardHandle(uint32_t handle)
{
    return firstRack([handle](Rack* rack) { return rack->readerByHandle(handle); });
}
