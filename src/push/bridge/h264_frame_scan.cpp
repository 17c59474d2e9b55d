#include "push/bridge/h264_frame_scan.h"

namespace velocast::push {

namespace {

constexpr int kNalSps = 7;
constexpr int kNalPps = 8;
constexpr int kNalIdr = 5;
constexpr int kNalSlice = 1;

// Start-code search windows: an SPS of at most 35 bytes, a PPS of at most 25.
constexpr uint32_t kSpsSearchLast = 39;
constexpr uint32_t kPpsSearchSpan = 25;

// First position p in [from, last] where 00 00 00 01 starts and fits inside the frame.
bool findStartCode(std::span<const uint8_t> frame, uint64_t from, uint64_t last, uint32_t *found)
{
    for (uint64_t p = from; p <= last && p + 4 <= frame.size(); ++p) {
        if (frame[p] == 0 && frame[p + 1] == 0 && frame[p + 2] == 0 && frame[p + 3] == 1) {
            *found = uint32_t(p);
            return true;
        }
    }
    return false;
}

} // namespace

H264FrameScan scanH264Frame(std::span<const uint8_t> frame, int32_t spsSize, int32_t ppsSize, bool haveFormat)
{
    using Verdict = H264FrameScan::Verdict;
    H264FrameScan scan;
    scan.spsSize = spsSize;
    scan.ppsSize = ppsSize;
    // A start code and a NAL header at the least; a frame's size is a 32-bit count.
    if (frame.size() < 5 || frame.size() > UINT32_MAX) return scan;
    const auto frameSize = uint32_t(frame.size());

    const bool startsWithSps = (frame[4] & 0x1F) == kNalSps;
    int type = frame[4] & 0x1F;
    if (startsWithSps) {
        uint32_t p = 0;
        uint32_t header = 4; // not found: the SPS's own header again
        if (findStartCode(frame, 4, kSpsSearchLast, &p)) {
            scan.spsSize = int32_t(p);
            header = p + 4;
        }
        type = header < frameSize ? frame[header] & 0x1F : 0;
    } else if (!haveFormat) {
        scan.verdict = Verdict::BeforeFirstSps;
        return scan;
    }

    if (type == kNalPps) {
        // The sizes may come from an earlier frame: any value is checked against this one.
        const int64_t sps = scan.spsSize;
        uint32_t p = 0;
        if (sps >= 0 && findStartCode(frame, uint64_t(sps) + 4, uint64_t(sps) + 4 + kPpsSearchSpan, &p))
            scan.ppsSize = int32_t(int64_t(p) - sps);
        const int64_t psEnd = sps + int64_t(scan.ppsSize);
        if (scan.spsSize <= 4 || scan.ppsSize <= 4 || psEnd > int64_t(frameSize)) {
            scan.verdict = Verdict::SetsDoNotFit;
            return scan;
        }
        scan.sps = frame.subspan(4, size_t(sps) - 4);
        scan.pps = frame.subspan(size_t(sps) + 4, size_t(psEnd - sps) - 4);
        type = psEnd + 4 < int64_t(frameSize) ? frame[size_t(psEnd) + 4] & 0x1F : 0;
    }
    scan.type = type;

    if (type == kNalIdr) {
        // Sizes left by earlier frames may be anything; a negative one puts the slice nowhere.
        const int64_t offset = int64_t(scan.spsSize) + int64_t(scan.ppsSize);
        scan.sliceOffset = offset < 0 ? UINT64_MAX : uint64_t(offset);
    } else if (type != kNalSlice) {
        scan.verdict = Verdict::NotASlice;
        return scan;
    }
    scan.verdict = scan.sliceOffset > uint64_t(frameSize) || scan.sliceOffset + 5 > frameSize ? Verdict::SliceDoesNotFit : Verdict::Slice;
    return scan;
}

} // namespace velocast::push
