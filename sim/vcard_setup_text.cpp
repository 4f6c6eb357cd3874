#include <algorithm>
#include <cstdlib>

#include "sim/rack_setup.h"
#include "sim/vcard_setup.h"

namespace racksim {
namespace {

bool number(const std::string& text, long low, long high, int& value)
{
    bool digitsOnly = !text.empty() && text.size() <= 9;
    for (char c : text) digitsOnly = digitsOnly && c >= '0' && c <= '9';
    const long n = digitsOnly ? std::strtol(text.c_str(), nullptr, 10) : -1;
    if (!digitsOnly || n < low || n > high) return false;
    value = static_cast<int>(n);
    return true;
}

}  // namespace

bool parseVirtualCardText(const std::string& text, VirtualCardSlots& slots, std::string& error)
{
    error = "vcard needs SLOT[-SLOT]@PORT or SLOT[-SLOT]@connect:PORT (slots 1 to " + std::to_string(kMostSlots) +
            ", ports 1 to 65535), not \"" + text + "\"";
    const size_t at = text.find('@');
    if (at == std::string::npos) return false;
    const std::string range = text.substr(0, at);
    std::string where = text.substr(at + 1);
    VirtualCardSlots parsed;
    const size_t dash = range.find('-');
    if (!number(range.substr(0, dash), 1, kMostSlots, parsed.first)) return false;
    parsed.last = parsed.first;
    if (dash != std::string::npos && !number(range.substr(dash + 1), 1, kMostSlots, parsed.last)) return false;
    if (parsed.last < parsed.first) return false;
    for (const char* mode : {"listen:", "connect:"}) {
        const std::string prefix = mode;
        if (where.compare(0, prefix.size(), prefix) == 0) {
            parsed.connect = prefix == "connect:";
            where = where.substr(prefix.size());
        }
    }
    if (!number(where, 1, 65535 - (parsed.last - parsed.first), parsed.port)) return false;
    slots = parsed;
    error.clear();
    return true;
}

bool checkVirtualCardSlots(const std::vector<VirtualCardSlots>& all, int slotsPerRack, std::string& error)
{
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].last > slotsPerRack) {
            error = "vcard names slot " + std::to_string(all[i].last) + ", beyond the " +
                    std::to_string(slotsPerRack) + " slots of a rack";
            return false;
        }
        for (size_t j = 0; j < i; ++j)
            if (all[i].first <= all[j].last && all[j].first <= all[i].last) {
                error = "vcard names slot " + std::to_string(std::max(all[i].first, all[j].first)) + " twice";
                return false;
            }
    }
    return true;
}

}  // namespace racksim
