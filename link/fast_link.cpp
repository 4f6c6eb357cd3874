#include "link/fast_link.h"

#include <mutex>
#include <string>

#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/clock.h"
#include "platform/d2xx_optional.h"
#include "platform/environment.h"
#include "platform/settings_epoch.h"
#include "platform/sync.h"

namespace {

constexpr const char* kSettingName = "TESSEL_FAST_LINK";
// The longest the receive thread sleeps on the fast link when no event
// comes: a missed event costs no more than the poll of the plain link.
constexpr uint32_t kEventFallbackMs = 5;
// A busy link is polled every 5 ms. An idle one (no frame awaited, no bytes
// held, nothing written or received lately) every kIdlePollMs, and a write
// wakes it at once, so that a farm of idle racks does not keep a core busy.
// What an idle link can bring unasked is a slot's card event, which then
// reaches the host up to kIdlePollMs later: a delay no host of a card farm
// can tell from the card's own timing.
constexpr uint32_t kPollMs = 5;
constexpr uint32_t kIdlePollMs = 50;

// The driver's range of the latency timer.
constexpr uint32_t kShortestTimerMs = 2;
constexpr uint32_t kLongestTimerMs = 255;

// Whole decimal numbers from 2 to 255, nothing else: no sign, no blanks.
bool parseLatencyTimer(const std::string& text, uint32_t& milliseconds)
{
    if (text.empty() || text.size() > 3) return false;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value < kShortestTimerMs || value > kLongestTimerMs) return false;
    milliseconds = value;
    return true;
}

uint32_t readSetting()
{
    std::string text;
    if (!platform::environmentVariable(kSettingName, text)) return 0;
    uint32_t milliseconds = 0;
    if (parseLatencyTimer(text, milliseconds)) return milliseconds;
    logWrite(std::string(kSettingName) + "=" + text + " ignored: a latency timer of 2 to 255 ms is expected\n");
    return 0;
}

}  // namespace

// Read at the first device open, on the discovery thread while the library
// loads, and kept for every later open of the same load; a new start of the
// settings (platform/settings_epoch.h, which tests use to stand for a new
// load) reads it again.
uint32_t fastLinkLatencyTimerMs()
{
    static platform::ExclusiveLock guard;
    static bool read = false;
    static uint32_t epoch = 0;
    static uint32_t value = 0;
    std::lock_guard<platform::ExclusiveLock> hold(guard);
    uint32_t now = platform::settingsEpoch();
    if (!read || epoch != now) {
        value = readSetting();
        epoch = now;
        read = true;
    }
    return value;
}

// Called from open, once the line is set. Each half of the fast link works
// on its own: a D2XX library with only one of the two functions gets that
// one.
void Rack::setUpFastLink()
{
    uint32_t timerMs = fastLinkLatencyTimerMs();
    if (timerMs == 0) {
        shortenTimerForBringUp();
        return;
    }

    if (FT_SetLatencyTimerFunction setLatencyTimer = platform::findSetLatencyTimer()) {
        // A driver may refuse the call; the link then stays on the driver's
        // timer, and the log says so rather than claim the timer was set.
        const FT_STATUS status = setLatencyTimer(ftHandle, static_cast<uint8_t>(timerMs));
        if (status == FT_OK)
            logWrite("Fast link: latency timer " + std::to_string(timerMs) + " ms\n");
        else
            logWrite("Fast link: FT_SetLatencyTimer refused " + std::to_string(timerMs) + " ms (status " +
                     std::to_string(static_cast<uint32_t>(status)) + "), latency timer left as the driver has it\n");
    } else {
        logWrite("Fast link: FT_SetLatencyTimer not found, latency timer left as the driver has it\n");
    }

    FT_SetEventNotificationFunction setEventNotification = platform::findSetEventNotification();
    if (setEventNotification == nullptr) {
        logWrite("Fast link: FT_SetEventNotification not found, polling every 5 ms\n");
        return;
    }
    // A link opened again after its device came back keeps the event it
    // had: the stop path may wake it from another thread at any time.
    if (receiveEvent_) {
        if (setEventNotification(ftHandle, FT_EVENT_RXCHAR, receiveEvent_->notificationParameter()) == FT_OK)
            logWrite("Fast link: woken by received bytes\n");
        else
            logWrite("Fast link: no receive event, polling every 5 ms\n");
        return;
    }
    auto event = std::make_unique<platform::DeviceEvent>();
    if (!event->valid() || setEventNotification(ftHandle, FT_EVENT_RXCHAR, event->notificationParameter()) != FT_OK) {
        logWrite("Fast link: no receive event, polling every 5 ms\n");
        return;
    }
    receiveEvent_ = std::move(event);
    logWrite("Fast link: woken by received bytes\n");
}

// The bring-up asks every slot for its status in turn, and each short reply
// sits in the device for its latency timer: 16 ms a slot at the driver's
// default, nearly 4 s for a rack of 240 slots. The bring-up therefore runs
// on the shortest timer whatever the setting, and the driver's value is put
// back once the slots have answered, so the host's own traffic sees the
// link exactly as it asked for it. A D2XX library that cannot read or set
// the timer leaves the bring-up on the driver's timer, untraced: the link
// then is what it always was.
void Rack::shortenTimerForBringUp()
{
    FT_GetLatencyTimerFunction getLatencyTimer = platform::findGetLatencyTimer();
    FT_SetLatencyTimerFunction setLatencyTimer = platform::findSetLatencyTimer();
    timerAfterBringUp_.store(0, std::memory_order_release);
    if (getLatencyTimer == nullptr || setLatencyTimer == nullptr) return;
    uint8_t driverMs = 0;
    if (getLatencyTimer(ftHandle, &driverMs) != FT_OK || driverMs <= kShortestTimerMs) return;
    if (setLatencyTimer(ftHandle, static_cast<uint8_t>(kShortestTimerMs)) != FT_OK) return;
    timerAfterBringUp_.store(driverMs, std::memory_order_release);
    logWrite("Bring-up: latency timer " + std::to_string(kShortestTimerMs) + " ms until the slots have answered\n");
}

// On the status thread, before the status-collected frame goes out. The
// link lock keeps the handle from being closed under the call.
void Rack::restoreTimerAfterBringUp()
{
    const uint32_t driverMs = timerAfterBringUp_.exchange(0, std::memory_order_acq_rel);
    if (driverMs == 0) return;
    FT_SetLatencyTimerFunction setLatencyTimer = platform::findSetLatencyTimer();
    lockLinkForWrite();
    const FT_STATUS status = lost() ? FT_DEVICE_NOT_FOUND : setLatencyTimer(ftHandle, static_cast<uint8_t>(driverMs));
    unlockLinkAfterWrite();
    if (status == FT_OK)
        logWrite("Bring-up over: latency timer " + std::to_string(driverMs) + " ms\n");
    else
        logWrite("Bring-up over: FT_SetLatencyTimer refused " + std::to_string(driverMs) + " ms (status " +
                 std::to_string(static_cast<uint32_t>(status)) + ")\n");
}

void Rack::pauseBetweenPolls(bool busy, uint32_t writesSeen)
{
    // With the device's event, bytes end the wait whatever its limit; the
    // limit only bounds an event that went astray, and a write needs no
    // wake of its own, as its answer comes back as bytes.
    if (receiveEvent_)
        receiveEvent_->wait(busy ? kEventFallbackMs : kIdlePollMs);
    else if (busy)
        platform::pauseMs(kPollMs);
    else
        linkWrites_.wait(writesSeen, kIdlePollMs);
}
