#include "loopback.h"

#include "push/tcp_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <future>
#include <map>
#include <thread>

namespace velocast::push {
namespace {

using test::EventLog;
using test::makeFrame;
using test::readRecord;

constexpr uint8_t kSlice = 1, kIdr = 5, kSps = 7;

// A loopback connect may complete at once (no event 2) or after a short wait (event 2).
std::vector<int32_t> withoutConnected(std::vector<int32_t> events)
{
    std::erase(events, kEventConnected);
    return events;
}

struct Connected {
    explicit Connected(int receiveBuffer = 0) : listener(16, receiveBuffer)
    {
        EXPECT_EQ(client->Open("127.0.0.1", listener.port(), &log), kOpenOk);
        peer = listener.accept();
        EXPECT_TRUE(peer.isValid());
    }
    test::TcpListener listener;
    EventLog log; // outlives the client, which reports to it until destroyed
    std::unique_ptr<CTcpClient> client = std::make_unique<CTcpClient>();
    Socket peer;
};

TEST(CTcpClientTest, RecordsArriveByteExact)
{
    Connected c;
    const auto key = makeFrame(kSps, 1'000);
    ASSERT_EQ(SendVideo(c.client.get(), 0, 1, 0, key.data(), int32_t(key.size())), 1'000);
    auto record = readRecord(c.peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->header, (std::vector<uint8_t> {
                                  '4', 'C', 'V', 'A',     // magic
                                  0xE8, 0x03, 0x00, 0x00, // payloadLength 1000, little-endian
                                  0, 0, 0, 0, 0, 0, 0, 0, // timestamp
                                  0x01, 0x00,             // keyFlag
                                  0x00, 0x00,             // subStream
                                  0, 0, 0, 0,             // reserved
                              }));
    EXPECT_EQ(record->payload, key);

    // Larger than a pooled buffer: the buffer grows and the record still goes out whole.
    const auto big = makeFrame(kSlice, 300'000, 2);
    ASSERT_EQ(SendVideo(c.client.get(), 0, 0, 0, big.data(), int32_t(big.size())), 300'000);
    record = readRecord(c.peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->header[16], 0) << "keyFlag";
    EXPECT_EQ(record->payload, big);

    const uint8_t audio[3] = {0xFF, 0xF1, 0x50};
    ASSERT_EQ(SendAudioTcp(c.client.get(), 0x0102030405060708ull, audio, 3), 3);
    record = readRecord(c.peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->header, (std::vector<uint8_t> {
                                  '1', 'C', 'A', 'A',                             // magic
                                  3, 0, 0, 0,                                     // payloadLength
                                  0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // the caller's word
                                  0, 0, 0, 0, 0, 0, 0, 0,                         // zeros
                              }));
}

TEST(CTcpClientTest, LifecycleEventsAndRefusals)
{
    CTcpClient idle;
    const auto frame = makeFrame(kSlice, 100);
    EXPECT_EQ(idle.Send(frame.data(), frame.data(), 100), kSendRefused) << "not connected";
    EXPECT_EQ(SendVideo(&idle, 0, 0, 0, frame.data(), 100), kSendVideoNotConnected);
    EXPECT_EQ(SendVideo(nullptr, 0, 0, 0, frame.data(), 100), kSendVideoNoClient);
    EXPECT_EQ(idle.SetTimeout(100'000'000), kDefaultTimeoutMs);

    Connected c;
    EXPECT_EQ(withoutConnected(c.log.events()), (std::vector<int32_t> {kEventConnecting, kEventSenderStarted}));
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, frame.data(), 0), kSendRefused);
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, nullptr, 100), kSendRefused);

    EventLog replacement;
    EXPECT_EQ(c.client->Open("127.0.0.1", c.listener.port(), &replacement), kOpenAlreadyOpen);
    EXPECT_EQ(c.client->Close(), kCloseOk);
    EXPECT_EQ(replacement.events(), (std::vector<int32_t> {kEventClosed})) << "Open replaced the callback";
    EXPECT_EQ(c.client->Close(), kCloseAlreadyClosing);
    EXPECT_EQ(replacement.events().size(), 1u) << "no second close happened";
    EXPECT_EQ(c.client->Send(frame.data(), frame.data(), 100), kSendRefused);
    // Closing released the first four buffers; the other 31 stay listed.
    EXPECT_EQ(c.client->FreeCount(), kPoolBuffers - 4);
    uint8_t byte;
    EXPECT_EQ(::recv(c.peer.fd(), &byte, 1, 0), 0) << "the peer sees the connection end";

    c.client.reset(); // destruction closes once more
    EXPECT_EQ(replacement.events().size(), 2u);
}

// A receiver that stops reading: non-key frames are overwritten, a key frame purges stale ones,
// a queue of key records refuses new frames; once it reads again every accepted key frame arrives in order.
TEST(CTcpClientTest, StalledReceiverDrivesOverwritePurgeAndRefusal)
{
    Connected c(4'096);
    constexpr size_t kFrameBytes = 8'000;
    std::map<uint32_t, uint8_t> accepted; // id → NAL type
    uint32_t nextId = 1;
    auto send = [&](uint8_t nalType, size_t size) {
        const uint32_t id = nextId++;
        const auto frame = makeFrame(nalType, size, id);
        const int32_t result = SendVideo(c.client.get(), 0, nalType == kSps, 0, frame.data(), int32_t(frame.size()));
        if (result >= 0)
            accepted[id] = nalType;
        return std::pair {id, result};
    };

    int32_t result = 0;
    for (int i = 0; i < 100'000 && result != kSendOverwrote; ++i) {
        result = send(kSlice, kFrameBytes).second;
        ASSERT_TRUE(result == int32_t(kFrameBytes) || result == kSendOverwrote) << result;
    }
    ASSERT_EQ(result, kSendOverwrote);
    // 16 bytes beginning with an IDR slice: too short to count as key, so no purge.
    result = send(kIdr, 16).second;
    EXPECT_TRUE(result == 16 || result == kSendOverwrote) << result;

    int purges = 0;
    uint32_t refusedId = 0;
    for (int i = 0; i < 200 && !refusedId; ++i) {
        const auto [id, result] = send(kSps, kFrameBytes);
        refusedId = result == kSendQueueFull ? id : 0;
        purges += result > kSendPurged && result - kSendPurged <= kPoolBuffers - 9;
        EXPECT_TRUE(result == kSendQueueFull || result > kSendPurged || result == int32_t(kFrameBytes)) << result;
    }
    EXPECT_GE(purges, 1);
    ASSERT_NE(refusedId, 0u) << "a queue of key records refuses the next frame";

    const uint32_t lastKey = std::prev(accepted.end())->first;
    std::map<uint32_t, uint8_t> received;
    for (uint32_t previous = 0; previous != lastKey;) {
        auto record = readRecord(c.peer.fd());
        ASSERT_TRUE(record) << "stream ended after id " << previous;
        const uint32_t id = test::frameId(record->payload);
        ASSERT_GT(id, previous) << "records keep their order";
        ASSERT_TRUE(accepted.count(id)) << "id " << id << " was never accepted";
        EXPECT_EQ(record->payload, makeFrame(accepted[id], record->payload.size(), id));
        received[id] = accepted[id];
        previous = id;
    }
    for (const auto &[id, type] : accepted)
        EXPECT_TRUE(type != kSps || received.count(id)) << "key frame " << id << " was lost";
}

// A peer that resets the connection, and a refused connect (Open succeeds: a refused connect
// makes the socket writable, and a later write finds out): either way the client closes itself.
TEST(CTcpClientTest, ABrokenConnectionClosesTheClient)
{
    Connected c;
    const linger abort {1, 0}; // close with RST
    setsockopt(c.peer.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    c.peer.close();
    uint16_t refusingPort = test::TcpListener().port(); // closed again: connects are refused
    EventLog log;
    CTcpClient refused;
    ASSERT_EQ(refused.Open("127.0.0.1", refusingPort, &log), kOpenOk);
    EXPECT_EQ(log.events(), (std::vector<int32_t> {kEventConnecting, kEventConnected, kEventSenderStarted}));

    const auto frame = makeFrame(kSps, 1'000);
    for (auto [client, events] : {std::pair {c.client.get(), &c.log}, std::pair {&refused, &log}}) {
        bool closed = false;
        for (int i = 0; i < 1'000 && !closed; ++i) {
            SendVideo(client, 0, 1, 0, frame.data(), int32_t(frame.size()));
            closed = events->waitForCount(kEventClosed, 1, 20);
        }
        ASSERT_TRUE(closed);
        EXPECT_EQ(client->Send(frame.data(), frame.data(), 100), kSendRefused);
        EXPECT_EQ(client->Close(), kCloseAlreadyClosing);
    }
}

// Close and destruction racing with a producer of frames large enough to keep the sender busy.
TEST(CTcpClientStress, CloseRacesWithSends)
{
    for (int round = 0; round < 6; ++round) {
        Connected c;
        std::jthread drain([fd = c.peer.fd()] {
            std::vector<uint8_t> sink(65'536);
            while (test::readExact(fd, sink.data(), 1))
                ::recv(fd, sink.data(), sink.size(), MSG_DONTWAIT);
        });
        std::promise<void> started;
        std::jthread producer([&] {
            const auto frame = makeFrame(kSlice, 200'000);
            for (int sent = 0;; ++sent) {
                if (sent == 20)
                    started.set_value();
                if (SendVideo(c.client.get(), 0, 0, 0, frame.data(), int32_t(frame.size())) < 0 && sent >= 20)
                    break;
            }
        });
        if (round % 2 == 0) // odd rounds close while the producer is only starting
            started.get_future().wait();
        EXPECT_EQ(c.client->Close(), kCloseOk);
        producer.join();
        c.client.reset();
    }
}

} // namespace
} // namespace velocast::push
