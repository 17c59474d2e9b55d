#include "capture/h264_skip_picture.h"

#include <algorithm>

namespace velocast::capture {

namespace {

constexpr int kSliceNonIdr = 1;
constexpr int kSliceIdr = 5;
// Larger than any picture we encode (16384 pixels a side); keeps the sizes in int range.
constexpr uint32_t kMaxMbsPerSide = 1024;

// Bits of an RBSP, most significant first. Reading past the end sets failed() and yields 0.
class BitReader {
public:
    explicit BitReader(std::span<const uint8_t> rbsp) : data_(rbsp) {}

    uint32_t bits(int n)
    {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i) v = v << 1 | bit();
        return v;
    }
    uint32_t bit()
    {
        if (pos_ >= data_.size() * 8) {
            failed_ = true;
            return 0;
        }
        const uint32_t b = (data_[pos_ / 8] >> (7 - pos_ % 8)) & 1u;
        ++pos_;
        return b;
    }
    uint32_t ue()
    {
        int zeros = 0;
        while (bit() == 0) {
            if (failed_ || ++zeros > 31) {
                failed_ = true;
                return 0;
            }
        }
        return uint32_t((uint64_t(1) << zeros) - 1 + bits(zeros));
    }
    int32_t se()
    {
        const uint32_t k = ue();
        return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
    }
    size_t position() const { return pos_; }
    bool failed() const { return failed_; }

private:
    std::span<const uint8_t> data_;
    size_t pos_ = 0;
    bool failed_ = false;
};

class BitWriter {
public:
    void bits(uint32_t v, int n)
    {
        for (int i = n - 1; i >= 0; --i) bit((v >> i) & 1u);
    }
    void bit(uint32_t b)
    {
        if (used_ == 0) out_.push_back(0);
        if (b) out_.back() |= uint8_t(0x80u >> used_);
        used_ = (used_ + 1) % 8;
    }
    void ue(uint32_t v)
    {
        const uint64_t x = uint64_t(v) + 1;
        int len = 0;
        while ((x >> len) > 1) ++len;
        bits(0, len);
        bits(uint32_t(x), len + 1);
    }
    void se(int32_t v) { ue(v > 0 ? uint32_t(2 * v - 1) : uint32_t(-2 * int64_t(v))); }
    // rbsp_trailing_bits: a stop bit, then zeros to the byte boundary.
    std::vector<uint8_t> finish()
    {
        bit(1);
        used_ = 0;
        return std::move(out_);
    }

private:
    std::vector<uint8_t> out_;
    int used_ = 0;
};

bool isHighProfile(uint32_t profileIdc)
{
    switch (profileIdc) {
    case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118: case 128: case 138: case 139: case 134: case 135:
        return true;
    default:
        return false;
    }
}

void skipScalingList(BitReader &r, int size)
{
    int last = 8, next = 8;
    for (int j = 0; j < size && !r.failed(); ++j) {
        if (next != 0) next = (last + r.se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

bool refuse(std::string *reason, const char *why)
{
    if (reason) *reason = why;
    return false;
}

bool parseSps(std::span<const uint8_t> nal, SkipPictureParams &p, std::string *reason)
{
    if (nal.size() < 4 || (nal[0] & 0x1F) != 7) return refuse(reason, "not an SPS");
    const std::vector<uint8_t> rbsp = unescapeRbsp(nal);
    BitReader r(rbsp);
    const uint32_t profileIdc = r.bits(8);
    r.bits(16); // constraint flags, level_idc
    p.spsId = int(r.ue());
    if (isHighProfile(profileIdc)) {
        const uint32_t chromaFormat = r.ue();
        if (chromaFormat == 3 && r.bit()) return refuse(reason, "separate colour planes");
        r.ue(); // bit_depth_luma_minus8
        r.ue(); // bit_depth_chroma_minus8
        r.bit(); // qpprime_y_zero_transform_bypass_flag
        if (r.bit()) {
            for (int i = 0; i < (chromaFormat != 3 ? 8 : 12) && !r.failed(); ++i)
                if (r.bit()) skipScalingList(r, i < 6 ? 16 : 64);
        }
    }
    const uint32_t log2MaxFrameNumMinus4 = r.ue();
    if (log2MaxFrameNumMinus4 > 12) return refuse(reason, "log2_max_frame_num out of range");
    p.log2MaxFrameNum = int(log2MaxFrameNumMinus4) + 4;
    if (r.ue() != 2) return refuse(reason, "picture order count type other than 2");
    if (r.ue() != 1) return refuse(reason, "more than one reference frame");
    r.bit(); // gaps_in_frame_num_value_allowed_flag
    const uint32_t widthMbs = r.ue() + 1;
    const uint32_t heightMapUnits = r.ue() + 1;
    if (!r.bit()) return refuse(reason, "interlaced coding");
    if (r.failed()) return refuse(reason, "SPS ends early");
    if (widthMbs > kMaxMbsPerSide || heightMapUnits > kMaxMbsPerSide) return refuse(reason, "picture size out of range");
    p.picSizeInMbs = int(widthMbs * heightMapUnits);
    return true;
}

bool parsePps(std::span<const uint8_t> nal, SkipPictureParams &p, std::string *reason)
{
    if (nal.size() < 2 || (nal[0] & 0x1F) != 8) return refuse(reason, "not a PPS");
    const std::vector<uint8_t> rbsp = unescapeRbsp(nal);
    BitReader r(rbsp);
    const uint32_t ppsId = r.ue();
    if (ppsId > 255) return refuse(reason, "PPS id out of range");
    p.ppsId = int(ppsId);
    if (int(r.ue()) != p.spsId) return refuse(reason, "PPS refers to another SPS");
    if (r.bit()) return refuse(reason, "CABAC");
    r.bit(); // bottom_field_pic_order_in_frame_present_flag (no fields here)
    if (r.ue() != 0) return refuse(reason, "slice groups");
    const uint32_t refIdxL0 = r.ue() + 1;
    if (refIdxL0 > 32) return refuse(reason, "reference index count out of range");
    p.numRefIdxL0DefaultActive = int(refIdxL0);
    r.ue(); // num_ref_idx_l1_default_active_minus1
    if (r.bit()) return refuse(reason, "weighted prediction");
    r.bits(2); // weighted_bipred_idc
    r.se();    // pic_init_qp_minus26
    r.se();    // pic_init_qs_minus26
    r.se();    // chroma_qp_index_offset
    p.deblockingFilterControlPresent = r.bit();
    r.bit(); // constrained_intra_pred_flag
    p.redundantPicCntPresent = r.bit();
    if (r.failed()) return refuse(reason, "PPS ends early");
    return true;
}

struct SliceHead {
    std::vector<uint8_t> rbsp; // the payload after the header byte
    size_t frameNumBit = 0;
    uint32_t frameNum = 0;
};

// Three Exp-Golomb fields and frame_num take at most 3 x 63 + 16 bits, 26 bytes; with one
// emulation prevention byte in every three at worst, 48 bytes of the unit hold them.
constexpr size_t kSliceHeadBytes = 48;

// whole: the entire payload (to rewrite it), or just enough to read frame_num.
std::optional<SliceHead> readSliceHead(std::span<const uint8_t> nal, const SkipPictureParams &params, bool whole)
{
    if (nal.size() < 2) return std::nullopt;
    const int type = nal[0] & 0x1F;
    if (type != kSliceNonIdr && type != kSliceIdr) return std::nullopt;
    SliceHead head;
    head.rbsp = unescapeRbsp(whole ? nal : nal.first(std::min(nal.size(), kSliceHeadBytes)));
    BitReader r(head.rbsp);
    r.ue(); // first_mb_in_slice
    r.ue(); // slice_type
    r.ue(); // pic_parameter_set_id
    head.frameNumBit = r.position();
    head.frameNum = r.bits(params.log2MaxFrameNum);
    if (r.failed()) return std::nullopt;
    return head;
}

void appendAvcc(std::vector<uint8_t> &out, std::span<const uint8_t> nal)
{
    const size_t n = nal.size();
    out.push_back(uint8_t(n >> 24));
    out.push_back(uint8_t(n >> 16));
    out.push_back(uint8_t(n >> 8));
    out.push_back(uint8_t(n));
    out.insert(out.end(), nal.begin(), nal.end());
}

} // namespace

std::vector<uint8_t> unescapeRbsp(std::span<const uint8_t> nal)
{
    std::vector<uint8_t> out;
    if (nal.empty()) return out;
    out.reserve(nal.size());
    int zeros = 0;
    for (size_t i = 1; i < nal.size(); ++i) {
        const uint8_t b = nal[i];
        if (zeros >= 2 && b == 3) {
            zeros = 0;
            continue;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

std::vector<uint8_t> escapeRbsp(std::span<const uint8_t> rbsp)
{
    std::vector<uint8_t> out;
    out.reserve(rbsp.size() + rbsp.size() / 64 + 1);
    int zeros = 0;
    for (const uint8_t b : rbsp) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    if (!out.empty() && out.back() == 0) out.push_back(3);
    return out;
}

std::optional<SkipPictureParams> parseSkipPictureParams(std::span<const uint8_t> sps, std::span<const uint8_t> pps, std::string *reason)
{
    SkipPictureParams p;
    if (!parseSps(sps, p, reason) || !parsePps(pps, p, reason)) return std::nullopt;
    return p;
}

std::vector<uint8_t> makeSkipSlice(const SkipPictureParams &params, uint32_t frameNum, int nalRefIdc)
{
    BitWriter w;
    w.ue(0);            // first_mb_in_slice
    w.ue(5);            // slice_type: P, as every slice of the picture
    w.ue(uint32_t(params.ppsId));
    w.bits(frameNum % params.maxFrameNum(), params.log2MaxFrameNum);
    // Progressive, not IDR, pic_order_cnt_type 2: no field flag, no idr_pic_id, no order count.
    if (params.redundantPicCntPresent) w.ue(0);
    // One active reference: index 0, the previous picture.
    if (params.numRefIdxL0DefaultActive == 1) {
        w.bit(0);
    } else {
        w.bit(1);
        w.ue(0);
    }
    w.bit(0);           // ref_pic_list_modification_flag_l0
    w.bit(0);           // dec_ref_pic_marking: sliding window
    w.se(0);            // slice_qp_delta
    // Nothing to filter: skipped blocks with equal vectors and no residual have no edges.
    if (params.deblockingFilterControlPresent) w.ue(1);
    w.ue(uint32_t(params.picSizeInMbs)); // mb_skip_run: the whole picture
    const std::vector<uint8_t> rbsp = w.finish();
    std::vector<uint8_t> nal;
    nal.push_back(uint8_t((std::clamp(nalRefIdc, 1, 3) << 5) | kSliceNonIdr));
    const std::vector<uint8_t> escaped = escapeRbsp(rbsp);
    nal.insert(nal.end(), escaped.begin(), escaped.end());
    return nal;
}

std::optional<uint32_t> sliceFrameNum(std::span<const uint8_t> nal, const SkipPictureParams &params)
{
    const auto head = readSliceHead(nal, params, false);
    if (!head) return std::nullopt;
    return head->frameNum;
}

std::vector<uint8_t> rewriteSliceFrameNum(std::span<const uint8_t> nal, const SkipPictureParams &params, uint32_t frameNum)
{
    auto head = readSliceHead(nal, params, true);
    if (!head) return {};
    const uint32_t value = frameNum % params.maxFrameNum();
    for (int i = 0; i < params.log2MaxFrameNum; ++i) {
        const size_t bit = head->frameNumBit + size_t(i);
        const uint8_t mask = uint8_t(0x80u >> (bit % 8));
        if ((value >> (params.log2MaxFrameNum - 1 - i)) & 1u)
            head->rbsp[bit / 8] |= mask;
        else
            head->rbsp[bit / 8] &= uint8_t(~mask);
    }
    std::vector<uint8_t> out;
    const std::vector<uint8_t> escaped = escapeRbsp(head->rbsp);
    out.reserve(escaped.size() + 1);
    out.push_back(nal[0]);
    out.insert(out.end(), escaped.begin(), escaped.end());
    return out;
}

bool SkipPictureStream::setParameterSets(std::span<const uint8_t> sps, std::span<const uint8_t> pps, std::string *reason)
{
    // The same sets again (new caps that say the same): the stream goes on as it is.
    if (std::ranges::equal(sps, sps_) && std::ranges::equal(pps, pps_) && !sps_.empty()) {
        if (!params_ && reason) *reason = refusal_;
        return params_.has_value();
    }
    sps_.assign(sps.begin(), sps.end());
    pps_.assign(pps.begin(), pps.end());
    refusal_.clear();
    params_ = parseSkipPictureParams(sps, pps, &refusal_);
    if (reason) *reason = refusal_;
    // New parameter sets come with a key frame; numbering starts again there.
    started_ = false;
    return params_.has_value();
}

std::vector<uint8_t> SkipPictureStream::nextSkipPicture()
{
    std::vector<uint8_t> avcc;
    if (!canInject()) return avcc;
    prevRefFrameNum_ = (prevRefFrameNum_ + 1) % params_->maxFrameNum();
    appendAvcc(avcc, makeSkipSlice(*params_, prevRefFrameNum_, lastRefIdc_));
    ++sinceKey_;
    injectedSinceKey_ = true;
    ++injected_;
    return avcc;
}

std::vector<uint8_t> SkipPictureStream::takeEncoderPicture(std::span<const uint8_t> avcc, bool keyFrame)
{
    sinceKey_ = keyFrame ? 1 : sinceKey_ + 1;
    if (keyFrame) injectedSinceKey_ = false;
    if (!params_) return {};
    // First pass: the picture's numbering, and whether any slice needs a new frame_num.
    bool idr = false, reference = false, readable = true, differs = false;
    int refIdc = 0;
    for (size_t offset = 0; offset + 4 <= avcc.size();) {
        const uint32_t len = uint32_t(avcc[offset]) << 24 | uint32_t(avcc[offset + 1]) << 16 | uint32_t(avcc[offset + 2]) << 8 | avcc[offset + 3];
        if (len > avcc.size() - offset - 4) {
            readable = false;
            break;
        }
        const auto nal = avcc.subspan(offset + 4, len);
        offset += 4 + size_t(len);
        if (nal.empty()) continue;
        const int type = nal[0] & 0x1F;
        if (type != kSliceNonIdr && type != kSliceIdr) continue;
        idr = idr || type == kSliceIdr;
        if (nal[0] & 0x60) {
            reference = true;
            refIdc = (nal[0] >> 5) & 3;
        }
        const auto frameNum = sliceFrameNum(nal, *params_);
        if (!frameNum) {
            readable = false;
            break;
        }
        const uint32_t want = idr ? 0 : (prevRefFrameNum_ + 1) % params_->maxFrameNum();
        differs = differs || *frameNum != want;
    }
    if (!readable) {
        // Not ours to fix: it goes out as it is, and the stream's numbering is unknown until
        // the next key frame.
        started_ = false;
        return {};
    }
    if (idr) started_ = true;
    if (!started_) return {};
    const uint32_t frameNum = idr ? 0 : (prevRefFrameNum_ + 1) % params_->maxFrameNum();
    if (reference) {
        prevRefFrameNum_ = frameNum;
        lastRefIdc_ = refIdc;
    }
    if (!differs) return {};
    std::vector<uint8_t> out;
    out.reserve(avcc.size() + 16);
    for (size_t offset = 0; offset + 4 <= avcc.size();) {
        const uint32_t len = uint32_t(avcc[offset]) << 24 | uint32_t(avcc[offset + 1]) << 16 | uint32_t(avcc[offset + 2]) << 8 | avcc[offset + 3];
        const auto nal = avcc.subspan(offset + 4, len);
        offset += 4 + size_t(len);
        const int type = nal.empty() ? 0 : nal[0] & 0x1F;
        if (type == kSliceNonIdr || type == kSliceIdr)
            appendAvcc(out, rewriteSliceFrameNum(nal, *params_, frameNum));
        else
            appendAvcc(out, nal);
    }
    ++rewritten_;
    return out;
}

} // namespace velocast::capture
