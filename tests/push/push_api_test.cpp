#include "loopback.h"

#include "push/push_api.h"
#include "push/push_log.h"
#include "push/rate_limiter.h"
#include "push/tcp_client.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace velocast::push {
namespace {

using test::makeFrame;

// ---- the registered callback and the log sink record into function-local statics ----

struct Recorded {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::array<intptr_t, 4>> calls; // userValue, event, zero, userData
    std::vector<std::string> lines;
};
Recorded &recorded()
{
    static Recorded r;
    return r;
}

int32_t recordEvent(int32_t userValue, int32_t event, int32_t zero, void *userData)
{
    {
        std::lock_guard lock(recorded().mutex);
        recorded().calls.push_back({userValue, event, zero, reinterpret_cast<intptr_t>(userData)});
    }
    recorded().changed.notify_all();
    return 0;
}

bool waitForEvent(int32_t event, int timeoutMs)
{
    std::unique_lock lock(recorded().mutex);
    return recorded().changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return std::any_of(recorded().calls.begin(), recorded().calls.end(),
                           [&](const auto &call) { return call[1] == event; });
    });
}

void recordLine(int, const char *text)
{
    std::lock_guard lock(recorded().mutex);
    recorded().lines.push_back(text);
}

size_t linesStartingWith(const std::string &prefix)
{
    std::lock_guard lock(recorded().mutex);
    return size_t(std::count_if(recorded().lines.begin(), recorded().lines.end(),
                                [&](const std::string &line) { return line.rfind(prefix, 0) == 0; }));
}

std::vector<int32_t> recordedEvents()
{
    std::lock_guard lock(recorded().mutex);
    std::vector<int32_t> events;
    for (const auto &call : recorded().calls)
        events.push_back(int32_t(call[1]));
    return events;
}

struct PushApiTest : ::testing::Test {
    void SetUp() override
    {
        std::lock_guard lock(recorded().mutex);
        recorded().calls.clear();
        recorded().lines.clear();
    }
    void TearDown() override
    {
        PushClose(PushCreate());
        SetLogSink(nullptr);
    }
};

// A receiver with a TCP listener and a UDP socket on the same port number.
struct MediaReceiver {
    MediaReceiver()
    {
        for (int attempt = 0; attempt < 20 && !udp; ++attempt) {
            tcp = std::make_unique<test::TcpListener>();
            udp = std::make_unique<test::UdpReceiver>(tcp->port());
            if (!udp->isValid())
                udp.reset();
        }
    }
    std::unique_ptr<test::TcpListener> tcp;
    std::unique_ptr<test::UdpReceiver> udp;
};

TEST_F(PushApiTest, NothingIsSentBeforeInit)
{
    PushHandle handle = PushCreate();
    ASSERT_NE(handle, nullptr);
    const auto frame = makeFrame(7, 100);
    PushFrame video {kFrameTypeVideo, 100, kFrameFlagKey, frame.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady);
    EXPECT_EQ(PushSendFrame(handle, nullptr), kPushNotReady);
    EXPECT_EQ(PushClose(handle), kPushOk);
    EXPECT_EQ(PushClose(nullptr), kPushOk) << "a foreign handle is ignored";
}

TEST_F(PushApiTest, VideoGoesByTcpAndAudioByUdpToTheSamePort)
{
    MediaReceiver receiver;
    ASSERT_TRUE(receiver.udp);
    SetLogSink(recordLine);
    static char userData[] = "123";
    PushHandle handle = PushCreate();
    EXPECT_EQ(PushSetCallback(handle, recordEvent, 1, userData), 0);
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk);
    EXPECT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushAlreadyDone);
    Socket peer = receiver.tcp->accept();
    ASSERT_TRUE(peer.isValid());
    EXPECT_EQ(linesStartingWith("SimAPI-init called: server: 127.0.0.1:" + std::to_string(receiver.tcp->port()) + "  ret: "),
              1u);

    const auto key = makeFrame(7, 2'000, 42);
    PushFrame video {kFrameTypeVideo, 2'000, kFrameFlagKey, key.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushOk);
    auto record = test::readRecord(peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->fields.payloadLength, 2'000u);
    EXPECT_EQ(record->fields.keyFlag, 1);
    EXPECT_EQ(record->fields.timestamp, 0u);
    EXPECT_EQ(record->payload, key);

    const auto other = makeFrame(1, 500, 43);
    video = {kFrameTypeVideo, 500, kFrameFlagOther, other.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushOk);
    record = test::readRecord(peer.fd());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->fields.keyFlag, 0);

    std::vector<uint8_t> aac(3'000, 0x5A);
    PushFrame audio {kFrameTypeAudio, 3'000, kFrameFlagAac, aac.data(), 12, 345'678};
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk);
    for (size_t expected : {1'424u, 1'424u, 164u}) {
        auto datagram = receiver.udp->receive();
        ASSERT_TRUE(datagram);
        EXPECT_EQ(datagram->size(), expected);
    }
    audio.length = 4;
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk) << "the result hides what the transport did";
    PushFrame unknown {9, 100, 0, aac.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &unknown), kPushOk);
    audio.length = 10;
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk);
    auto datagram = receiver.udp->receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->size(), 14u) << "neither the 4-byte frame nor the unknown type went out";

    EXPECT_EQ(PushClose(handle), kPushOk);
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushNotReady);
    EXPECT_EQ(linesStartingWith("[init-push] close existing server....\n"), 2u) << "PushCreate closed too";

    std::lock_guard lock(recorded().mutex);
    ASSERT_FALSE(recorded().calls.empty());
    for (const auto &call : recorded().calls) {
        EXPECT_EQ(call[0], 1);
        EXPECT_EQ(call[2], 0);
        EXPECT_EQ(call[3], reinterpret_cast<intptr_t>(userData));
    }
    EXPECT_EQ(recorded().calls.front()[1], kEventConnecting);
    EXPECT_EQ(recorded().calls.back()[1], kEventClosed);
}

TEST_F(PushApiTest, CreateForgetsTheCallbackAndClosesTheContext)
{
    MediaReceiver receiver;
    ASSERT_TRUE(receiver.udp);
    PushHandle handle = PushCreate();
    PushSetCallback(handle, recordEvent, 1, nullptr);
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk);
    const size_t before = recordedEvents().size();

    EXPECT_EQ(PushCreate(), handle);
    const auto frame = makeFrame(7, 100);
    PushFrame video {kFrameTypeVideo, 100, kFrameFlagKey, frame.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady) << "closed";
    EXPECT_EQ(recordedEvents().size(), before) << "the close reported to nobody";
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk) << "open again";
    EXPECT_EQ(recordedEvents().size(), before);
}

// The listener's accept queue is full, so the kernel drops the connect's SYN and the
// connect wait (3 s) runs out: -11, and no descriptor is left open.
TEST_F(PushApiTest, ConnectWaitRunningOutFailsInitWithoutUdp)
{
    test::TcpListener listener(0);
    ASSERT_TRUE(listener.isValid());
    Socket filler(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(filler.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);

    PushHandle handle = PushCreate();
    PushSetCallback(handle, recordEvent, 1, nullptr);
    const int descriptors = test::openDescriptorCount();
    EXPECT_EQ(PushInit(handle, "127.0.0.1", listener.port()), kPushTcpFailed);
    EXPECT_EQ(test::openDescriptorCount(), descriptors);
    // The failed Open closes, and deleting the failed client closes once more.
    EXPECT_EQ(recordedEvents(),
              (std::vector<int32_t> {kEventConnecting, kEventConnectTimeout, kEventClosed, kEventClosed}));
    const auto frame = makeFrame(7, 100);
    PushFrame video {kFrameTypeVideo, 100, kFrameFlagKey, frame.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady);
}

// "127.1" is a valid address for the TCP connect but not dotted IPv4 text for the UDP
// sender, so the video connection is made and then given up again.
TEST_F(PushApiTest, UdpFailureClosesTheContextAgain)
{
    MediaReceiver receiver;
    ASSERT_TRUE(receiver.udp);
    PushHandle handle = PushCreate();
    EXPECT_EQ(PushInit(handle, "127.1", receiver.tcp->port()), kPushUdpFailed);
    Socket peer = receiver.tcp->accept();
    ASSERT_TRUE(peer.isValid());
    uint8_t byte;
    EXPECT_FALSE(test::readExact(peer.fd(), &byte, 1)) << "the video connection was closed";
    const auto frame = makeFrame(7, 100);
    PushFrame video {kFrameTypeVideo, 100, kFrameFlagKey, frame.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady);
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk) << "nothing was left open";
}

// A broken video connection is not reported through the send results: video frames keep
// returning 0 and audio goes on over UDP.
TEST_F(PushApiTest, BrokenVideoConnectionStaysSilent)
{
    MediaReceiver receiver;
    ASSERT_TRUE(receiver.udp);
    PushHandle handle = PushCreate();
    PushSetCallback(handle, recordEvent, 1, nullptr);
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk);
    Socket peer = receiver.tcp->accept();
    const linger abort {1, 0}; // close with RST
    setsockopt(peer.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    peer.close();

    const auto key = makeFrame(7, 1'000);
    PushFrame video {kFrameTypeVideo, 1'000, kFrameFlagKey, key.data(), 0, 0};
    bool closed = false;
    for (int i = 0; i < 1'000 && !closed; ++i) {
        EXPECT_EQ(PushSendFrame(handle, &video), kPushOk);
        closed = waitForEvent(kEventClosed, 20);
    }
    ASSERT_TRUE(closed);
    EXPECT_EQ(PushSendFrame(handle, &video), kPushOk);
    std::vector<uint8_t> aac(50, 0x22);
    PushFrame audio {kFrameTypeAudio, 50, kFrameFlagAac, aac.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk);
    auto datagram = receiver.udp->receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->size(), 54u);
}

TEST_F(PushApiTest, FrameLogIsRateLimited)
{
    MediaReceiver receiver;
    ASSERT_TRUE(receiver.udp);
    PushHandle handle = PushCreate();
    ASSERT_EQ(PushInit(handle, "127.0.0.1", receiver.tcp->port()), kPushOk);
    SetLogSink(recordLine);
    std::vector<uint8_t> aac(100, 0x11);
    PushFrame audio {kFrameTypeAudio, 100, kFrameFlagAac, aac.data(), 0, 0};
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 300; ++i)
        PushSendFrame(handle, &audio);
    const auto elapsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    // However long the burst took, a line per started second at most.
    EXPECT_LE(linesStartingWith("SimAPI recv_data:  length: 100  video?: 0  audio? 1  video-sub: 0\n"),
              size_t(elapsedMs / 1'000 + 1));
}

int64_t &fakeNow()
{
    static int64_t now = 0;
    return now;
}
int64_t fakeClock() { return fakeNow(); }

TEST(LogRateLimiterTest, OncePerInterval)
{
    fakeNow() = 5'000'000;
    LogRateLimiter limiter(fakeClock);
    EXPECT_TRUE(limiter.Allow(1'000)) << "the first call";
    fakeNow() += 999;
    EXPECT_FALSE(limiter.Allow(1'000));
    fakeNow() += 1;
    EXPECT_TRUE(limiter.Allow(1'000));
    EXPECT_FALSE(limiter.Allow(1'000)) << "the interval restarted";
    fakeNow() += 5'000;
    EXPECT_FALSE(limiter.Allow(-1)) << "a negative interval refuses";
    EXPECT_TRUE(limiter.Allow(0));
    fakeNow() -= 10; // the wall clock stepped back
    EXPECT_FALSE(limiter.Allow(1));
}

} // namespace
} // namespace velocast::push
