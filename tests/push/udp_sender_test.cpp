#include "loopback.h"

#include "push/udp_sender.h"

#include <gtest/gtest.h>

namespace velocast::push {
namespace {

// Audio frames go in pieces each marked first and last; video pieces carry the frame
// bounds and a drop priority (key 0, other 1) that a receiver reassembles frames by.
TEST(UdpSenderTest, FramesAreCutIntoNumberedPiecesWithTheirMarks)
{
    test::UdpReceiver receiver;
    ASSERT_TRUE(receiver.isValid());
    CUdpSender sender;
    EXPECT_EQ(CUdpSender().Open("127.1", receiver.port()), kUdpBadAddress) << "dotted quads only";
    ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpOpenOk);
    ASSERT_EQ(sender.Open("127.0.0.1", receiver.port()), kUdpAlreadyOpen);

    std::vector<uint8_t> frame(3'000);
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = uint8_t(i * 31 + 7);
    EXPECT_EQ(sender.SendAudio(frame.data(), 4), kUdpSendFailed) << "4 bytes are not sent";
    ASSERT_EQ(sender.SendAudio(frame.data(), 3'000), 3'000);
    auto idr = frame, slice = frame;
    idr[4] = 0x65; // NAL type 5
    slice[4] = 0x41; // NAL type 1
    ASSERT_EQ(sender.SendVideo(idr.data(), 3'000), 3'000);
    ASSERT_EQ(sender.SendVideo(slice.data(), 100), 100);

    const struct {
        std::vector<uint8_t> header; // sequence (LE), drop priority << 4 | first << 1 | last, type
        const std::vector<uint8_t> &data;
        size_t offset, size;
    } expected[] = {
        {{0, 0, 0x03, 0x05}, frame, 0, 1'420}, // sequence from 0: the refused frame used none
        {{1, 0, 0x03, 0x05}, frame, 1'420, 1'420},
        {{2, 0, 0x03, 0x05}, frame, 2'840, 160},
        {{0, 0, 0x02, 0x01}, idr, 0, 1'420}, // its own sequence; key: drop 0, first piece
        {{1, 0, 0x00, 0x01}, idr, 1'420, 1'420},
        {{2, 0, 0x01, 0x01}, idr, 2'840, 160},
        {{3, 0, 0x13, 0x01}, slice, 0, 100}, // drop 1, first and last piece
    };
    for (const auto &e : expected) {
        auto datagram = receiver.receive();
        ASSERT_TRUE(datagram);
        EXPECT_EQ(std::vector<uint8_t>(datagram->begin(), datagram->begin() + 4), e.header);
        ASSERT_EQ(datagram->size(), 4 + e.size);
        EXPECT_TRUE(std::equal(datagram->begin() + 4, datagram->end(), e.data.begin() + long(e.offset)));
    }

    sender.Close();
    EXPECT_EQ(sender.SendAudio(frame.data(), 100), kUdpSendFailed);
}

} // namespace
} // namespace velocast::push
