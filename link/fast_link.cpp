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
    if (timerMs == 0) return;

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

void Rack::pauseBetweenPolls(uint32_t pollMs)
{
    if (receiveEvent_)
        receiveEvent_->wait(kEventFallbackMs);
    else
        platform::pauseMs(pollMs);
}
