// BGRx (the X server's and PipeWire's 32-bit little-endian xRGB) to NV12, BT.709 matrix,
// video range (Y 16..235, Cb/Cr 16..240): the colours the H.264 stream signals in its VUI.
//
// Chroma is the average of each 2x2 block; an odd last column or row is averaged with
// itself. The converter reads and writes only inside the strides and sizes it is given.
#pragma once

#include <cstdint>

namespace velocast::capture {

struct Nv12Planes {
    uint8_t *y = nullptr;
    int yStride = 0;
    uint8_t *uv = nullptr; // interleaved Cb, Cr
    int uvStride = 0;
};

// False (nothing written) when a size or stride cannot hold the picture: width or height
// below 1, a source stride under width * 4, a Y stride under width, a UV stride under the
// even width above width.
bool convertBgrxToNv12(const uint8_t *bgrx, int stride, int width, int height, const Nv12Planes &out);

// The colours of one pixel, for tests and for what the encoder is told.
struct Bt709Pixel {
    uint8_t y;
    uint8_t cb;
    uint8_t cr;
};
Bt709Pixel bt709VideoRange(uint8_t r, uint8_t g, uint8_t b);

} // namespace velocast::capture
