#include "loopback.h"

#include "push/udp_sender.h"

#include <gtest/gtest.h>

namespace velocast::push {
namespace {

// Audio frames go in numbered pieces of at most 1,420 bytes, each marked first and last.
TEST(UdpSenderTest, AudioFramesAreCutIntoNumberedPieces)
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

    // The sequence starts from 0: the refused frame used none.
    const struct {
        uint8_t sequence;
        size_t offset, size;
    } expected[] = {{0, 0, 1'420}, {1, 1'420, 1'420}, {2, 2'840, 160}};
    for (const auto &e : expected) {
        auto datagram = receiver.receive();
        ASSERT_TRUE(datagram);
        // sequence (LE), drop priority << 4 | first << 1 | last, type
        EXPECT_EQ(std::vector<uint8_t>(datagram->begin(), datagram->begin() + 4),
                  (std::vector<uint8_t> {e.sequence, 0, 0x03, 0x05}));
        ASSERT_EQ(datagram->size(), 4 + e.size);
        EXPECT_TRUE(std::equal(datagram->begin() + 4, datagram->end(), frame.begin() + long(e.offset)));
    }

    sender.Close();
    EXPECT_EQ(sender.SendAudio(frame.data(), 100), kUdpSendFailed);
}

} // namespace
} // namespace velocast::push
