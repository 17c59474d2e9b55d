// Unchanged pictures sent as coded copies (skipped macroblocks): decoded by ffmpeg with errors
// fatal, one picture per input, key frames every 30, each change shown until the next.
#include "capture/h264_hw_encoder.h"
#include "media_test_support.h"
#include "support/child_process.h"
#include "support/test_support.h"

#include <QDir>

#include <gtest/gtest.h>

#include <cstdlib>

using namespace velocast::capture;
using namespace velocast::test;

namespace {

struct Stretch {
    bool changed;
    int pictures;
};

struct Case {
    const char *name;
    const char *encoder;
    int width, height;
    std::vector<Stretch> runs;
    bool expectSkips; // x264's parameter sets take skipped pictures; openh264's do not
};

// Decodes an Annex-B file to NV12 frames; none at all on a decoding error.
std::vector<std::vector<uint8_t>> decode(const QString &file, int width, int height)
{
    const QStringList args{"-nostdin", "-v", "error", "-xerror", "-f", "h264", "-i", file, "-f", "rawvideo", "-pix_fmt", "nv12", "-"};
    const QByteArray raw = ChildProcess::run("ffmpeg", args).value_or(QByteArray());
    const size_t frameSize = size_t(width) * size_t(height) * 3 / 2;
    std::vector<std::vector<uint8_t>> frames;
    for (size_t at = 0; at + frameSize <= size_t(raw.size()); at += frameSize)
        frames.emplace_back(reinterpret_cast<const uint8_t *>(raw.constData()) + at, reinterpret_cast<const uint8_t *>(raw.constData()) + at + frameSize);
    return frames;
}

double meanAbsDiff(std::span<const uint8_t> a, std::span<const uint8_t> b)
{
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / double(a.size());
}

} // namespace

TEST(SkipPicture, StillStretchesDecodeAsTheLastChangedPictureWithKeyFramesEvery30)
{
    if (!haveFfprobe()) GTEST_SKIP() << "ffmpeg (Debian package ffmpeg) is not installed";
    const std::vector<Case> cases = {
        {"stills across key frames", "x264enc", 320, 240, {{true, 3}, {false, 40}, {true, 2}, {false, 25}, {true, 1}, {false, 4}}, true},
        {"every other picture still", "x264enc", 320, 240, {{true, 1}, {false, 1}, {true, 1}, {false, 1}, {true, 1}, {false, 1}, {true, 1}, {false, 30}}, true},
        {"cropped height, long still", "x264enc", 640, 360, {{true, 1}, {false, 64}, {true, 5}}, true},
        {"an encoder whose stream refuses them", "openh264enc", 320, 240, {{true, 2}, {false, 35}, {true, 2}}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        if (!elementExists(c.encoder)) continue;
        H264HWEncoder encoder;
        PacketCollector out;
        encoder.setDelegate(&out);
        encoder.setEncoderChain({c.encoder});
        encoder.setOutputSize({double(c.width), double(c.height)});
        // The pictures as the pacer hands them out: a repeat shares the previous buffer.
        std::vector<MediaSample> sources; // per output picture, the picture it must show
        std::vector<bool> repeats;
        MediaSample current;
        int changes = 0;
        for (const Stretch &run : c.runs) {
            for (int i = 0; i < run.pictures; ++i) {
                const MediaTime pts = MediaTime::make(int64_t(sources.size()) * 1000, 30000);
                if (run.changed) current = makeNv12(c.width, c.height, 10 * ++changes);
                MediaSample picture = MediaSample::rawVideo(GstBufferPtr(gst_buffer_ref(current.buffer())), "NV12", c.width, c.height, pts);
                picture.setRepeat(!run.changed);
                sources.push_back(current);
                repeats.push_back(!run.changed);
                encoder.encode(picture);
                ASSERT_TRUE(out.waitFor(sources.size())) << "picture " << sources.size() - 1 << " came out";
            }
        }
        encoder.invalidate();
        const std::vector<EncodedPacket> packets = out.items();
        ASSERT_EQ(packets.size(), sources.size());
        EXPECT_EQ(encoder.skippedPictures() > 0, c.expectSkips);
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(packets[i].key, i % 30 == 0) << "packet " << i;
            EXPECT_EQ(packets[i].timestamp.toNanoseconds(), MediaTime::make(int64_t(i) * 1000, 30000).toNanoseconds()) << "packet " << i;
        }

        const QString file = QDir(freshTempDir()).filePath("stream.h264");
        ASSERT_TRUE(writePackets(file, packets));
        const auto frames = decode(file, c.width, c.height);
        ASSERT_EQ(frames.size(), sources.size());
        for (size_t i = 0; i < frames.size(); ++i) {
            // A copy is exact; a key frame on a still picture is coded afresh, close to it
            // (an encoder that codes the repeats itself refines them from picture to picture).
            if (c.expectSkips && repeats[i] && !packets[i].key) {
                EXPECT_EQ(frames[i], frames[i - 1]) << "picture " << i << " repeats the one before";
            }
            EXPECT_LT(meanAbsDiff(frames[i], MappedBuffer(sources[i].buffer()).bytes()), 2.0) << "picture " << i << " shows its source";
        }
    }
}
