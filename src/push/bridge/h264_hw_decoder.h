// H264HWDecoder: Annex-B H.264 frames in, decoded pictures out to a delegate. The receiving
// counterpart of H264HWEncoder; nothing in the sender creates one, it is a self-contained
// part of the media toolkit.
//
// Frames are expected the way H264Packet makes them: every NAL unit behind a four-byte
// start code, and on key frames SPS and PPS in front. The parser looks for the start code
// behind the SPS within its first 35 bytes and behind the PPS within 25 bytes; longer sets
// are not found (see receivedRawVideoFrame).
//
// Decoding runs on GStreamer: appsrc (AVCC samples, avcC from the last SPS and PPS) !
// h264parse ! DECODER ! videoconvert ! NV12 ! appsink, with the first decoder of the chain
// that exists and starts, hardware first.
#pragma once

#include "capture/gst_util.h"
#include "capture/media_sample.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velocast::push {

class H264HWDecoderDelegate {
public:
    virtual ~H264HWDecoderDelegate() = default;
    // On the decoder's streaming thread: one decoded NV12 picture (kind RawVideo).
    virtual void displayDecodedFrame(const capture::MediaSample &image) = 0;
};

class H264HWDecoder {
public:
    // The nal_unit_type names, 0..31, kept as debug text.
    static const char *const kNaluTypesStrings[32];

    H264HWDecoder();
    ~H264HWDecoder();
    H264HWDecoder(const H264HWDecoder &) = delete;
    H264HWDecoder &operator=(const H264HWDecoder &) = delete;

    // Non-owning; must outlive the decoder's session or be cleared first.
    void setDelegate(H264HWDecoderDelegate *delegate) { _delegate.store(delegate); }
    H264HWDecoderDelegate *delegate() const { return _delegate.load(); }

    // Decodes one frame (one caller thread at a time). isIFrame is not consulted: the NAL
    // types decide. Frames before the first SPS are dropped; only IDR (5) and non-IDR (1)
    // slices are decoded. A frame too short for what its header promises is dropped with a
    // log line.
    void receivedRawVideoFrame(const uint8_t *frame, uint32_t frameSize, bool isIFrame);
    // Builds the decoding pipeline for the current SPS and PPS; logs on failure.
    void createDecompSession();
    // Submits one AVCC sample (4-byte length in front of the first NAL unit) for decoding.
    void render(std::vector<uint8_t> sample);

    bool hasFormatDesc() const { return !_formatSps.empty(); }
    const std::vector<uint8_t> &formatSps() const { return _formatSps; }
    const std::vector<uint8_t> &formatPps() const { return _formatPps; }
    bool hasDecompressionSession() const { return static_cast<bool>(_decompressionSession); }
    int32_t spsSize() const { return _spsSize; }
    int32_t ppsSize() const { return _ppsSize; }
    // The decoder element in use, empty before a session exists.
    std::string decoderName() const;

    // Replaces the decoder elements tried (tests force one path with it).
    void setDecoderChain(std::vector<std::string> chain) { chain_ = std::move(chain); }
    // The last sample handed to render(), for inspection.
    const std::vector<uint8_t> &lastSubmittedSample() const { return lastSample_; }

private:
    struct Session;
    bool setFormatDescription(std::vector<uint8_t> sps, std::vector<uint8_t> pps);

    std::atomic<H264HWDecoderDelegate *> _delegate{nullptr};
    std::vector<uint8_t> _formatSps;
    std::vector<uint8_t> _formatPps;
    int32_t _spsSize = 0;
    int32_t _ppsSize = 0;
    std::vector<std::string> chain_;
    std::vector<uint8_t> lastSample_;
    mutable std::mutex nameMutex_;
    std::string decoderName_;
    std::unique_ptr<Session> _decompressionSession;
};

} // namespace velocast::push
