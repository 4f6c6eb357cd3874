// Which racks this process takes: TESSEL_RACKS, read by the search at load
// and kept for the searches that follow while the library runs.
#include "pcsc/rack_selection.h"

#include <mutex>

#include "diag/trace_log.h"
#include "platform/environment.h"

bool parseRackSelection(const std::string& text, std::vector<std::string>& serials)
{
    std::vector<std::string> found;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const size_t first = item.find_first_not_of(' ');
        const size_t last = item.find_last_not_of(' ');
        item = first == std::string::npos ? std::string() : item.substr(first, last - first + 1);
        // FT_DEVICE_LIST_INFO_NODE holds at most 15 characters of a serial.
        if (item.empty() || item.size() > 15) return false;
        for (char c : item)
            if (static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) >= 0x7F) return false;
        found.push_back(item);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    serials = found;
    return true;
}

namespace {

// TESSEL_RACKS, read once per search (a search runs once per load). Empty:
// every rack. A refused value is traced and every rack is taken.
std::vector<std::string> rackSelection()
{
    std::vector<std::string> serials;
    std::string text;
    if (!platform::environmentVariable("TESSEL_RACKS", text)) return serials;
    if (!parseRackSelection(text, serials)) {
        logWrite("TESSEL_RACKS: \"" + text +
                 "\" is not a comma-separated list of serial numbers (such as TR0001,TR0003); every rack is taken\n");
        serials.clear();
    }
    return serials;
}

// The selection of the last search, for the searches that follow while the
// library runs: TESSEL_RACKS is read once, by the search at load.
std::mutex& selectionLock()
{
    static std::mutex* lock = new std::mutex;
    return *lock;
}

std::vector<std::string>& selectionStore()
{
    static std::vector<std::string>* serials = new std::vector<std::string>;
    return *serials;
}

bool selected(const std::vector<std::string>& selection, const char* serial)
{
    if (selection.empty()) return true;
    for (const std::string& wanted : selection)
        if (wanted == serial) return true;
    return false;
}

}  // namespace

void takeRackSelection()
{
    const std::vector<std::string> selection = rackSelection();
    std::lock_guard<std::mutex> guard(selectionLock());
    selectionStore() = selection;
}

bool rackSelected(const char* serial)
{
    std::lock_guard<std::mutex> guard(selectionLock());
    return selected(selectionStore(), serial);
}
