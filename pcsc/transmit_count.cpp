#include "pcsc/transmit_count.h"

#include <mutex>
#include <unordered_map>

namespace {

struct Counts {
    std::mutex lock;
    std::unordered_map<SCARDHANDLE, uint32_t> byHandle;
};

Counts& counts()
{
    static Counts instance;
    return instance;
}

}  // namespace

void countTransmit(SCARDHANDLE hCard)
{
    Counts& all = counts();
    std::lock_guard<std::mutex> guard(all.lock);
    ++all.byHandle[hCard];
}

uint32_t transmitsOf(SCARDHANDLE hCard)
{
    Counts& all = counts();
    std::lock_guard<std::mutex> guard(all.lock);
    auto found = all.byHandle.find(hCard);
    return found == all.byHandle.end() ? 0 : found->second;
}
