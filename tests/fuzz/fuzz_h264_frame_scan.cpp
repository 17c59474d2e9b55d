// The decoder's search for the parameter sets and the slice in Annex-B frames. The input is a
// run of frames, each a big-endian 16-bit length and that many bytes, scanned in order so the
// sizes one frame leaves are what the next one starts from.
#include "push/bridge/h264_frame_scan.h"

using velocast::push::H264FrameScan;
using velocast::push::scanH264Frame;

static bool inside(std::span<const uint8_t> part, std::span<const uint8_t> frame)
{
    return part.empty() || (part.data() >= frame.data() && part.data() + part.size() <= frame.data() + frame.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int32_t spsSize = 0, ppsSize = 0;
    bool haveFormat = false;
    size_t at = 0;
    while (size - at >= 2) {
        const size_t length = size_t(data[at]) << 8 | data[at + 1];
        at += 2;
        const std::span<const uint8_t> frame(data + at, length < size - at ? length : size - at);
        at += frame.size();

        const H264FrameScan scan = scanH264Frame(frame, spsSize, ppsSize, haveFormat);
        if (!inside(scan.sps, frame) || !inside(scan.pps, frame)) __builtin_trap();
        if (scan.sps.empty() != scan.pps.empty()) __builtin_trap();
        if (scan.hasParameterSets()) {
            // The sets sit behind their start codes, one after the other, and the sizes say so.
            if (scan.sps.data() != frame.data() + 4 || size_t(scan.spsSize) != scan.sps.size() + 4) __builtin_trap();
            if (scan.pps.data() != scan.sps.data() + scan.sps.size() + 4 || size_t(scan.ppsSize) != scan.pps.size() + 4) __builtin_trap();
            haveFormat = true;
        }
        if (scan.verdict == H264FrameScan::Verdict::Slice && scan.sliceOffset + 5 > frame.size()) __builtin_trap();
        // Every byte handed out is read, as the decoder copies them.
        volatile uint8_t sink = 0;
        for (uint8_t b : scan.sps) sink = sink ^ b;
        for (uint8_t b : scan.pps) sink = sink ^ b;
        if (scan.verdict == H264FrameScan::Verdict::Slice)
            for (size_t i = size_t(scan.sliceOffset); i < frame.size(); ++i) sink = sink ^ frame[i];
        spsSize = scan.spsSize;
        ppsSize = scan.ppsSize;
    }
    return 0;
}
