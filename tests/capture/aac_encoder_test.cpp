// The ADTS header byte for byte, delivery order and thread, and PCM through the AAC encoder
// element checked by ffprobe.
#include "capture/aac_encoder.h"
#include "media_test_support.h"
#include "support/test_support.h"

#include <QDir>

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

using namespace velocast::capture;
using velocast::test::makeAac;
using velocast::test::makePcm;

namespace {

using Bytes = std::vector<uint8_t>;

struct Frame {
    Bytes bytes;
    MediaTime timestamp;
    bool error = false;
    std::string thread;
};

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
    struct Case {
        uint32_t payload;
        Bytes header;
    };
    const Case cases[] = {
        // FL = 378 = 0x17A: byte 3 = 0x80 | 0, byte 4 = 0x17A >> 3 = 0x2F, byte 5 = (0x17A << 5 | 0x1F) & 0xFF = 0x5F
        {371, {0xFF, 0xF9, 0x50, 0x80, 0x2F, 0x5F, 0xFC}},
        // FL = 7: the header alone
        {0, {0xFF, 0xF9, 0x50, 0x80, 0x00, 0xFF, 0xFC}},
        // FL = 2048 sets FL bit 11, the low bit of byte 3
        {2041, {0xFF, 0xF9, 0x50, 0x81, 0x00, 0x1F, 0xFC}},
        // FL = 8191, the largest the 13-bit field holds
        {AACEncoder::kMaxPayload, {0xFF, 0xF9, 0x50, 0x83, 0xFF, 0xFF, 0xFC}},
    };
    for (const Case &c : cases) EXPECT_EQ(AACEncoder::adtsDataForPacketLength(c.payload), c.header) << "payload " << c.payload;
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
    char caller[16] = {};
    pthread_getname_np(pthread_self(), caller, sizeof caller);
    for (int i = 0; i < kFrames; ++i) {
        const auto &f = frames[size_t(i)];
        ASSERT_EQ(f.bytes.size(), size_t(307 + i));
        EXPECT_EQ(Bytes(f.bytes.begin(), f.bytes.begin() + 7), AACEncoder::adtsDataForPacketLength(uint32_t(300 + i)));
        EXPECT_EQ(f.bytes[7], uint8_t(i)) << "frame " << i << " out of order";
        EXPECT_EQ(f.timestamp, MediaTime::make(int64_t(i) * 1024, 44100));
        EXPECT_FALSE(f.error);
        EXPECT_EQ(f.thread, std::string("AAC Encoder Cal")) << "delivered on the callback queue, not on " << caller;
    }
    EXPECT_EQ(frames.back().bytes, (Bytes{0xFF, 0xF9, 0x50, 0x80, 0x00, 0xFF, 0xFC}));
}

TEST(AACEncoder, PcmBecomesAacLcThatFfprobeDecodes)
{
    if (!velocast::test::haveFfprobe()) GTEST_SKIP() << "ffprobe (Debian package ffmpeg) is not installed";
    // 48 kHz in: the encoder resamples to the 44100 Hz that the fixed header announces.
    for (const int rate : {44100, 48000}) {
        FrameCollector out;
        AACEncoder encoder;
        encoder.setDelegate(&out);
        constexpr int kChunk = 480;
        const int chunks = rate * 2 / kChunk; // two seconds
        for (int i = 0; i < chunks; ++i) encoder.encode(makePcm(rate, kChunk, int64_t(i) * kChunk));
        // 2 s at 44100 Hz is 86 access units of 1024; the encoder holds back at most a few.
        ASSERT_TRUE(out.waitFor(80)) << rate << " Hz: " << out.items().size() << " frames";
        EXPECT_FALSE(encoder.chosenEncoderName().empty());

        Bytes stream;
        const auto frames = out.items();
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto &f = frames[i];
            ASSERT_GE(f.bytes.size(), 8u);
            const uint32_t fl = uint32_t(f.bytes[3] & 0x03) << 11 | uint32_t(f.bytes[4]) << 3 | f.bytes[5] >> 5;
            EXPECT_EQ(fl, f.bytes.size()) << "FL of frame " << i;
            if (i > 0) {
                EXPECT_GT(f.timestamp.seconds(), frames[i - 1].timestamp.seconds());
            }
            stream.insert(stream.end(), f.bytes.begin(), f.bytes.end());
        }
        const QString path = QDir(velocast::test::freshTempDir()).filePath("audio.aac");
        ASSERT_TRUE(velocast::test::writeFile(path, stream));
        const QJsonObject s = velocast::test::ffprobeStream(path, "codec_name,profile,sample_rate,channels,nb_read_frames");
        EXPECT_EQ(s.value("codec_name").toString(), "aac") << rate;
        EXPECT_EQ(s.value("profile").toString(), "LC");
        EXPECT_EQ(s.value("sample_rate").toString(), "44100");
        EXPECT_EQ(s.value("channels").toInt(), 2);
        EXPECT_EQ(s.value("nb_read_frames").toString().toInt(), int(frames.size()));
    }
}
