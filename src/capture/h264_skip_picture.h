// Coded pictures for an unchanged screen, without the encoder.
//
// When the picture to encode is a repeat of the previous one, running the encoder only to
// learn that every macroblock can be skipped costs nearly a full encode. Instead a P picture
// of one slice whose macroblocks are all skipped (CAVLC: the slice header, then one
// mb_skip_run covering the whole picture) is written from the encoder's own SPS and PPS.
// A skipped macroblock with no neighbour motion predicts a zero vector from reference index
// 0, so the picture decodes to an exact copy of the previous one.
//
// The injected pictures are reference pictures (nal_ref_idc != 0): with
// pic_order_cnt_type 2 two non-reference pictures must not follow each other, and a
// reference picture keeps the order count rising with frame_num. Each one takes the next
// frame_num, so the encoder's later slices, numbered as if the injected pictures did not
// exist, get their frame_num rewritten to the stream's (SkipPictureStream below). With one
// reference frame the encoder's next P picture predicts from the injected copy, which holds
// exactly the picture the encoder predicts from.
//
// Used only where the parameter sets allow it: CAVLC, progressive frames, one slice group,
// no weighted prediction, pic_order_cnt_type 2, one reference frame. Otherwise the caller
// encodes as before.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velocast::capture {

struct SkipPictureParams {
    int spsId = 0;
    int ppsId = 0;
    int log2MaxFrameNum = 4;
    int picSizeInMbs = 0;
    int numRefIdxL0DefaultActive = 1;
    bool deblockingFilterControlPresent = false;
    bool redundantPicCntPresent = false;
    uint32_t maxFrameNum() const { return 1u << log2MaxFrameNum; }
};

// Reads what the skipped picture needs from an SPS and a PPS (NAL units with their header
// byte, emulation prevention bytes in place). nullopt with the reason when the streams they
// describe cannot take injected pictures, or the units are malformed.
std::optional<SkipPictureParams> parseSkipPictureParams(std::span<const uint8_t> sps, std::span<const uint8_t> pps, std::string *reason);

// One slice NAL unit (header byte included, escaped) of a P picture whose macroblocks are
// all skipped, numbered frameNum, marked as a reference picture with nalRefIdc (1..3).
std::vector<uint8_t> makeSkipSlice(const SkipPictureParams &params, uint32_t frameNum, int nalRefIdc);

// The frame_num of a coded slice NAL unit (type 1 or 5); nullopt for other units or a
// header that ends early.
std::optional<uint32_t> sliceFrameNum(std::span<const uint8_t> nal, const SkipPictureParams &params);

// The same slice with frame_num replaced (escaped again: the new bits may make or remove a
// start-code-like run). Empty when the unit is not a readable slice.
std::vector<uint8_t> rewriteSliceFrameNum(std::span<const uint8_t> nal, const SkipPictureParams &params, uint32_t frameNum);

// Emulation prevention, both ways.
std::vector<uint8_t> unescapeRbsp(std::span<const uint8_t> nal);
std::vector<uint8_t> escapeRbsp(std::span<const uint8_t> rbsp);

// The stream's numbering across encoder pictures and injected ones, for one encoder session
// (one thread).
class SkipPictureStream {
public:
    explicit SkipPictureStream(int keyFrameInterval) : keyInterval_(keyFrameInterval) {}

    // The parameter sets changed (or came for the first time). False, with the reason,
    // when they do not allow injected pictures; injection is then off until they change.
    bool setParameterSets(std::span<const uint8_t> sps, std::span<const uint8_t> pps, std::string *reason);
    bool enabled() const { return params_.has_value(); }

    // The next picture of the stream must be a key frame.
    bool keyFrameDue() const { return sinceKey_ >= keyInterval_; }
    // The encoder must be told so: it saw fewer pictures than the stream holds since the
    // last key frame, and its own count comes later.
    bool mustForceKeyFrame() const { return keyFrameDue() && injectedSinceKey_; }
    // An injected picture may go next: injection is on, the stream has begun and no key
    // frame is due.
    bool canInject() const { return enabled() && started_ && !keyFrameDue(); }

    // The next injected picture as an AVCC access unit (one 4-byte length + the slice).
    // Only when canInject().
    std::vector<uint8_t> nextSkipPicture();

    // An access unit from the encoder (AVCC, 4-byte lengths), key or not. Returns the unit
    // to send: empty when it stands as it is, otherwise the unit with its slices' frame_num
    // rewritten. A unit whose slices cannot be read goes out as it is, and nothing is
    // injected until the next key frame.
    std::vector<uint8_t> takeEncoderPicture(std::span<const uint8_t> avcc, bool keyFrame);

    uint64_t injected() const { return injected_; }
    uint64_t rewritten() const { return rewritten_; }

private:
    const int keyInterval_;
    std::optional<SkipPictureParams> params_;
    std::vector<uint8_t> sps_, pps_; // the sets params_ was read from
    std::string refusal_;
    bool started_ = false;       // a key frame went out
    int sinceKey_ = 0;           // pictures since the last key frame, that one included
    bool injectedSinceKey_ = false;
    uint32_t prevRefFrameNum_ = 0;
    int lastRefIdc_ = 2;
    uint64_t injected_ = 0;
    uint64_t rewritten_ = 0;
};

} // namespace velocast::capture
