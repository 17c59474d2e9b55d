// The SIMD converter library on Debian 12 converts packed RGB to 4:2:0 only with the BT.601
// matrix (video range) or the full-range JPEG one. A cast of an HD screen signals BT.709,
// and receivers that ignore the signal assume it too, so the conversion is done here: plain
// 16-bit fixed-point loops the compiler vectorises, built once for AVX2 and once for the
// x86-64 baseline (SSE2); the loader picks the clone the processor runs.
//
// Coefficients (x256, rounded so that a grey pixel has Cb = Cr = 128 exactly):
//   Y  =  16 + ( 47 R + 157 G +  16 B) / 256
//   Cb = 128 + (-26 R -  86 G + 112 B) / 256
//   Cr = 128 + (112 R - 102 G -  10 B) / 256
#include "capture/nv12_converter.h"

#include <cstring>

namespace velocast::capture {

namespace {

#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define VC_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define VC_CLONES
#endif

inline uint32_t load(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

VC_CLONES void lumaRow(const uint8_t *__restrict src, uint8_t *__restrict y, int width)
{
    for (int x = 0; x < width; ++x) {
        const uint16_t b = src[4 * x], g = src[4 * x + 1], r = src[4 * x + 2];
        // At most 220 * 255 + 4224 = 60324: fits 16 bits unsigned.
        y[x] = uint8_t(uint16_t(47 * r + 157 * g + 16 * b + 0x1080) >> 8);
    }
}

// Two rows at once: their Y samples and the Cb/Cr of each 2x2 block, so each source byte is
// read once. pairs = number of complete 2x2 blocks in this row pair.
VC_CLONES void blockRow(const uint8_t *__restrict top, const uint8_t *__restrict bottom, uint8_t *__restrict y0,
                        uint8_t *__restrict y1, uint8_t *__restrict uv, int pairs)
{
    for (int x = 0; x < pairs; ++x) {
        const uint8_t *t = top + 8 * x, *u = bottom + 8 * x;
        const uint16_t b0 = t[0], g0 = t[1], r0 = t[2], b1 = t[4], g1 = t[5], r1 = t[6];
        const uint16_t b2 = u[0], g2 = u[1], r2 = u[2], b3 = u[4], g3 = u[5], r3 = u[6];
        // At most 220 * 255 + 4224 = 60324: fits 16 bits unsigned.
        y0[2 * x] = uint8_t(uint16_t(47 * r0 + 157 * g0 + 16 * b0 + 0x1080) >> 8);
        y0[2 * x + 1] = uint8_t(uint16_t(47 * r1 + 157 * g1 + 16 * b1 + 0x1080) >> 8);
        y1[2 * x] = uint8_t(uint16_t(47 * r2 + 157 * g2 + 16 * b2 + 0x1080) >> 8);
        y1[2 * x + 1] = uint8_t(uint16_t(47 * r3 + 157 * g3 + 16 * b3 + 0x1080) >> 8);
        const int16_t bl = int16_t((b0 + b1 + b2 + b3 + 2) >> 2);
        const int16_t gr = int16_t((g0 + g1 + g2 + g3 + 2) >> 2);
        const int16_t rd = int16_t((r0 + r1 + r2 + r3 + 2) >> 2);
        // Each sum stays within +-28815 + 128: fits 16 bits signed.
        uv[2 * x] = uint8_t(((-26 * rd - 86 * gr + 112 * bl + 128) >> 8) + 128);
        uv[2 * x + 1] = uint8_t(((112 * rd - 102 * gr - 10 * bl + 128) >> 8) + 128);
    }
}

// The chroma of one block row on its own (the odd last row pairs with itself).
void chromaRow(const uint8_t *top, const uint8_t *bottom, uint8_t *uv, int pairs)
{
    for (int x = 0; x < pairs; ++x) {
        const uint8_t *t = top + 8 * x, *u = bottom + 8 * x;
        const int bl = (t[0] + t[4] + u[0] + u[4] + 2) >> 2;
        const int gr = (t[1] + t[5] + u[1] + u[5] + 2) >> 2;
        const int rd = (t[2] + t[6] + u[2] + u[6] + 2) >> 2;
        uv[2 * x] = uint8_t(((-26 * rd - 86 * gr + 112 * bl + 128) >> 8) + 128);
        uv[2 * x + 1] = uint8_t(((112 * rd - 102 * gr - 10 * bl + 128) >> 8) + 128);
    }
}

void chromaEdge(const uint8_t *top, const uint8_t *bottom, uint8_t *uv)
{
    const uint32_t a = load(top), c = load(bottom);
    const int bl = int(((a & 0xFF) + (c & 0xFF) + 1) >> 1);
    const int gr = int((((a >> 8) & 0xFF) + ((c >> 8) & 0xFF) + 1) >> 1);
    const int rd = int((((a >> 16) & 0xFF) + ((c >> 16) & 0xFF) + 1) >> 1);
    uv[0] = uint8_t(((-26 * rd - 86 * gr + 112 * bl + 128) >> 8) + 128);
    uv[1] = uint8_t(((112 * rd - 102 * gr - 10 * bl + 128) >> 8) + 128);
}

} // namespace

Bt709Pixel bt709VideoRange(uint8_t r, uint8_t g, uint8_t b)
{
    const uint8_t px[8] = {b, g, r, 0, b, g, r, 0};
    uint8_t y0[2], y1[2], uv[2];
    blockRow(px, px, y0, y1, uv, 1);
    return {y0[0], uv[0], uv[1]};
}

bool convertBgrxToNv12(const uint8_t *bgrx, int stride, int width, int height, const Nv12Planes &out)
{
    if (!bgrx || !out.y || !out.uv || width < 1 || height < 1) return false;
    const int evenWidth = (width + 1) & ~1;
    if (int64_t(stride) < int64_t(width) * 4 || out.yStride < width || out.uvStride < evenWidth) return false;
    const int pairs = width / 2;
    for (int row = 0; row < height; row += 2) {
        const uint8_t *top = bgrx + size_t(row) * size_t(stride);
        uint8_t *y0 = out.y + size_t(row) * size_t(out.yStride);
        uint8_t *uv = out.uv + size_t(row / 2) * size_t(out.uvStride);
        const bool pair = row + 1 < height;
        // The odd last row pairs with itself.
        const uint8_t *bottom = pair ? top + stride : top;
        if (pair) {
            blockRow(top, bottom, y0, y0 + out.yStride, uv, pairs);
        } else {
            lumaRow(top, y0, width);
            chromaRow(top, bottom, uv, pairs);
        }
        if (width & 1) {
            // The odd last column: its own Y, and its pixels stand for the missing neighbours.
            const size_t last = size_t(width - 1);
            lumaRow(top + 4 * last, y0 + last, 1);
            if (pair) lumaRow(bottom + 4 * last, y0 + out.yStride + last, 1);
            chromaEdge(top + 4 * last, bottom + 4 * last, uv + 2 * pairs);
        }
    }
    return true;
}

} // namespace velocast::capture
