// The H.264 decoder: the encoder's own output decoded back to pictures, and its parsing rules
// on crafted frames (hostile and truncated frames are the frame scan's fuzz target's).
#include "push/bridge/h264_hw_decoder.h"
#include "media_test_support.h"

#include <gtest/gtest.h>

using namespace velocast::capture;
using namespace velocast::test;
using velocast::push::H264HWDecoder;
using velocast::push::H264HWDecoderDelegate;

namespace {

using Bytes = std::vector<uint8_t>;

struct PictureCollector final : H264HWDecoderDelegate, Collector<MediaSample> {
    void displayDecodedFrame(const MediaSample &image) override { add(image); }
};

const Bytes kStartCode{0x00, 0x00, 0x00, 0x01};

Bytes startCode(std::initializer_list<uint8_t> nal)
{
    Bytes b = kStartCode;
    b.insert(b.end(), nal.begin(), nal.end());
    return b;
}

void feed(H264HWDecoder &decoder, const Bytes &frame) { decoder.receivedRawVideoFrame(frame.data(), uint32_t(frame.size()), false); }

} // namespace

TEST(H264HWDecoder, DecodesTheEncodersOwnOutputAndFollowsItsParsingRules)
{
    PacketCollector encoded;
    H264HWEncoder encoder;
    encoder.setDelegate(&encoded);
    encoder.setOutputSize({320, 240});
    ASSERT_TRUE(encodePaced(encoder, encoded, 320, 240, 40));
    encoder.invalidate();
    const auto packets = encoded.items();
    for (const std::vector<std::string> &chain : {std::vector<std::string>{}, std::vector<std::string>{"openh264dec"}}) {
        if (!chain.empty() && !elementExists(chain[0].c_str())) continue;
        PictureCollector out;
        H264HWDecoder decoder;
        decoder.setDelegate(&out);
        if (!chain.empty()) decoder.setDecoderChain(chain);
        for (const auto &p : packets) decoder.receivedRawVideoFrame(p.bytes.data(), uint32_t(p.bytes.size()), p.key);
        ASSERT_TRUE(out.waitFor(40)) << decoder.decoderName() << ": " << out.items().size() << " pictures";
        EXPECT_EQ(decoder.decoderName(), chain.empty() ? "avdec_h264" : chain[0]) << "no hardware decoder here";
        const auto pictures = out.items();
        for (size_t i = 0; i < pictures.size(); ++i) {
            const MediaSample &picture = pictures[i];
            EXPECT_EQ(picture.kind(), MediaSample::Kind::RawVideo);
            EXPECT_EQ(picture.format(), "NV12");
            EXPECT_EQ(picture.width(), 320);
            EXPECT_EQ(picture.height(), 240);
            // The whole picture came back, not only its first slice: luma close to the source.
            MappedBuffer decoded(picture.buffer());
            const MediaSample source = makeNv12(320, 240, int(i));
            MappedBuffer original(source.buffer());
            ASSERT_GE(decoded.bytes().size(), 320u * 240u);
            double difference = 0;
            for (size_t k = 0; k < 320u * 240u; ++k) difference += std::abs(int(decoded.bytes()[k]) - int(original.bytes()[k]));
            EXPECT_LT(difference / (320 * 240), 6.0) << "picture " << i;
        }
    }

    ASSERT_TRUE(packets[0].key);
    const auto units = splitAnnexB(packets[0].bytes);
    ASSERT_GE(units.size(), 3u);
    const size_t spsLength = units[0].size;
    const size_t ppsLength = units[1].size;
    ASSERT_LE(spsLength, 35u);

    H264HWDecoder decoder;
    // A PPS or a slice before any SPS: dropped, nothing is built.
    feed(decoder, startCode({0x68, 0xCE, 0x3C, 0x80}));
    feed(decoder, startCode({0x41, 0x9A, 0x02, 0x03}));
    EXPECT_FALSE(decoder.hasFormatDesc());
    EXPECT_FALSE(decoder.hasDecompressionSession());
    EXPECT_TRUE(decoder.lastSubmittedSample().empty());

    // A real key frame: SPS and PPS found, the session made, the IDR part submitted with its
    // start code turned into a length.
    feed(decoder, packets[0].bytes);
    EXPECT_TRUE(decoder.hasFormatDesc());
    EXPECT_TRUE(decoder.hasDecompressionSession());
    EXPECT_EQ(decoder.spsSize(), int32_t(4 + spsLength));
    EXPECT_EQ(decoder.ppsSize(), int32_t(4 + ppsLength));
    EXPECT_EQ(decoder.formatSps(), Bytes(packets[0].bytes.begin() + 4, packets[0].bytes.begin() + 4 + std::ptrdiff_t(spsLength)));
    const size_t idrOffset = 8 + spsLength + ppsLength;
    const Bytes &idrSample = decoder.lastSubmittedSample();
    ASSERT_EQ(idrSample.size(), packets[0].bytes.size() - idrOffset);
    const uint32_t idrLength = uint32_t(idrSample[0]) << 24 | uint32_t(idrSample[1]) << 16 | uint32_t(idrSample[2]) << 8 | idrSample[3];
    EXPECT_EQ(idrLength, idrSample.size() - 4);
    EXPECT_TRUE(std::equal(idrSample.begin() + 4, idrSample.end(), packets[0].bytes.begin() + std::ptrdiff_t(idrOffset) + 4));

    // A non-IDR frame of 1,000 bytes is decoded from all 1,000 with the length prefix 996.
    Bytes slice = startCode({0x41});
    slice.resize(1000, 0x5A);
    feed(decoder, slice);
    const Bytes &sample = decoder.lastSubmittedSample();
    ASSERT_EQ(sample.size(), 1000u);
    EXPECT_EQ(Bytes(sample.begin(), sample.begin() + 5), (Bytes{0x00, 0x00, 0x03, 0xE4, 0x41}));
    EXPECT_TRUE(std::equal(sample.begin() + 4, sample.end(), slice.begin() + 4));
}
