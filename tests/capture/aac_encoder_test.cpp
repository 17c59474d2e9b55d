// The ADTS header byte for byte, and the framed access units' order and thread. PCM through
// the encoder element is decoded in the cast tests (the capture session's and the cast sound's).
#include "capture/aac_encoder.h"
#include "media_test_support.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

using namespace velocast::capture;

namespace {

using Bytes = std::vector<uint8_t>;

struct Frame {
    Bytes bytes;
    MediaTime timestamp;
    bool error = false;
    std::string thread;
};

MediaSample makeAac(const Bytes &payload, MediaTime pts) { return MediaSample::aac(bufferFromBytes(payload), pts); }

struct FrameCollector final : AACEncoderDelegate, velocast::test::Collector<Frame> {
    void gotAACEncodedData(const Bytes &frame, MediaTime timestamp, const MediaError *error) override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        add({frame, timestamp, error != nullptr, name});
    }
};

} // namespace

TEST(AdtsHeader, MatchesTheFixedLayoutByteForByte)
{
    // The frame length FL (payload + 7) is spread over bytes 3 to 5.
    const struct {
        uint32_t payload;
        Bytes header;
    } cases[] = {
        {371, {0xFF, 0xF9, 0x50, 0x80, 0x2F, 0x5F, 0xFC}},                       // FL 0x17A
        {0, {0xFF, 0xF9, 0x50, 0x80, 0x00, 0xFF, 0xFC}},                         // the header alone
        {2041, {0xFF, 0xF9, 0x50, 0x81, 0x00, 0x1F, 0xFC}},                      // FL bit 11: the low bit of byte 3
        {AACEncoder::kMaxPayload, {0xFF, 0xF9, 0x50, 0x83, 0xFF, 0xFF, 0xFC}}, // FL 8191, the largest of 13 bits
    };
    for (const auto &c : cases) EXPECT_EQ(AACEncoder::adtsDataForPacketLength(c.payload), c.header) << "payload " << c.payload;
}

TEST(AACEncoder, FramesAccessUnitsInOrderOnTheCallbackQueue)
{
    FrameCollector out;
    AACEncoder encoder;
    encoder.setDelegate(&out);
    constexpr int kFrames = 50;
    for (int i = 0; i < kFrames; ++i) {
        Bytes payload(size_t(300 + i), uint8_t(i));
        encoder.encode(makeAac(payload, MediaTime::make(int64_t(i) * 1024, 44100)));
        if (i == 10) encoder.encode(makeAac(Bytes(AACEncoder::kMaxPayload + 1, 0), MediaTime::make(1, 1))); // cannot be framed
    }
    encoder.encode(makeAac({}, MediaTime::make(kFrames * 1024, 44100)));
    ASSERT_TRUE(out.waitFor(kFrames + 1));

    const auto frames = out.items();
    ASSERT_EQ(frames.size(), size_t(kFrames + 1)) << "the oversized payload is dropped";
    for (int i = 0; i < kFrames; ++i) {
        const auto &f = frames[size_t(i)];
        ASSERT_EQ(f.bytes.size(), size_t(307 + i));
        EXPECT_EQ(Bytes(f.bytes.begin(), f.bytes.begin() + 7), AACEncoder::adtsDataForPacketLength(uint32_t(300 + i)));
        EXPECT_EQ(f.bytes[7], uint8_t(i)) << "frame " << i << " out of order";
        EXPECT_EQ(f.timestamp, MediaTime::make(int64_t(i) * 1024, 44100));
        EXPECT_FALSE(f.error);
        EXPECT_EQ(f.thread, std::string("AAC Encoder Cal")) << "delivered on the callback queue";
    }
    EXPECT_EQ(frames.back().bytes, (Bytes{0xFF, 0xF9, 0x50, 0x80, 0x00, 0xFF, 0xFC}));
}
