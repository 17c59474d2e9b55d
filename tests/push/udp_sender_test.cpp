#include "loopback.h"

#include "push/udp_sender.h"

#include <gtest/gtest.h>

namespace velocast::push {
namespace {

std::vector<uint8_t> pattern(size_t size)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = uint8_t(i * 31 + 7);
    return data;
}

std::vector<uint8_t> headerOf(const std::vector<uint8_t> &datagram) { return {datagram.begin(), datagram.begin() + 4}; }

struct UdpSenderTest : ::testing::Test {
    void SetUp() override
    {
        ASSERT_TRUE(receiver.isValid());
        ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpOpenOk);
        ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpAlreadyOpen);
    }
    test::UdpReceiver receiver;
    CUdpSender sender;
};

TEST_F(UdpSenderTest, AudioFrameIsCutIntoPiecesEachMarkedFirstAndLast)
{
    const auto frame = pattern(3'000);
    EXPECT_EQ(sender.SendAudio(frame.data(), 4), kUdpSendFailed) << "4 bytes are not sent";
    ASSERT_EQ(sender.SendAudio(frame.data(), 3'000), 3'000);

    const size_t pieces[] = {1'420, 1'420, 160};
    size_t offset = 0;
    for (uint8_t seq = 0; seq < 3; ++seq) {
        auto datagram = receiver.receive();
        ASSERT_TRUE(datagram);
        ASSERT_EQ(datagram->size(), 4 + pieces[seq]);
        EXPECT_EQ(headerOf(*datagram), (std::vector<uint8_t> {
                                           seq, 0x00, // sequence from 0: the refused frame used none
                                           0x03,      // first and last piece on every audio datagram
                                           0x05,      // type: audio
                                       }));
        EXPECT_TRUE(std::equal(datagram->begin() + 4, datagram->end(), frame.begin() + long(offset)));
        offset += pieces[seq];
    }

    sender.Close();
    EXPECT_EQ(sender.SendAudio(frame.data(), 100), kUdpSendFailed);
    EXPECT_EQ(CUdpSender().Open("127.1", receiver.port()), kUdpBadAddress) << "dotted quads only";
}

// The video send is not used by the push path, but its piece marks are what a receiver
// reassembles frames by.
TEST_F(UdpSenderTest, VideoPiecesCarryDropPriorityAndFrameBounds)
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

} // namespace
} // namespace velocast::push
