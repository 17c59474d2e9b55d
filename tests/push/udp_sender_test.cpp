#include "loopback.h"

#include "push/udp_sender.h"

#include <gtest/gtest.h>

namespace velocast::push {
namespace {

using test::UdpReceiver;

std::vector<uint8_t> pattern(size_t size)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = uint8_t(i * 31 + 7);
    return data;
}

std::vector<uint8_t> headerOf(const std::vector<uint8_t> &datagram) { return {datagram.begin(), datagram.begin() + 4}; }

struct UdpFixture : ::testing::Test {
    void SetUp() override
    {
        ASSERT_TRUE(receiver.isValid());
        ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpOpenOk);
    }
    UdpReceiver receiver;
    CUdpSender sender;
};

TEST_F(UdpFixture, AudioFrameIsCutIntoMarkedPieces)
{
    const auto frame = pattern(3'000);
    ASSERT_EQ(sender.SendAudio(frame.data(), 3'000), 3'000);

    const size_t pieces[] = {1'420, 1'420, 160};
    size_t offset = 0;
    for (uint8_t seq = 0; seq < 3; ++seq) {
        auto datagram = receiver.receive();
        ASSERT_TRUE(datagram);
        ASSERT_EQ(datagram->size(), 4 + pieces[seq]);
        EXPECT_EQ(headerOf(*datagram), (std::vector<uint8_t> {
                                           seq, 0x00, // sequence 0, 1, 2
                                           0x03,      // first and last piece on every audio datagram
                                           0x05,      // type: audio
                                       }));
        EXPECT_TRUE(std::equal(datagram->begin() + 4, datagram->end(), frame.begin() + long(offset)));
        offset += pieces[seq];
    }
}

TEST_F(UdpFixture, TinyAudioFramesAreNotSent)
{
    const auto frame = pattern(5);
    EXPECT_EQ(sender.SendAudio(frame.data(), 4), kUdpSendFailed);
    EXPECT_EQ(sender.SendAudio(frame.data(), 0), kUdpSendFailed);
    EXPECT_EQ(sender.SendAudio(nullptr, 100), kUdpSendFailed);
    ASSERT_EQ(sender.SendAudio(frame.data(), 5), 5);
    // The first datagram to arrive is the 5-byte frame, still with sequence 0.
    auto datagram = receiver.receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(*datagram, (std::vector<uint8_t> {0x00, 0x00, 0x03, 0x05, frame[0], frame[1], frame[2], frame[3], frame[4]}));
}

TEST_F(UdpFixture, OpenAndCloseStates)
{
    EXPECT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpAlreadyOpen);
    sender.Close();
    EXPECT_FALSE(sender.IsOpen());
    const auto frame = pattern(100);
    EXPECT_EQ(sender.SendAudio(frame.data(), 100), kUdpSendFailed);

    CUdpSender other;
    EXPECT_EQ(other.Open("not an address", receiver.port()), kUdpBadAddress);
    EXPECT_EQ(other.Open(nullptr, receiver.port()), kUdpBadAddress);
    EXPECT_EQ(other.Setting(), 1);
    other.SetSetting(3);
    EXPECT_EQ(other.Setting(), 3);
    EXPECT_EQ(CUdpSender::MaxPayload(), 1'420);
}

TEST_F(UdpFixture, AbortStopsSending)
{
    const auto frame = pattern(100);
    sender.SetAbort(true);
    EXPECT_EQ(sender.SendAudio(frame.data(), 100), 0);
    EXPECT_EQ(sender.SendVideo(frame.data(), 100), 0);
    EXPECT_FALSE(receiver.receive(50));
}

TEST_F(UdpFixture, VideoPiecesCarryDropPriorityAndFrameBounds)
{
    auto idr = pattern(3'000);
    idr[4] = 0x65; // NAL type 5
    ASSERT_EQ(sender.SendVideo(idr.data(), 3'000), 3'000);
    auto slice = pattern(100);
    slice[4] = 0x41; // NAL type 1
    ASSERT_EQ(sender.SendVideo(slice.data(), 100), 100);

    const std::vector<std::vector<uint8_t>> headers = {
        {0x00, 0x00, 0x02, 0x01}, // seq 0; key (drop 0), first piece; video
        {0x01, 0x00, 0x00, 0x01}, // seq 1; middle piece
        {0x02, 0x00, 0x01, 0x01}, // seq 2; last piece
        {0x03, 0x00, 0x13, 0x01}, // seq 3; drop 1, first and last piece
    };
    for (const auto &expected : headers) {
        auto datagram = receiver.receive();
        ASSERT_TRUE(datagram);
        EXPECT_EQ(headerOf(*datagram), expected);
    }
}

TEST_F(UdpFixture, RawSendGoesOutUnchanged)
{
    const auto bytes = pattern(10);
    ASSERT_EQ(sender.SendRaw(bytes.data(), 10), 10);
    EXPECT_EQ(receiver.receive(), bytes);
}

TEST(CUdpSenderTest, MulticastBindUsesTheDestinationPort)
{
    UdpReceiver receiver(0, true);
    ASSERT_TRUE(receiver.isValid());
    CUdpSender sender;
    EXPECT_EQ(sender.BindMulticast("127.0.0.1"), -1) << "not open";
    ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpOpenOk);
    EXPECT_EQ(sender.BindMulticast("bogus"), -1);
    EXPECT_EQ(sender.BindMulticast("127.0.0.1"), 0);
}

} // namespace
} // namespace velocast::push
