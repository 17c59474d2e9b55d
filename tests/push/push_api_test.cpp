#include "loopback.h"

#include "push/push_api.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <optional>

namespace velocast::push {
namespace {

using test::makeFrame;

// The registered callback hands each event to the EventLog given as its user data.
int32_t toEventLog(int32_t userValue, int32_t event, int32_t zero, void *userData)
{
    EXPECT_EQ(userValue, 1);
    EXPECT_EQ(zero, 0);
    return static_cast<test::EventLog *>(userData)->OnEvent(event);
}

int openDescriptorCount() { return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

struct PushApiTest : ::testing::Test {
    void SetUp() override
    {
        // A receiver with a TCP listener and a UDP socket on the same port number.
        for (int attempt = 0; attempt < 20 && !(udp && udp->isValid()); ++attempt) {
            tcp = test::TcpListener();
            udp.emplace(tcp.port());
        }
        ASSERT_TRUE(udp->isValid()) << "no port number free for both TCP and UDP";
        handle = PushCreate();
        ASSERT_EQ(PushSetCallback(handle, toEventLog, 1, &log), 0);
    }
    void TearDown() override { PushClose(PushCreate()); }
    test::EventLog log;
    test::TcpListener tcp;
    std::optional<test::UdpReceiver> udp;
    PushHandle handle = nullptr;
    std::vector<uint8_t> key = makeFrame(7, 2'000, 42);
    PushFrame video {kFrameTypeVideo, 2'000, kFrameFlagKey, key.data(), 0, 0};
};

TEST_F(PushApiTest, VideoGoesByTcpAndAudioByUdpToTheSamePort)
{
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady) << "before PushInit";
    ASSERT_EQ(PushInit(handle, "127.0.0.1", tcp.port()), kPushOk);
    EXPECT_EQ(PushInit(handle, "127.0.0.1", tcp.port()), kPushAlreadyDone);
    Socket peer = tcp.accept();
    ASSERT_TRUE(peer.isValid());
    EXPECT_EQ(PushSendFrame(handle, nullptr), kPushNotReady);

    for (const uint32_t flag : {kFrameFlagKey, kFrameFlagOther}) {
        video.flag = flag;
        EXPECT_EQ(PushSendFrame(handle, &video), kPushOk);
        const auto record = test::readRecord(peer.fd());
        ASSERT_TRUE(record);
        EXPECT_EQ(record->fields.keyFlag, flag == kFrameFlagKey ? 1 : 0);
        EXPECT_EQ(record->payload, key);
    }

    // The result hides what the transport did: the 4-byte frame and the unknown type do not go out.
    std::vector<uint8_t> aac(100, 0x5A);
    PushFrame audio {kFrameTypeAudio, 4, kFrameFlagAac, aac.data(), 12, 345'678};
    PushFrame unknown {9, 100, 0, aac.data(), 0, 0};
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk);
    EXPECT_EQ(PushSendFrame(handle, &unknown), kPushOk);
    audio.length = 10;
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushOk);
    const auto datagram = udp->receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->size(), 14u);

    EXPECT_EQ(PushClose(handle), kPushOk);
    EXPECT_EQ(PushSendFrame(handle, &audio), kPushNotReady);

    const auto events = log.events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), kEventConnecting);
    EXPECT_EQ(events.back(), kEventClosed);
}

// A full accept queue drops the connect's SYN and the connect wait runs out: -11, no descriptor left open.
TEST_F(PushApiTest, ConnectWaitRunningOutFailsInitWithoutUdp)
{
    test::TcpListener listener(0);
    Socket filler(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address {AF_INET, htons(listener.port()), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(::connect(filler.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);

    const int descriptors = openDescriptorCount();
    EXPECT_EQ(PushInit(handle, "127.0.0.1", listener.port()), kPushTcpFailed);
    EXPECT_EQ(openDescriptorCount(), descriptors);
    // The failed Open closes, and deleting the failed client closes once more.
    EXPECT_EQ(log.events(),
              (std::vector<int32_t> {kEventConnecting, kEventConnectTimeout, kEventClosed, kEventClosed}));
    EXPECT_EQ(PushSendFrame(handle, &video), kPushNotReady);
}

} // namespace
} // namespace velocast::push
