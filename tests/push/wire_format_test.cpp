#include "push/media_wire_format.h"

#include <gtest/gtest.h>

#include <vector>

namespace velocast::wire {
namespace {

std::vector<uint8_t> bytes(const uint8_t *p, size_t n) { return {p, p + n}; }

TEST(WireFormatTest, VideoRecordHeaderBytes)
{
    uint8_t out[kRecordHeaderSize];
    writeVideoRecordHeader(out, {0x00012345, 0x0102030405060708ull, 1, 0x0A0B});
    const std::vector<uint8_t> expected = {
        '4', 'C', 'V', 'A',                             // magic
        0x45, 0x23, 0x01, 0x00,                         // payloadLength 0x12345, little-endian
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // timestamp
        0x01, 0x00,                                     // keyFlag 1
        0x0B, 0x0A,                                     // subStream
        0x00, 0x00, 0x00, 0x00,                         // reserved
    };
    EXPECT_EQ(bytes(out, sizeof out), expected);

    VideoRecordHeader back;
    ASSERT_TRUE(readVideoRecordHeader(out, &back));
    EXPECT_EQ(back.payloadLength, 0x12345u);
    EXPECT_EQ(back.timestamp, 0x0102030405060708ull);
    EXPECT_EQ(back.keyFlag, 1);
    EXPECT_EQ(back.subStream, 0x0A0B);
    out[3] = 'B';
    EXPECT_FALSE(readVideoRecordHeader(out, &back));
}

TEST(WireFormatTest, AudioTcpRecordHeaderBytes)
{
    uint8_t out[kRecordHeaderSize];
    std::fill(std::begin(out), std::end(out), 0xEE);
    writeAudioTcpRecordHeader(out, 7, 0x1122334455667788ull);
    const std::vector<uint8_t> expected = {
        '1', 'C', 'A', 'A',                             // magic
        0x07, 0x00, 0x00, 0x00,                         // payloadLength 7
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, // the caller's word
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // zeros
    };
    EXPECT_EQ(bytes(out, sizeof out), expected);
}

TEST(WireFormatTest, DatagramHeaderBytes)
{
    uint8_t out[kDatagramHeaderSize];
    writeDatagramHeader(out, {kDatagramTypeAudio, 0, true, true, 0x1234});
    EXPECT_EQ(bytes(out, 4), (std::vector<uint8_t> {
                                 0x34, 0x12, // sequence, little-endian
                                 0x03,       // first piece (bit 17) | last piece (bit 16)
                                 0x05,       // type 5: audio
                             }));
    EXPECT_EQ(packDatagramHeader({kDatagramTypeAudio, 0, true, true, 0}), 0x05030000u);

    writeDatagramHeader(out, {kDatagramTypeVideo, 1, true, false, 0xFFFF});
    EXPECT_EQ(bytes(out, 4), (std::vector<uint8_t> {
                                 0xFF, 0xFF, // sequence 65535
                                 0x12,       // dropPriority 1 (bits 20-23) | first piece
                                 0x01,       // type 1: video
                             }));

    const DatagramHeader back = readDatagramHeader(out);
    EXPECT_EQ(back.type, kDatagramTypeVideo);
    EXPECT_EQ(back.dropPriority, 1);
    EXPECT_TRUE(back.firstPiece);
    EXPECT_FALSE(back.lastPiece);
    EXPECT_EQ(back.sequence, 0xFFFF);
}

} // namespace
} // namespace velocast::wire
