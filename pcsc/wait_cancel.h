// The status-change waits in progress, by context, so that SCardCancel can
// end every wait that was called with its context. A wait registers itself
// for its whole run and looks at its own flag on every pass; a cancel sets
// the flags of the waits that are registered at that moment, so a wait that
// starts after it is not touched, and then wakes the sleeping waits through
// the card events (reader.h), on which every status-change wait sleeps.
#pragma once

#include <atomic>

#include "pcsc/winscard_api.h"

// One wait in progress: registered on construction, unregistered on
// destruction.
class CancellableWait {
public:
    explicit CancellableWait(SCARDCONTEXT context);
    ~CancellableWait();
    CancellableWait(const CancellableWait&) = delete;
    CancellableWait& operator=(const CancellableWait&) = delete;

    // Cheap enough for every pass of a wait: no lock.
    bool cancelled() const { return cancelled_.load(std::memory_order_acquire); }

    SCARDCONTEXT context() const { return context_; }
    void cancel() { cancelled_.store(true, std::memory_order_release); }

private:
    const SCARDCONTEXT context_;
    std::atomic<bool> cancelled_{false};
};

// Marks every wait registered with `context` as cancelled. Nothing is kept
// for waits that start later.
void cancelWaitsOf(SCARDCONTEXT context);
