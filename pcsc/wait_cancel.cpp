#include "pcsc/wait_cancel.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "platform/process_fork.h"
#include "platform/sync.h"
#include "reader/reader.h"

namespace {

// The waits in progress. The lock is held only to add, remove or walk the
// list, never across a wait.
struct WaitList {
    // A forked child's status-change call registers its wait before it
    // learns that its context is the parent's.
    WaitList() { platform::holdAcrossFork(lock, platform::ForkLockRank::waitList); }

    platform::ExclusiveLock lock;
    std::vector<CancellableWait*> waits;
};

// Made on first use and never destroyed, so that a wait on a host thread
// still finds it while the process ends.
WaitList& waitList()
{
    static WaitList* list = new WaitList;
    return *list;
}

}  // namespace

CancellableWait::CancellableWait(SCARDCONTEXT context) : context_(context)
{
    WaitList& list = waitList();
    std::lock_guard<platform::ExclusiveLock> guard(list.lock);
    list.waits.push_back(this);
}

CancellableWait::~CancellableWait()
{
    WaitList& list = waitList();
    std::lock_guard<platform::ExclusiveLock> guard(list.lock);
    list.waits.erase(std::find(list.waits.begin(), list.waits.end(), this));
}

void cancelWaitsOf(SCARDCONTEXT context)
{
    WaitList& list = waitList();
    bool cancelledAny = false;
    {
        std::lock_guard<platform::ExclusiveLock> guard(list.lock);
        for (CancellableWait* wait : list.waits)
            if (wait->context() == context) {
                wait->cancel();
                cancelledAny = true;
            }
    }
    // The flags are set before the wake, so every woken wait sees its own.
    if (cancelledAny) cardEvents().notify();
}
