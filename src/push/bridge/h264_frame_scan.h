// Where the parameter sets and the slice lie in one Annex-B frame, as the H.264 decoder
// reads it: every NAL unit behind a four-byte start code, SPS and PPS in front on key
// frames. The start code behind the SPS is looked for within its first 35 bytes and the one
// behind the PPS within 25 bytes; a set that is longer is not found, and the size found for
// an earlier frame stands. Pure: no state of its own, no allocation, reads only inside the
// frame.
#pragma once

#include <cstdint>
#include <span>

namespace velocast::push {

struct H264FrameScan {
    enum class Verdict {
        TooShort,        // not even a start code and a NAL header
        BeforeFirstSps,  // no SPS in this frame and none seen before
        SetsDoNotFit,    // the parameter-set sizes run past the frame (or are empty)
        NotASlice,       // nothing to decode after what was read
        SliceDoesNotFit, // the slice's start lies past the frame's end
        Slice,           // decode frame[sliceOffset..]
    };
    Verdict verdict = Verdict::TooShort;
    // Sizes including the start code in front of each set; carried from frame to frame.
    int32_t spsSize = 0;
    int32_t ppsSize = 0;
    // This frame's SPS and PPS without their start codes; both set, or both empty.
    std::span<const uint8_t> sps;
    std::span<const uint8_t> pps;
    // The NAL type that decides what is decoded (0 when there is none).
    int type = 0;
    // Where the slice's start code is (verdict Slice or SliceDoesNotFit).
    uint64_t sliceOffset = 0;

    bool hasParameterSets() const { return !sps.empty(); }
};

// Scans one frame. spsSize and ppsSize are what the previous frames left; haveFormat says
// an SPS was taken before.
H264FrameScan scanH264Frame(std::span<const uint8_t> frame, int32_t spsSize, int32_t ppsSize, bool haveFormat);

} // namespace velocast::push
