// The screen's picture path: BGRx -> NV12 (BT.709, video range) against the matrix in
// floating point, and the pacer that keeps the frame rate by handing out the last picture again.
#include "capture/nv12_converter.h"
#include "capture/picture_pacer.h"
#include "media_test_support.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace velocast::capture;
using velocast::test::Collector;

namespace {

struct Rgb {
    uint8_t r, g, b;
};

// The reference values of the BT.709 video-range matrix, in floating point.
Bt709Pixel exactBt709(Rgb c)
{
    const double r = c.r / 255.0, g = c.g / 255.0, b = c.b / 255.0;
    const double y = 0.2126 * r + 0.7152 * g + 0.0722 * b;
    const double cb = (b - y) / 1.8556, cr = (r - y) / 1.5748;
    return {uint8_t(std::lround(16 + 219 * y)), uint8_t(std::lround(128 + 224 * cb)), uint8_t(std::lround(128 + 224 * cr))};
}

const Rgb kColours[] = {{0, 0, 0}, {255, 255, 255}, {128, 128, 128}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255},
                        {255, 255, 0}, {0, 255, 255}, {255, 0, 255}, {200, 120, 40}, {17, 89, 201}};

// 4x4 patches of each colour in pictures of even and odd sizes: every sample within rounding of
// the matrix, nothing written past the planes (the guard bytes after each row stay).
TEST(Nv12Converter, PicturesMatchTheBt709VideoRangeMatrix)
{
    struct Size {
        int w, h;
    };
    for (const Size s : {Size{44, 8}, Size{45, 9}, Size{4, 4}, Size{1, 1}}) {
        SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
        const int stride = s.w * 4 + 12; // padded source rows
        std::vector<uint8_t> src(size_t(stride) * s.h, 0xEE);
        auto colourAt = [&](int x, int y) { return kColours[size_t((x / 4 + y / 4) % std::size(kColours))]; };
        for (int y = 0; y < s.h; ++y)
            for (int x = 0; x < s.w; ++x) {
                const Rgb c = colourAt(x, y);
                uint8_t *p = &src[size_t(y) * stride + size_t(x) * 4];
                p[0] = c.b, p[1] = c.g, p[2] = c.r, p[3] = 0x55;
            }
        const int yStride = s.w + 3, uvStride = ((s.w + 1) & ~1) + 5;
        constexpr uint8_t kGuard = 0xA5;
        std::vector<uint8_t> y(size_t(yStride) * s.h, kGuard), uv(size_t(uvStride) * ((s.h + 1) / 2), kGuard);
        ASSERT_TRUE(convertBgrxToNv12(src.data(), stride, s.w, s.h, {y.data(), yStride, uv.data(), uvStride}));
        for (int row = 0; row < s.h; ++row)
            for (int x = s.w; x < yStride; ++x) ASSERT_EQ(y[size_t(row) * yStride + x], kGuard);
        for (int row = 0; row < (s.h + 1) / 2; ++row)
            for (int x = (s.w + 1) & ~1; x < uvStride; ++x) ASSERT_EQ(uv[size_t(row) * uvStride + x], kGuard);

        for (int row = 0; row < s.h; ++row)
            for (int x = 0; x < s.w; ++x) {
                // Patches start at multiples of 4: every 2x2 block (clamped at the edges) is one colour.
                const Rgb c = colourAt(x, row);
                const Bt709Pixel want = exactBt709(c);
                const uint8_t *chroma = &uv[size_t(row / 2) * uvStride + size_t(x / 2) * 2];
                EXPECT_LE(std::abs(y[size_t(row) * yStride + x] - want.y), 1) << x << "," << row;
                EXPECT_LE(std::abs(chroma[0] - want.cb), 1) << x << "," << row;
                EXPECT_LE(std::abs(chroma[1] - want.cr), 1) << x << "," << row;
                const bool grey = c.r == c.g && c.g == c.b;
                EXPECT_TRUE(!grey || (chroma[0] == 128 && chroma[1] == 128)) << "grey has chroma at " << x << "," << row;
            }
    }
}

TEST(Nv12Converter, RefusesSizesThePlanesCannotHold)
{
    std::vector<uint8_t> src(64 * 4 * 4), y(64 * 4), uv(64 * 2);
    struct Case {
        const char *name;
        int stride, width, height, yStride, uvStride;
    };
    const Case cases[] = {
        {"zero width", 64, 0, 4, 64, 64},         {"negative height", 64 * 4, 4, -2, 64, 64}, {"source stride short", 63, 16, 4, 16, 16},
        {"Y stride short", 64, 16, 4, 15, 16},     {"UV stride short of the even width", 64 * 4, 15, 2, 16, 15},
    };
    for (const Case &c : cases)
        EXPECT_FALSE(convertBgrxToNv12(src.data(), c.stride, c.width, c.height, {y.data(), c.yStride, uv.data(), c.uvStride})) << c.name;
}

struct Delivered {
    GstBuffer *buffer; // identity only, not dereferenced
    uint64_t ns;
    int width;
};

TEST(PicturePacer, RepeatsTheLastPictureAtEveryTickAndReusesFreedBuffers)
{
    ensureGstreamer();
    Collector<Delivered> out;
    std::vector<MediaSample> held; // what a slow encoder would still hold
    PicturePacer pacer("pacer test", 30, [&](const MediaSample &p) { out.add({p.buffer(), p.presentationTime().toNanoseconds(), p.width()}); });
    std::vector<uint8_t> grey(16 * 8 * 4, 0x80);
    ASSERT_TRUE(pacer.submitBgrx(grey.data(), 16 * 4, 16, 8));
    pacer.start();
    for (size_t n : {5u, 10u}) {
        ASSERT_TRUE(out.waitFor(n));
        ASSERT_TRUE(pacer.submitBgrx(grey.data(), 16 * 4, 16, 8));
    }
    ASSERT_TRUE(out.waitFor(15));
    pacer.stop();
    const std::vector<Delivered> got = out.items();
    const PicturePacer::Stats stats = pacer.stats();
    EXPECT_EQ(stats.ticks, got.size());
    EXPECT_EQ(stats.converted, 3u);
    EXPECT_EQ(stats.repeated, got.size() - 3) << "only the three new pictures were not repeats";
    std::vector<GstBuffer *> distinct;
    for (size_t i = 0; i < got.size(); ++i) {
        if (i > 0) {
            EXPECT_GT(got[i].ns, got[i - 1].ns) << "tick times rise";
        }
        if (distinct.empty() || distinct.back() != got[i].buffer) distinct.push_back(got[i].buffer);
    }
    // A repeat is the same buffer; the second picture needs a second one (the first is shown
    // while it is converted); the third takes the first back, which nobody holds any more.
    ASSERT_EQ(distinct.size(), 3u);
    EXPECT_NE(distinct[0], distinct[1]);
    EXPECT_EQ(distinct[0], distinct[2]);

    // Stopped: nothing more comes out.
    const size_t afterStop = out.count();
    EXPECT_TRUE(pacer.submitBgrx(grey.data(), 16 * 4, 16, 8));
    EXPECT_EQ(out.count(), afterStop);
    // Refused: a size the planes cannot take.
    EXPECT_FALSE(pacer.submitBgrx(grey.data(), 8, 16, 8));
    EXPECT_EQ(pacer.stats().refused, 1u);
}

} // namespace
