// AVCC -> Annex-B: the layout byte for byte, the parameter sets on key frames, and the
// length fields that do not fit (the avcC record is the fuzz target's and the decoder test's).
#include "capture/h264_packet.h"

#include <gtest/gtest.h>

using namespace velocast::capture;

namespace {

using Bytes = std::vector<uint8_t>;

MediaSample avccSample(const Bytes &avcc, bool sync, std::vector<ByteVector> sets = {})
{
    return MediaSample::h264(bufferFromBytes(avcc), MediaTime::make(1, 30), sync, std::move(sets));
}

const Bytes kSps{0x67, 0x42, 0xC0, 0x1E, 0xAB}; // NAL 7, Constrained Baseline, level 3.0
const Bytes kPps{0x68, 0xCE, 0x3C, 0x80};       // NAL 8

} // namespace

// Key frames carry SPS and PPS in front, only with both sets beside the sample; copies of them
// and delimiters inside the sample are then left out, wherever they sit.
TEST(H264Packet, AvccSamplesBecomeAnnexBWithTheParameterSetsInFrontOfKeyFrames)
{
    const Bytes aud{0x00, 0x00, 0x00, 0x02, 0x09, 0xF0};
    const Bytes sps{0x00, 0x00, 0x00, 0x02, 0x67, 0x42};
    const Bytes pps{0x00, 0x00, 0x00, 0x02, 0x68, 0xCE};
    const Bytes sei{0x00, 0x00, 0x00, 0x02, 0x06, 0x05};
    const Bytes idr{0x00, 0x00, 0x00, 0x03, 0x65, 0x88, 0x84};
    const Bytes idr2{0x00, 0x00, 0x00, 0x02, 0x65, 0x99};
    const Bytes slice{0x00, 0x00, 0x00, 0x05, 0x41, 0x01, 0x02, 0x03, 0x04};
    const Bytes slice2{0x00, 0x00, 0x00, 0x07, 0x41, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16};
    auto join = [](std::initializer_list<Bytes> parts) {
        Bytes out;
        for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
        return out;
    };
    auto annexB = [](Bytes avcc) {
        for (size_t o = 0; o + 4 <= avcc.size();) {
            const size_t len = size_t(avcc[o + 3]);
            avcc[o] = avcc[o + 1] = avcc[o + 2] = 0, avcc[o + 3] = 1;
            o += 4 + len;
        }
        return avcc;
    };
    const Bytes front{0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xC0, 0x1E, 0xAB, 0x00, 0x00, 0x00, 0x01, 0x68, 0xCE, 0x3C, 0x80};
    const std::vector<ByteVector> both{kSps, kPps};
    struct Case {
        const char *name;
        Bytes avcc;
        bool key;
        std::vector<ByteVector> sets;
        Bytes expected;
    };
    const Case cases[] = {
        {"non-key frames carry no parameter sets", join({slice, slice2}), false, both, annexB(join({slice, slice2}))},
        {"key frame", idr, true, both, join({front, annexB(idr)})},
        {"key frame without a PPS: neither set", idr, true, {kSps}, annexB(idr)},
        {"headers first", join({aud, sps, pps, idr}), true, both, join({front, annexB(idr)})},
        {"headers between units", join({sei, sps, idr, pps, idr2}), true, both, join({front, annexB(join({sei, idr, idr2}))})},
        {"headers last", join({idr, aud}), true, both, join({front, annexB(idr)})},
        {"nothing else", join({sps, pps}), true, both, front},
        {"no sets beside: all kept", join({aud, sps, pps, idr}), true, {}, annexB(join({aud, sps, pps, idr}))},
    };
    for (const Case &c : cases) {
        const H264Packet p(avccSample(c.avcc, c.key, c.sets));
        EXPECT_EQ(p.keyFrame(), c.key) << c.name;
        EXPECT_EQ(p.packet(), c.expected) << c.name;
    }
}

TEST(H264Packet, LengthFieldsThatDoNotFitEndTheWalk)
{
    struct Case {
        const char *what;
        Bytes avcc;
        Bytes expected;
    };
    const Case cases[] = {
        {"exactly one length field: no unit", {0x00, 0x00, 0x00, 0x09}, {}},
        {"empty sample", {}, {}},
        {"shorter than a length field", {0x00, 0x00, 0x01}, {}},
        {"first length past the end", {0x00, 0x00, 0x00, 0x09, 0x41, 0x01}, {}},
        {"length 0xFFFFFFFF (no wrap-around)", {0xFF, 0xFF, 0xFF, 0xFF, 0x41, 0x01, 0x02, 0x03, 0x04}, {}},
        {"second length past the end keeps the first unit",
         {0x00, 0x00, 0x00, 0x01, 0x41, 0x00, 0x00, 0x10, 0x00, 0x41, 0x02},
         {0x00, 0x00, 0x00, 0x01, 0x41}},
        {"up to four trailing bytes are ignored",
         {0x00, 0x00, 0x00, 0x01, 0x41, 0x00, 0x00, 0x00, 0x05},
         {0x00, 0x00, 0x00, 0x01, 0x41}},
        {"an empty unit is a bare start code",
         {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x41},
         {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x41}},
    };
    for (const Case &c : cases) {
        const H264Packet p(avccSample(c.avcc, false));
        EXPECT_EQ(p.packet(), c.expected) << c.what;
    }
}
