// H264HWEncoder: raw screen pictures in, Annex-B access units out to its delegate.
//
// The encoder is built lazily at the first picture and again after every size change, from
// the first element of h264EncoderChain() that exists here and starts (hardware first,
// software after). Output arrives on the encoder's own streaming thread, not the caller's.
//
// Threads: encode() on the capture thread; setUnable(), setOutputSize(), changeBitrate()
// and invalidate() from the control path while pictures may be arriving. The session is
// guarded by a mutex, so a picture is never handed to a half-torn session.
#pragma once

#include "capture/h264_encoder_session.h"
#include "capture/media_sample.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace velocast::capture {

class H264HWEncoderDelegate {
public:
    virtual ~H264HWEncoderDelegate() = default;
    // On the encoder's streaming thread. data is one Annex-B access unit (SPS and PPS in
    // front on key frames); timestamp is the source picture's; error is always null. Must
    // not call back into the encoder.
    virtual void gotH264EncodedData(const std::vector<uint8_t> &data, bool keyFrame, MediaTime timestamp, const MediaError *error) = 0;
};

// Sees each access unit after the delegate took it (measurements: the bench's latency).
class H264OutputObserver {
public:
    virtual ~H264OutputObserver() = default;
    // On the encoder's streaming thread; timestamp is the source picture's capture time.
    virtual void didDeliver(MediaTime timestamp, size_t bytes, bool keyFrame) = 0;
};

struct OutputSize {
    double width = 0;
    double height = 0;
};

class H264HWEncoder {
public:
    H264HWEncoder();
    // invalidate(): pending pictures are still delivered.
    ~H264HWEncoder();
    H264HWEncoder(const H264HWEncoder &) = delete;
    H264HWEncoder &operator=(const H264HWEncoder &) = delete;

    // Non-owning; must outlive the encoder's session (clear it or invalidate first).
    void setDelegate(H264HWEncoderDelegate *delegate) { delegate_.store(delegate); }
    H264HWEncoderDelegate *delegate() const { return delegate_.load(); }
    // Non-owning; null to stop. Costs one atomic load per frame when unset.
    void setOutputObserver(H264OutputObserver *observer) { observer_.store(observer); }

    // Takes effect at the next session. Sizes are truncated to integers, and odd ones to the
    // even size below (4:2:0 pictures come in 2x2 blocks).
    void setOutputSize(OutputSize size);
    OutputSize outputSize() const;
    // Stores the rate; a running session takes it at once where the encoder allows a live
    // change, otherwise the session is closed and the next picture builds a new one.
    void changeBitrate(int64_t bitrate);
    int64_t bitrate() const { return bitrate_.load(); }
    // True: pictures are dropped and the session is invalidated.
    void setUnable(bool unable);
    bool unable() const { return unable_.load(); }

    // Queues one picture (a MediaSample of kind RawVideo). Returns at once.
    void encode(const MediaSample &picture);
    // Builds the session for the picture's format; logs and leaves none on failure.
    void initSession(const MediaSample &picture);
    // Flushes (every queued picture still reaches the delegate) and closes the session.
    void invalidate();
    bool hasSession() const;

    // The encoder element of the last session built ("x264enc", "vah264enc", ...), empty
    // before the first; for the interface layer.
    std::string chosenEncoderName() const;
    bool chosenEncoderIsHardware() const;

    // Coded pictures of skipped macroblocks sent in place of unchanged pictures, over all
    // sessions so far.
    uint64_t skippedPictures() const;

    // Replaces the list of encoder elements tried (tests force one path with it).
    void setEncoderChain(std::vector<std::string> chain);

    // Wraps one compressed sample as an H264Packet and hands it to the delegate. On the
    // session's streaming thread; a null sample does nothing.
    void didReceiveSampleBuffer(const MediaSample *sample);

private:
    void initSessionLocked(const MediaSample &picture);
    void invalidateLocked();

    std::atomic<H264HWEncoderDelegate *> delegate_{nullptr};
    std::atomic<H264OutputObserver *> observer_{nullptr};
    std::atomic<int64_t> bitrate_{4000000};
    std::atomic<bool> unable_{false};
    mutable std::mutex mutex_;
    // A portrait default on purpose; the bridge sets the real size before the first frame.
    OutputSize outputSize_{1080, 1920};
    std::vector<std::string> chain_;
    // Encoders that started but then failed before producing anything (typically caps
    // negotiation on a device that cannot take the format); skipped from then on.
    std::set<std::string> unusable_;
    // Its own lock: the interface layer reads it while a flush may hold mutex_.
    mutable std::mutex nameMutex_;
    std::string chosenName_;
    bool chosenHardware_ = false;
    std::unique_ptr<H264EncoderSession> session_;
    uint64_t skippedBefore_ = 0; // by the sessions closed so far; under mutex_
};

} // namespace velocast::capture
