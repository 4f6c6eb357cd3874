// POSIX sockets; the stand-in FTD2XX.dll builds vcard_bridge_none.cpp.
#include "sim/vcard_bridge.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "sim/rack_registry.h"
#include "sim/rack_setup.h"
#include "sim/virtual_card_port.h"
#include "sim/vpcd_message.h"

namespace racksim {
namespace {

constexpr uint8_t kNoCardStatus = 0x01;
constexpr uint8_t kMuteCardStatus = 0x03;

void closeFd(int& fd)
{
    if (fd >= 0) ::close(fd);
    fd = -1;
}

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string why(const char* call) { return std::string(call) + ": " + std::strerror(errno); }

class Hub;

// One slot given over to a virtual card. Everything in it is guarded by the
// registry's lock; the sockets are only used by the bridge thread.
class Endpoint final : public VirtualCardPort {
public:
    Endpoint(Hub& hub, RackDevice* device, int address, int port, bool connectToCard)
        : device(device), address(address), port(port), connectToCard(connectToCard), hub_(hub)
    {
    }

    void command(const Bytes& apdu) override;
    void resetCard() override { queueControl(kVpcdReset); }
    void rackReset() override;

    // The work the slot queued, in order; the bridge sends one item at a
    // time and waits for the answer of those that have one.
    struct Work {
        enum Kind { Control, AtrRequest, Command } kind;
        Bytes body;
    };

    RackDevice* device;
    const int address;
    const int port;
    const bool connectToCard;
    bool detached = false;

    int listenFd = -1;
    int cardFd = -1;
    bool connecting = false;
    Nanos retryAt = 0;

    std::deque<Work> outbox;
    Bytes unsent;                 // bytes of sent work the socket has not yet taken
    enum class Awaiting { Nothing, Atr, Answer } awaiting = Awaiting::Nothing;
    Nanos deadline = kNever;
    bool dropAnswer = false;      // the answer on its way belongs to work the rack dropped
    int owedAnswers = 0;          // commands queued or sent whose answer the host awaits
    bool mute = false;            // everything from the card is dropped until it goes
    VpcdReassembler reassembler{kLongestVirtualCardAnswer};

private:
    void queueControl(uint8_t control) { queue({Work::Control, Bytes{control}}); }
    void queue(Work work);
    Hub& hub_;
};

class Hub {
public:
    ~Hub() { detachAll(); }

    int attach(int device, int address, int port, bool connectToCard, std::string& error);
    void detach(int device, int address);
    void detachAll();
    void setTimeout(Nanos timeout)
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        timeout_ = timeout;
    }
    // Registry lock held.
    void wake()
    {
        const uint8_t byte = 1;
        if (wakeWrite_ >= 0 && ::write(wakeWrite_, &byte, 1) < 0) {
            // Full: a wake is pending already.
        }
    }

private:
    void run();
    Nanos pass(Nanos now);
    void serve(Endpoint& e, Nanos now);
    bool readCard(Endpoint& e, Nanos now);
    bool writeCard(Endpoint& e);
    void cardConnected(Endpoint& e, int fd, Nanos now);
    void cardMessage(Endpoint& e, const Bytes& body, Nanos now);
    void cardMute(Endpoint& e, Nanos now);
    void cardGone(Endpoint& e, Nanos now);
    void tryConnect(Endpoint& e, Nanos now);
    void letGo(Endpoint& e);
    void unhook(Endpoint& e, Nanos now);
    Endpoint* find(int device, int address);

    std::mutex lifecycle_;  // attach and detach against each other; taken before the registry's lock
    // Guarded by the registry's lock.
    std::vector<std::unique_ptr<Endpoint>> endpoints_;
    Nanos timeout_ = kDefaultVirtualCardTimeout;
    bool stopping_ = false;
    int wakeRead_ = -1, wakeWrite_ = -1;
    std::thread thread_;
};

Hub& hub()
{
    // Destroyed when the emulator is unloaded, which joins the thread.
    static Hub instance;
    return instance;
}

void Endpoint::queue(Work work)
{
    outbox.push_back(std::move(work));
    hub_.wake();
}

void Endpoint::command(const Bytes& apdu)
{
    ++owedAnswers;
    queue({Work::Command, apdu});
}

void Endpoint::rackReset()
{
    // The rack's slots drop their work: queued commands never go, and an
    // answer on its way is read (to stay in step) and dropped.
    outbox.erase(std::remove_if(outbox.begin(), outbox.end(), [](const Work& w) { return w.kind == Work::Command; }),
                 outbox.end());
    if (awaiting == Awaiting::Answer) dropAnswer = true;
    owedAnswers = 0;
    if (cardFd < 0 || mute) return;
    queueControl(kVpcdPowerOff);
    queueControl(kVpcdPowerOn);
}

Endpoint* Hub::find(int device, int address)
{
    RackDevice* d = deviceAt(device);
    for (auto& e : endpoints_)
        if (!e->detached && e->device == d && e->address == address) return e.get();
    return nullptr;
}

int Hub::attach(int device, int address, int port, bool connectToCard, std::string& error)
{
    if (port < 0 || port > 65535 || (connectToCard && port == 0)) {
        error = "port " + std::to_string(port) + " is out of range";
        return -1;
    }
    std::lock_guard<std::mutex> life(lifecycle_);
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        if (!deviceAt(device) || address < 1 || address > kSlotCount) {
            error = "no such device or slot";
            return -1;
        }
    }
    detach(device, address);

    int listenFd = -1;
    if (!connectToCard) {
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (listenFd < 0) {
            error = why("socket");
            return -1;
        }
        const int on = 1;
        ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address = loopback(port);
        socklen_t size = sizeof address;
        if (::bind(listenFd, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listenFd, 1) != 0 ||
            ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            error = "cannot listen on 127.0.0.1:" + std::to_string(port) + " (" + std::strerror(errno) + ")";
            closeFd(listenFd);
            return -1;
        }
        port = ntohs(address.sin_port);
    }

    std::lock_guard<std::mutex> lock(registry().mutex);
    RackDevice* d = deviceAt(device);
    if (!d) {  // gone meanwhile
        closeFd(listenFd);
        error = "no such device or slot";
        return -1;
    }
    if (!thread_.joinable()) {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            error = why("pipe2");
            closeFd(listenFd);
            return -1;
        }
        wakeRead_ = fds[0];
        wakeWrite_ = fds[1];
        stopping_ = false;
        thread_ = std::thread([this] { run(); });
    }
    auto e = std::make_unique<Endpoint>(*this, d, address, port, connectToCard);
    e->listenFd = listenFd;
    Nanos now = clockNow();
    d->advance(now);
    Slot& slot = d->slot(address);
    slot.virtualCard = e.get();
    if (slot.card != Slot::Card::None) {
        slot.card = Slot::Card::None;
        slot.atr.clear();
        d->cardChanged(address, now);
    }
    endpoints_.push_back(std::move(e));
    wake();
    return port;
}

// Registry lock held. The slot forgets the card, and the card is let go at
// once, so that its port is free again when this returns; the thread drops
// the endpoint at its next pass.
void Hub::unhook(Endpoint& e, Nanos now)
{
    e.detached = true;
    letGo(e);
    Slot& slot = e.device->slot(e.address);
    slot.virtualCard = nullptr;
    e.device->advance(now);
    for (; e.owedAnswers > 0; --e.owedAnswers) e.device->virtualCardAnswered(e.address, {}, kNoCardStatus, now);
    if (slot.card != Slot::Card::None) {
        slot.card = Slot::Card::None;
        slot.atr.clear();
        e.device->cardChanged(e.address, now);
    }
    wake();
}

void Hub::detach(int device, int address)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    if (Endpoint* e = find(device, address)) unhook(*e, clockNow());
}

void Hub::detachAll()
{
    std::lock_guard<std::mutex> life(lifecycle_);
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        const Nanos now = clockNow();
        for (auto& e : endpoints_)
            if (!e->detached) unhook(*e, now);
        stopping_ = true;
        wake();
    }
    // The thread lets every card go before it ends.
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(registry().mutex);
    endpoints_.clear();
    closeFd(wakeRead_);
    closeFd(wakeWrite_);
    stopping_ = false;
    timeout_ = kDefaultVirtualCardTimeout;
}

void Hub::run()
{
    std::vector<pollfd> fds;
    for (;;) {
        Nanos wait;
        {
            std::lock_guard<std::mutex> lock(registry().mutex);
            if (stopping_) return;  // every card was let go
            const Nanos now = clockNow();
            const Nanos next = pass(now);
            wait = next == kNever ? -1 : std::max<Nanos>(0, next - now);
            fds.clear();
            fds.push_back({wakeRead_, POLLIN, 0});
            for (auto& e : endpoints_) {
                if (e->cardFd >= 0)
                    fds.push_back({e->cardFd, static_cast<short>(POLLIN | (e->connecting || !e->unsent.empty() ? POLLOUT : 0)), 0});
                else if (e->listenFd >= 0)
                    fds.push_back({e->listenFd, POLLIN, 0});
            }
        }
        // Rounded up, so that a deadline is not polled for again and again
        // a moment before it is due.
        const int waitMs = wait < 0 ? -1 : static_cast<int>(std::min<Nanos>((wait + kMillisecond - 1) / kMillisecond, 60000));
        ::poll(fds.data(), fds.size(), waitMs);
        uint8_t drain[64];
        while (::read(wakeRead_, drain, sizeof drain) > 0) {
        }
    }
}

// One pass over every endpoint; returns the next moment one needs a look
// whatever its sockets do.
Nanos Hub::pass(Nanos now)
{
    Nanos next = kNever;
    for (auto it = endpoints_.begin(); it != endpoints_.end();) {
        Endpoint& e = **it;
        if (e.detached) {
            it = endpoints_.erase(it);
            continue;
        }
        serve(e, now);
        next = std::min(next, e.deadline);
        if (e.connectToCard && e.cardFd < 0) next = std::min(next, e.retryAt);
        ++it;
    }
    return next;
}

void Hub::serve(Endpoint& e, Nanos now)
{
    if (e.cardFd < 0) {
        if (e.connectToCard) {
            if (now >= e.retryAt) tryConnect(e, now);
        } else {
            const int fd = ::accept4(e.listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0) cardConnected(e, fd, now);
        }
        if (e.cardFd < 0) return;
    }
    if (e.connecting) {
        pollfd p{e.cardFd, POLLOUT, 0};
        if (::poll(&p, 1, 0) <= 0) return;
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(e.cardFd, SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            closeFd(e.cardFd);
            e.connecting = false;
            e.retryAt = now + kReconnectPause;
            return;
        }
        e.connecting = false;
        cardConnected(e, e.cardFd, now);
    }

    bool alive = readCard(e, now);
    if (alive && e.awaiting != Endpoint::Awaiting::Nothing && now >= e.deadline) cardMute(e, now);
    if (e.mute) e.outbox.clear();
    while (alive && e.awaiting == Endpoint::Awaiting::Nothing && !e.outbox.empty()) {
        Endpoint::Work work = std::move(e.outbox.front());
        e.outbox.pop_front();
        const Bytes message = vpcdMessage(work.kind == Endpoint::Work::AtrRequest ? Bytes{kVpcdAtrRequest} : work.body);
        e.unsent.insert(e.unsent.end(), message.begin(), message.end());
        if (work.kind == Endpoint::Work::Control) continue;
        e.awaiting = work.kind == Endpoint::Work::AtrRequest ? Endpoint::Awaiting::Atr : Endpoint::Awaiting::Answer;
        e.deadline = now + timeout_;
    }
    if (alive) alive = writeCard(e);
    if (!alive) cardGone(e, now);
}

void Hub::tryConnect(Endpoint& e, Nanos now)
{
    e.retryAt = now + kReconnectPause;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    const sockaddr_in address = loopback(e.port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        cardConnected(e, fd, now);
    } else if (errno == EINPROGRESS) {
        e.cardFd = fd;
        e.connecting = true;
    } else {
        ::close(fd);
    }
}

// A card is there: it is powered on and asked for its ATR, and inserted
// when that comes.
void Hub::cardConnected(Endpoint& e, int fd, Nanos now)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    e.cardFd = fd;
    e.reassembler = VpcdReassembler(kLongestVirtualCardAnswer);
    e.unsent.clear();
    e.outbox.clear();
    e.awaiting = Endpoint::Awaiting::Nothing;
    e.deadline = kNever;
    e.dropAnswer = false;
    e.mute = false;
    e.outbox.push_back({Endpoint::Work::Control, Bytes{kVpcdPowerOn}});
    e.outbox.push_back({Endpoint::Work::AtrRequest, {}});
}

// Returns false when the card has gone.
bool Hub::readCard(Endpoint& e, Nanos now)
{
    uint8_t buffer[4096];
    for (;;) {
        const ssize_t n = ::recv(e.cardFd, buffer, sizeof buffer, 0);
        if (n == 0) return false;
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (e.mute) continue;
        std::vector<Bytes> bodies;
        if (e.reassembler.feed(buffer, static_cast<size_t>(n), bodies) != VpcdReassembler::InStep) {
            cardMute(e, now);
            continue;
        }
        for (const Bytes& body : bodies) {
            if (e.mute) break;
            cardMessage(e, body, now);
        }
    }
}

// Returns false when the card has gone.
bool Hub::writeCard(Endpoint& e)
{
    while (!e.unsent.empty()) {
        const ssize_t n = ::send(e.cardFd, e.unsent.data(), e.unsent.size(), MSG_NOSIGNAL);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        e.unsent.erase(e.unsent.begin(), e.unsent.begin() + n);
    }
    return true;
}

void Hub::cardMessage(Endpoint& e, const Bytes& body, Nanos now)
{
    const Endpoint::Awaiting awaited = e.awaiting;
    e.awaiting = Endpoint::Awaiting::Nothing;
    e.deadline = kNever;
    RackDevice& d = *e.device;
    Slot& slot = d.slot(e.address);
    switch (awaited) {
    case Endpoint::Awaiting::Atr:
        if (body.empty() || body.size() > kMostAtrBytes) return cardMute(e, now);
        d.advance(now);
        slot.card = Slot::Card::Present;
        slot.atr = body;
        d.cardChanged(e.address, now);
        return;
    case Endpoint::Awaiting::Answer:
        if (e.dropAnswer) {
            e.dropAnswer = false;
            return;
        }
        // A response APDU ends with its status word.
        if (body.size() < 2) return cardMute(e, now);
        if (e.owedAnswers > 0) --e.owedAnswers;
        d.virtualCardAnswered(e.address, body, 0, now);
        return;
    case Endpoint::Awaiting::Nothing:
        // A message it was not asked for: the card is out of step.
        return cardMute(e, now);
    }
}

// The card broke the protocol or went silent. It stays in the slot as a
// mute card, and nothing it sends is taken any more, until it goes.
void Hub::cardMute(Endpoint& e, Nanos now)
{
    e.mute = true;
    e.awaiting = Endpoint::Awaiting::Nothing;
    e.deadline = kNever;
    e.outbox.clear();
    RackDevice& d = *e.device;
    Slot& slot = d.slot(e.address);
    d.advance(now);
    slot.card = Slot::Card::Mute;
    slot.atr.clear();
    if (e.owedAnswers == 0) d.cardChanged(e.address, now);
    for (; e.owedAnswers > 0; --e.owedAnswers) d.virtualCardAnswered(e.address, {}, kMuteCardStatus, now);
}

// The card disconnected: it is taken out.
void Hub::cardGone(Endpoint& e, Nanos now)
{
    closeFd(e.cardFd);
    e.connecting = false;
    e.retryAt = now + kReconnectPause;
    e.outbox.clear();
    e.unsent.clear();
    e.awaiting = Endpoint::Awaiting::Nothing;
    e.deadline = kNever;
    e.mute = false;
    RackDevice& d = *e.device;
    Slot& slot = d.slot(e.address);
    d.advance(now);
    const bool wasThere = slot.card != Slot::Card::None;
    slot.card = Slot::Card::None;
    slot.atr.clear();
    if (e.owedAnswers == 0 && wasThere) d.cardChanged(e.address, now);
    for (; e.owedAnswers > 0; --e.owedAnswers) d.virtualCardAnswered(e.address, {}, kNoCardStatus, now);
}

// Registry lock held; the slot has forgotten the endpoint. The card is
// powered down, as far as its socket takes that at once, and let go.
void Hub::letGo(Endpoint& e)
{
    if (e.cardFd >= 0 && !e.connecting && !e.mute) {
        const Bytes off = vpcdMessage({kVpcdPowerOff});
        if (e.unsent.empty()) ::send(e.cardFd, off.data(), off.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    closeFd(e.cardFd);
    closeFd(e.listenFd);
}

}  // namespace

int attachVirtualCard(int device, int address, int port, bool connectToCard, std::string& error)
{
    return hub().attach(device, address, port, connectToCard, error);
}

void detachVirtualCard(int device, int address) { hub().detach(device, address); }

void detachAllVirtualCards() { hub().detachAll(); }

void setVirtualCardTimeout(Nanos timeout) { hub().setTimeout(timeout); }

}  // namespace racksim
