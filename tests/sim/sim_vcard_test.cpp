// Slots given over to virtual cards: the vpcd message framing byte for
// byte, and the slot seen from both ends, the host's frames on one side and
// a card written here on the other, over loopback. The card misbehaves on
// demand: bad lengths, silence, a connection dropped in the middle of an
// answer.
#include "sim_host.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "sim/rack_sim_vcard.h"
#include "sim/vpcd_message.h"

using namespace simtest;

namespace {

// ---- Framing ---------------------------------------------------------------

// Each row feeds its chunks in order; the bodies are those that came out
// whole, and the state the one after the last chunk.
TEST(VpcdMessage, ReassemblesBodiesAcrossChunksAndRefusesOverlongLengths)
{
    using R = racksim::VpcdReassembler;
    const struct Row {
        const char* name;
        std::vector<Bytes> chunks;
        std::vector<Bytes> bodies;
        R::State state;
        bool midMessage;
    } rows[] = {
        {"one control", {{0x00, 0x01, 0x04}}, {{0x04}}, R::InStep, false},
        {"two in one chunk", {{0x00, 0x02, 0x90, 0x00, 0x00, 0x01, 0x3B}}, {{0x90, 0x00}, {0x3B}}, R::InStep, false},
        {"split everywhere", {{0x00}, {0x03, 0x61}, {0x10}, {0x90}}, {{0x61, 0x10, 0x90}}, R::InStep, false},
        {"empty body", {{0x00, 0x00, 0x00, 0x01, 0x02}}, {{}, {0x02}}, R::InStep, false},
        {"half a head", {{0x00}}, {}, R::InStep, true},
        {"half a body", {{0x00, 0x04, 0x01, 0x02}}, {}, R::InStep, true},
        {"the longest taken", {{0x00, 0x08}, Bytes(8, 0xAB)}, {Bytes(8, 0xAB)}, R::InStep, false},
        {"one more than the longest", {{0x00, 0x02, 0x90, 0x00, 0x00, 0x09, 0x01}}, {{0x90, 0x00}}, R::TooLong, false},
        {"nothing after a breach", {{0xFF, 0xFF}, {0x00, 0x01, 0x04}}, {}, R::TooLong, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        R reassembler(8);
        std::vector<Bytes> bodies;
        for (const Bytes& chunk : row.chunks) reassembler.feed(chunk.data(), chunk.size(), bodies);
        EXPECT_EQ(bodies, row.bodies);
        EXPECT_EQ(reassembler.state(), row.state);
        if (row.state == R::InStep) {
            EXPECT_EQ(reassembler.midMessage(), row.midMessage);
        }
    }
    EXPECT_EQ(racksim::vpcdMessage({0x04}), (Bytes{0x00, 0x01, 0x04}));
    EXPECT_EQ(racksim::vpcdMessage(Bytes(0x1234, 0x00)).size(), 0x1236u);
    EXPECT_EQ(racksim::vpcdMessage(Bytes(0x1234, 0x00))[0], 0x12);
    EXPECT_EQ(racksim::vpcdMessage(Bytes(0x10000, 0x00)), Bytes{});
}

// ---- A virtual card written for the tests -----------------------------------

constexpr auto kBound = std::chrono::milliseconds(5000);

class FakeCard {
public:
    ~FakeCard() { close(); }

    bool connectTo(int port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(port);
        return ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }

    // Waits for the emulator to connect to `listener`.
    bool acceptFrom(int listener)
    {
        pollfd p{listener, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(kBound.count())) != 1) return false;
        fd_ = ::accept(listener, nullptr, nullptr);
        return fd_ >= 0;
    }

    void sendRaw(const Bytes& bytes) { ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size())); }
    void send(const Bytes& body) { sendRaw(racksim::vpcdMessage(body)); }

    // The next message from the reader; nothing when the connection ends or
    // none comes within the bound.
    std::optional<Bytes> receive(std::chrono::milliseconds limit = kBound)
    {
        Bytes head, body;
        if (!readExactly(head, 2, limit)) return std::nullopt;
        if (!readExactly(body, static_cast<size_t>(head[0]) << 8 | head[1], limit)) return std::nullopt;
        return body;
    }

    // Whether the reader closed the connection within the bound, with
    // nothing more sent.
    bool closedByReader()
    {
        Bytes rest;
        return !readExactly(rest, 1, kBound) && rest.empty() && eof_;
    }

    // The card's side of an insertion: power on, the ATR request, the ATR.
    void insert(const Bytes& atr)
    {
        EXPECT_EQ(receive(), (Bytes{0x01}));
        EXPECT_EQ(receive(), (Bytes{0x04}));
        send(atr);
    }

    void close()
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    static sockaddr_in loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

private:
    bool readExactly(Bytes& out, size_t count, std::chrono::milliseconds limit)
    {
        const auto deadline = Clock::now() + limit;
        while (out.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
            uint8_t byte[4096];
            const ssize_t n = ::recv(fd_, byte, std::min(sizeof byte, count - out.size()), 0);
            if (n <= 0) {
                eof_ = true;
                return false;
            }
            out.insert(out.end(), byte, byte + n);
        }
        return true;
    }

    int fd_ = -1;
    bool eof_ = false;
};

const Bytes kAtr{0x3B, 0x02, 0x14, 0x50};
const Bytes kCommand{0x00, 0x84, 0x00, 0x00, 0x08};

class SimVirtualCard : public SimOpenRack {
protected:
    void SetUp() override
    {
        SimOpenRack::SetUp();
        port = rackSimAttachVirtualCard(rack, 1, 0, 0);
        ASSERT_GT(port, 0);
    }

    // The card connects and is inserted; the host sees its status frame.
    void insertCard(FakeCard& card, const Bytes& atr = kAtr)
    {
        ASSERT_TRUE(card.connectTo(port));
        card.insert(atr);
        EXPECT_EQ(readBytes(atr.size() + 5), hostFrame(1, 0x05, atr));
    }

    // A card command goes to the card after the acknowledge.
    void sendCommand(FakeCard& card, const Bytes& apdu = kCommand)
    {
        write(hostFrame(1, 0x40, apdu));
        EXPECT_EQ(readBytes(5), hostFrame(1, 0x06));
        EXPECT_EQ(card.receive(), apdu);
    }

    int port = -1;
};

// ---- The card's life in the slot ---------------------------------------------

TEST_F(SimVirtualCard, ConnectingInsertsCommandsGoToTheCardAndDisconnectingRemoves)
{
    // Before a card is there the slot is empty.
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), concat({hostFrame(1, 0x06), hostFrame(1, 0x01)}));
    FakeCard card;
    insertCard(card);
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), concat({hostFrame(1, 0x06), hostFrame(1, 0x05, kAtr)}));

    // Answers as the card gives them, the extended form from 256 bytes on,
    // with the slot's answer status.
    Bytes longAnswer(300);
    for (size_t i = 0; i < longAnswer.size(); ++i) longAnswer[i] = static_cast<uint8_t>(i * 3);
    for (const Bytes& answer : {Bytes{0x90, 0x00}, Bytes{0x01, 0x02, 0x63, 0x00}, longAnswer}) {
        sendCommand(card);
        card.send(answer);
        const Bytes frame = answer.size() < 256 ? hostFrame(1, 0x04, answer)
                                                : withChecksum(concat({{0x55, 0x01, 0x2C, 0x0D, 0x01}, answer}));
        EXPECT_EQ(readBytes(frame.size()), frame);
    }
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), 3);

    // A protocol selection resets the card; the slot reports it as before.
    EXPECT_EQ(exchange(hostFrame(1, 0x60)), concat({hostFrame(1, 0x06), hostFrame(1, 0x05, kAtr)}));
    EXPECT_EQ(card.receive(), (Bytes{0x02}));
    // A reset of the rack drops an answer still owed and powers the card
    // down and up; the late answer never reaches the host.
    sendCommand(card);
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xF0, 0xBB}), Bytes{});
    card.send({0x90, 0x00});
    EXPECT_EQ(card.receive(), (Bytes{0x00}));
    EXPECT_EQ(card.receive(), (Bytes{0x01}));
    sendCommand(card, {0x00, 0xB0});
    card.send({0x6A, 0x82});
    EXPECT_EQ(readBytes(7), hostFrame(1, 0x04, {0x6A, 0x82}));

    // A second card that connects meanwhile waits its turn, and is
    // inserted once the first has gone.
    FakeCard next;
    ASSERT_TRUE(next.connectTo(port));
    EXPECT_EQ(next.receive(std::chrono::milliseconds(100)), std::nullopt);
    card.close();
    EXPECT_EQ(readBytes(5), hostFrame(1, 0x01));
    next.insert({0x3B, 0x00});
    EXPECT_EQ(readBytes(7), hostFrame(1, 0x05, {0x3B, 0x00}));
}

// On a paced line the card's answer is held by the latency timer like any
// other short frame (only lower bounds on time, as for the emulator's own
// cards).
TEST_F(SimVirtualCard, AnswersTakeTheLineAndTheLatencyTimer)
{
    FakeCard card;
    insertCard(card);
    rackSimSetWireRealism(rack, 1);
    rackSimSetLatencyTimerMs(rack, 60);
    // The frame reaches the rack, and the card, once its wire time is over
    // and the host looks again.
    write(hostFrame(1, 0x40, kCommand));
    EXPECT_EQ(readBytes(5), hostFrame(1, 0x06));
    EXPECT_EQ(card.receive(), kCommand);
    const auto answered = Clock::now();
    card.send({0x90, 0x00});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(queued(), 0u) << "a 60 ms timer still holds the answer after 20 ms";
    EXPECT_EQ(readBytes(7), hostFrame(1, 0x04, {0x90, 0x00}));
    EXPECT_GE(Clock::now() - answered, std::chrono::milliseconds(60));
}

// Each row is a card that misbehaves, from the ATR request on or after a
// command, and what the host sees: a mute card (status 3) or a removal
// (status 1), as an event or as the answer to the command. A card taken
// for mute stays so until it disconnects, which removes it.
TEST_F(SimVirtualCard, BadLengthsSilenceAndDroppedConnectionsGiveAMuteCardOrARemoval)
{
    rackSimSetVirtualCardTimeoutMs(300);
    const struct Row {
        const char* name;
        bool afterCommand;                   // else instead of the ATR
        std::function<void(FakeCard&)> act;  // what the card does
        uint8_t status;
        bool told = true;                    // false: the host hears of nothing, as no card was ever in
    } rows[] = {
        {"an empty ATR", false, [](FakeCard& c) { c.send({}); }, 0x03},
        {"an ATR of 33 bytes", false, [](FakeCard& c) { c.send(Bytes(33, 0x3B)); }, 0x03},
        {"no ATR", false, [](FakeCard&) {}, 0x03},
        {"closed before the ATR", false, [](FakeCard& c) { c.close(); }, 0x01, false},
        {"an answer without a status word", true, [](FakeCard& c) { c.send({0x90}); }, 0x03},
        {"an answer of 4,097 bytes", true, [](FakeCard& c) { c.send(Bytes(4097, 0x90)); }, 0x03},
        {"a length of 65,535", true, [](FakeCard& c) { c.sendRaw({0xFF, 0xFF, 0x90, 0x00}); }, 0x03},
        {"no answer", true, [](FakeCard&) {}, 0x03},
        {"closed in the middle of an answer", true,
         [](FakeCard& c) {
             c.sendRaw({0x00, 0x0A, 0x01, 0x02, 0x03});
             c.close();
         },
         0x01},
        {"closed instead of an answer", true, [](FakeCard& c) { c.close(); }, 0x01},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FakeCard card;
        if (row.afterCommand) {
            insertCard(card);
            sendCommand(card);
        } else {
            ASSERT_TRUE(card.connectTo(port));
            EXPECT_EQ(card.receive(), (Bytes{0x01}));
            EXPECT_EQ(card.receive(), (Bytes{0x04}));
        }
        row.act(card);
        if (row.told) {
            EXPECT_EQ(readBytes(5), hostFrame(1, row.status));
        }
        EXPECT_EQ(exchange(hostFrame(1, 0x00)), concat({hostFrame(1, 0x06), hostFrame(1, row.status)}));
        if (row.status == 0x03) {
            // Mute: commands are answered by the slot, nothing goes to the card.
            EXPECT_EQ(exchange(hostFrame(1, 0x40, kCommand)), concat({hostFrame(1, 0x06), hostFrame(1, 0x03)}));
            card.send({0x90, 0x00});
            EXPECT_EQ(card.receive(std::chrono::milliseconds(100)), std::nullopt);
            card.close();
            EXPECT_EQ(readBytes(5), hostFrame(1, 0x01));
        }
        EXPECT_EQ(readNow(), Bytes{});
    }
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), 0);
}

// The other direction: the card listens and the emulator connects, and
// connects again after the card has gone.
TEST_F(SimVirtualCard, TheEmulatorConnectsToACardThatListensAndAgainAfterItWent)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = FakeCard::loopback(0);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    const int cardPort = ntohs(address.sin_port);

    EXPECT_EQ(rackSimAttachVirtualCard(rack, 2, cardPort, 1), cardPort);
    for (const Bytes& atr : {kAtr, Bytes{0x3B, 0x00}}) {
        FakeCard card;
        ASSERT_TRUE(card.acceptFrom(listener));
        card.insert(atr);
        EXPECT_EQ(readBytes(atr.size() + 5), hostFrame(2, 0x05, atr));
        card.close();
        EXPECT_EQ(readBytes(5), hostFrame(2, 0x01));
    }
    ::close(listener);
}

// Letting a card go powers it down and closes its connection, whether one
// slot is given back or the whole emulator is reset; its port is free at
// once. Bad arguments are refused.
TEST_F(SimVirtualCard, LettingGoPowersDownAndFreesThePort)
{
    FakeCard card;
    insertCard(card);
    rackSimDetachVirtualCard(rack, 1);
    EXPECT_EQ(card.receive(), (Bytes{0x00}));
    EXPECT_TRUE(card.closedByReader());
    EXPECT_EQ(readBytes(5), hostFrame(1, 0x01));
    // The slot's own responder answers again once a card is put in.
    rackSimInsertCard(rack, 1, kAtr.data(), static_cast<int>(kAtr.size()));
    readBytes(kAtr.size() + 5);
    EXPECT_EQ(exchange(hostFrame(1, 0x40, kCommand)), concat({hostFrame(1, 0x06), hostFrame(1, 0x04, {0x90, 0x00})}));

    // Given over again, on the same port; then the emulator is reset.
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 1, port, 0), port);
    EXPECT_EQ(readBytes(5), hostFrame(1, 0x01));  // the slot's own card is taken out
    FakeCard again;
    insertCard(again);
    rackSimReset();
    EXPECT_EQ(again.receive(), (Bytes{0x00}));
    EXPECT_TRUE(again.closedByReader());

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(rackSimAttachVirtualCard(0, 1, 0, 0), -1);  // no device left
    rack = openRack("TR000002");
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 0, 0, 0), -1);
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 241, 0, 0), -1);
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 1, 65536, 0), -1);
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 1, 0, 1), -1);
    const int taken = rackSimAttachVirtualCard(rack, 1, 0, 0);
    ASSERT_GT(taken, 0);
    EXPECT_EQ(rackSimAttachVirtualCard(rack, 2, taken, 0), -1);  // the port is in use
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("cannot listen on 127.0.0.1:" + std::to_string(taken)),
              std::string::npos);
}

}  // namespace
