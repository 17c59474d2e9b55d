#include "loopback.h"

#include "push/tcp_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <future>
#include <map>
#include <thread>

namespace velocast::push {
namespace {

using test::EventLog;
using test::makeFrame;
using test::readRecord;
using test::TcpListener;

constexpr uint8_t kSlice = 1, kIdr = 5, kSps = 7;

// The connect on loopback may complete at once (no event 2) or after a short wait (event 2).
std::vector<int32_t> withoutConnected(std::vector<int32_t> events)
{
    std::erase(events, kEventConnected);
    return events;
}

struct Connected {
    TcpListener listener;
    EventLog log;
    std::unique_ptr<CTcpClient> client = std::make_unique<CTcpClient>();
    Socket peer;

    explicit Connected(int receiveBuffer = 0) : listener(16, receiveBuffer)
    {
        EXPECT_TRUE(listener.isValid());
        EXPECT_EQ(client->Open("127.0.0.1", listener.port(), &log), kOpenOk);
        peer = listener.accept();
        EXPECT_TRUE(peer.isValid());
    }
};

TEST(CTcpClientTest, RecordsArriveByteExact)
{
    Connected c;
    EXPECT_EQ(withoutConnected(c.log.events()), (std::vector<int32_t> {kEventConnecting, kEventSenderStarted}));
    EXPECT_TRUE(c.client->IsConnected());

    const auto key = makeFrame(kSps, 1'000, 1);
    ASSERT_EQ(SendVideo(c.client.get(), 0, 1, 0, key.data(), int32_t(key.size())), 1'000);
    auto record = readRecord(c.peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->header, (std::vector<uint8_t> {
                                  '4', 'C', 'V', 'A',     // magic
                                  0xE8, 0x03, 0x00, 0x00, // payloadLength 1000
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
    EXPECT_EQ(record->fields.keyFlag, 0);
    EXPECT_EQ(record->payload, big);

    const uint8_t audio[3] = {0xFF, 0xF1, 0x50};
    ASSERT_EQ(SendAudioTcp(c.client.get(), 0x0102030405060708ull, audio, 3), 3);
    record = readRecord(c.peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->header, (std::vector<uint8_t> {
                                  '1', 'C', 'A', 'A',                             // magic
                                  3, 0, 0, 0,                                     // payloadLength
                                  0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // word
                                  0, 0, 0, 0, 0, 0, 0, 0,                         // zeros
                              }));
    EXPECT_EQ(record->payload, std::vector<uint8_t>(audio, audio + 3));
}

TEST(CTcpClientTest, OpenWhileOpenOnlyReplacesTheCallback)
{
    Connected c;
    EventLog second;
    EXPECT_EQ(c.client->Open("127.0.0.1", c.listener.port(), &second), kOpenAlreadyOpen);
    EXPECT_TRUE(second.events().empty());
    const size_t before = c.log.events().size();
    c.client->Close();
    EXPECT_EQ(second.events(), (std::vector<int32_t> {kEventClosed}));
    EXPECT_EQ(c.log.events().size(), before);
    c.client.reset(); // the callback must outlive the client
}

TEST(CTcpClientTest, CloseTwiceAndOneClosedEventPerInternalClose)
{
    Connected c;
    EXPECT_EQ(c.client->Close(), kCloseOk);
    EXPECT_EQ(withoutConnected(c.log.events()),
              (std::vector<int32_t> {kEventConnecting, kEventSenderStarted, kEventClosed}));
    EXPECT_FALSE(c.client->IsConnected());
    // Closing released the first four buffers; the other 31 stay listed.
    EXPECT_EQ(c.client->FreeCount(), kPoolBuffers - 4);
    EXPECT_EQ(c.client->Pool().Owners().size(), size_t(kPoolBuffers - 4));

    EXPECT_EQ(c.client->Close(), kCloseAlreadyClosing);
    EXPECT_EQ(c.log.events().size(), 3u + (c.log.events()[1] == kEventConnected)) << "no second event";

    uint8_t byte;
    EXPECT_EQ(::recv(c.peer.fd(), &byte, 1, 0), 0) << "the peer sees the connection end";

    c.client.reset(); // destruction closes once more
    const auto events = c.log.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), kEventClosed), 2);
}

TEST(CTcpClientTest, RefusesWhatCannotBeSent)
{
    CTcpClient idle;
    const auto frame = makeFrame(kSlice, 100);
    EXPECT_EQ(idle.Send(frame.data(), frame.data(), 100), kSendRefused) << "not connected";
    EXPECT_EQ(SendVideo(&idle, 0, 0, 0, frame.data(), 100), kSendVideoNotConnected);
    EXPECT_EQ(SendVideo(nullptr, 0, 0, 0, frame.data(), 100), kSendVideoNoClient);
    EXPECT_EQ(idle.SetTimeout(100'000'000), kDefaultTimeoutMs);
    EXPECT_EQ(idle.SetTimeout(250), 250);

    Connected c;
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, frame.data(), 0), kSendRefused);
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, frame.data(), -5), kSendRefused);
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, nullptr, 100), kSendRefused);
    c.client->Close();
    EXPECT_EQ(SendVideo(c.client.get(), 0, 0, 0, frame.data(), 100), kSendVideoNotConnected);
    EXPECT_EQ(c.client->Send(frame.data(), frame.data(), 100), kSendRefused);
}

// The receiver stops reading: the kernel buffers fill, the sender stalls and the queue
// takes the backlog. Non-key frames are overwritten, a key frame purges stale ones, and
// once only key records are queued new frames are refused. When the receiver reads again
// every accepted key frame arrives, in order, and nothing refused does.
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

    bool overwrote = false;
    for (int i = 0; i < 100'000 && !overwrote; ++i) {
        const int32_t result = send(kSlice, kFrameBytes).second;
        ASSERT_TRUE(result == int32_t(kFrameBytes) || result == kSendOverwrote) << result;
        overwrote = result == kSendOverwrote;
    }
    ASSERT_TRUE(overwrote);
    EXPECT_GE(c.client->OverwriteCount(), 1u);

    // 16 bytes beginning with an IDR slice: too short to count as key, so no purge.
    const int32_t shortIdr = send(kIdr, 16).second;
    EXPECT_TRUE(shortIdr == 16 || shortIdr == kSendOverwrote) << shortIdr;

    int purges = 0;
    uint32_t refusedId = 0;
    for (int i = 0; i < 200 && !refusedId; ++i) {
        const auto [id, result] = send(kSps, kFrameBytes);
        if (result == kSendQueueFull) {
            refusedId = id;
        } else if (result > kSendPurged) {
            EXPECT_LE(result - kSendPurged, kPoolBuffers - int32_t(CQueBufPool::kPurgeFloor));
            ++purges;
        } else {
            EXPECT_TRUE(result == int32_t(kFrameBytes) || result == kSendOverwrote) << result;
        }
    }
    EXPECT_GE(purges, 1);
    ASSERT_NE(refusedId, 0u) << "a queue of key records refuses the next frame";
    EXPECT_GE(c.client->PendingCount(), CQueBufPool::kPurgeFloor);

    uint32_t lastKey = 0;
    for (const auto &[id, type] : accepted) {
        if (type == kSps)
            lastKey = id;
    }
    uint32_t previous = 0;
    std::map<uint32_t, uint8_t> received;
    while (previous != lastKey) {
        auto record = readRecord(c.peer.fd());
        ASSERT_TRUE(record) << "stream ended after id " << previous;
        const uint32_t id = test::frameId(record->payload);
        ASSERT_GT(id, previous) << "records keep their order";
        ASSERT_TRUE(accepted.count(id)) << "id " << id << " was never accepted";
        EXPECT_EQ(record->payload, makeFrame(accepted[id], record->payload.size(), id));
        EXPECT_EQ(record->fields.keyFlag, accepted[id] == kSps ? 1 : 0);
        received[id] = accepted[id];
        previous = id;
    }
    for (const auto &[id, type] : accepted) {
        if (type == kSps) {
            EXPECT_TRUE(received.count(id)) << "key frame " << id << " was lost";
        }
    }
    EXPECT_FALSE(received.count(refusedId));
}

TEST(CTcpClientTest, PeerResetClosesTheClient)
{
    Connected c;
    const linger abort {1, 0}; // close with RST
    setsockopt(c.peer.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    c.peer.close();

    const auto frame = makeFrame(kSlice, 1'000);
    bool closed = false;
    for (int i = 0; i < 1'000 && !closed; ++i) {
        SendVideo(c.client.get(), 0, 0, 0, frame.data(), int32_t(frame.size()));
        closed = c.log.waitForCount(kEventClosed, 1, 20);
    }
    ASSERT_TRUE(closed);
    EXPECT_FALSE(c.client->IsConnected());
    EXPECT_EQ(c.client->Send(frame.data(), frame.data(), 100), kSendRefused);
    EXPECT_EQ(c.client->Close(), kCloseAlreadyClosing);
}

// A pending connect counts as made once the socket is writable, and a refused connect makes
// it writable: Open succeeds and the first write finds out.
TEST(CTcpClientTest, RefusedConnectShowsOnTheFirstWrite)
{
    test::RefusingPort refusing;
    EventLog log;
    CTcpClient client;
    ASSERT_EQ(client.Open("127.0.0.1", refusing.port, &log), kOpenOk);
    EXPECT_EQ(log.events(), (std::vector<int32_t> {kEventConnecting, kEventConnected, kEventSenderStarted}));
    const auto frame = makeFrame(kSps, 100);
    EXPECT_EQ(SendVideo(&client, 0, 1, 0, frame.data(), 100), 100);
    ASSERT_TRUE(log.waitForCount(kEventClosed, 1));
    EXPECT_EQ(client.Send(frame.data(), frame.data(), 100), kSendRefused);
}

TEST(CTcpClientTest, RecvReadsOneRecordAndCapsItsLength)
{
    {
        Connected c;
        std::vector<uint8_t> wire(wire::kRecordHeaderSize);
        wire::writeVideoRecordHeader(wire.data(), {5, 9, 0, 0});
        for (uint8_t b : {1, 2, 3, 4, 5})
            wire.push_back(b);
        ASSERT_EQ(::send(c.peer.fd(), wire.data(), wire.size(), 0), ssize_t(wire.size()));
        ASSERT_EQ(c.client->Recv(), 0);
        EXPECT_EQ(std::vector<uint8_t>(c.client->RecvHeader(), c.client->RecvHeader() + 24),
                  std::vector<uint8_t>(wire.begin(), wire.begin() + 24));
        ASSERT_EQ(c.client->RecvBodyLength(), 5);
        EXPECT_EQ(std::vector<uint8_t>(c.client->RecvBody(), c.client->RecvBody() + 5),
                  (std::vector<uint8_t> {1, 2, 3, 4, 5}));

        EXPECT_EQ(c.client->SetTimeout(20), 20);
        EXPECT_EQ(c.client->Recv(), kRecvWaitFailed) << "nothing arrives";
        EXPECT_FALSE(c.client->IsConnected());
        EXPECT_EQ(c.client->Recv(), kRecvNotConnected);
    }
    {
        Connected c;
        uint8_t header[wire::kRecordHeaderSize];
        wire::writeVideoRecordHeader(header, {0x7FFFFFFF, 0, 0, 0});
        ASSERT_EQ(::send(c.peer.fd(), header, sizeof header, 0), ssize_t(sizeof header));
        EXPECT_EQ(c.client->Recv(), kRecvBadHeader) << "a 2 GB body is not believed";
    }
    {
        Connected c;
        uint8_t wire[wire::kRecordHeaderSize + 3];
        wire::writeVideoRecordHeader(wire, {100, 0, 0, 0});
        ASSERT_EQ(::send(c.peer.fd(), wire, sizeof wire, 0), ssize_t(sizeof wire));
        c.peer.close();
        EXPECT_EQ(c.client->Recv(), kRecvBodyFailed) << "the body ends early";
    }
}

// Close (and destruction) racing with a producer, with large frames so that the sender is
// usually in the middle of one.
TEST(CTcpClientStress, CloseRacesWithSends)
{
    for (int round = 0; round < 5; ++round) {
        Connected c;
        std::jthread drain([fd = c.peer.fd()] {
            std::vector<uint8_t> sink(65'536);
            while (test::readExact(fd, sink.data(), 1))
                ::recv(fd, sink.data(), sink.size(), MSG_DONTWAIT);
        });
        std::promise<void> started;
        std::jthread producer([&] {
            const auto frame = makeFrame(kSlice, 200'000, uint32_t(round));
            for (int sent = 0;; ++sent) {
                if (sent == 20)
                    started.set_value();
                if (SendVideo(c.client.get(), 0, 0, 0, frame.data(), int32_t(frame.size())) < 0 && sent >= 20)
                    break;
            }
        });
        if (round % 2 == 0) // odd rounds close while the producer is just starting
            started.get_future().wait();
        EXPECT_EQ(c.client->Close(), kCloseOk);
        producer.join();
        c.client.reset();
        drain.join();
        const auto events = c.log.events();
        EXPECT_GE(std::count(events.begin(), events.end(), kEventClosed), 2);
    }
}

} // namespace
} // namespace velocast::push
