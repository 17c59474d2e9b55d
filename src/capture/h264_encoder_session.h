// One H.264 encoder "session": a configured encoder for one output size, fed raw pictures,
// producing AVCC samples asynchronously. H264HWEncoder builds one at the first frame and
// after every size change, trying the encoders of h264EncoderChain() in order.
#pragma once

#include "capture/media_sample.h"

#include <functional>
#include <memory>
#include <span>
#include <string>

namespace velocast::capture {

struct H264EncoderSettings {
    int width = 0;          // output size in pixels (even; the encoder needs 4:2:0 blocks)
    int height = 0;
    int64_t bitrate = 0;    // average, bits per second; the cap is twice this per second
    int maxKeyFrameInterval = 30;
    int expectedFrameRate = 30;
    // The first picture's format; a picture in another format needs a new session.
    std::string inputFormat;
    int inputWidth = 0;
    int inputHeight = 0;
};

// Status codes of the configuration steps, 0 for success (the sums are logged).
struct H264EncoderSetupStatus {
    int bitrate = 0;    // average rate + per-second cap
    int frameRate = 0;  // expected frame rate
    int start = 0;      // the session was started
};

class H264EncoderSession {
public:
    // Called on the encoder's own thread for each compressed sample (AVCC, sync flag,
    // parameter sets, the source picture's time), or with null when a frame was dropped.
    // Must not block for long and must not call back into the session.
    using OutputFn = std::function<void(const MediaSample *compressed)>;
    // Called on whatever thread noticed it, when the encoder reports an error.
    using ErrorFn = std::function<void(const std::string &message)>;

    enum class EncodeResult { Queued, NeedsNewSession, Failed };

    virtual ~H264EncoderSession() = default;
    virtual const std::string &encoderName() const = 0;
    virtual bool isHardware() const = 0;
    // Queues one picture; returns at once. A picture of a format or size other than the
    // session's first gives NeedsNewSession. Failed once the encoder has reported an error.
    virtual EncodeResult encodeFrame(const MediaSample &picture) = 0;
    // Applies a new average rate (and its cap) while running. False when this encoder cannot
    // change its rate live; the caller then builds a new session.
    virtual bool setBitrate(int64_t bitrate) = 0;
    // Flushes: every queued picture is encoded and delivered before this returns (bounded
    // by a time-out when the encoder hangs).
    virtual void completeFrames() = 0;
    // True once an output sample was delivered.
    virtual bool producedOutput() const = 0;
    // Coded pictures of skipped macroblocks sent in place of unchanged pictures.
    virtual uint64_t skippedPictures() const { return 0; }
};

// The encoder elements in the order they are tried: hardware first, then software.
std::span<const char *const> h264EncoderChain();

// Builds and starts a session on the named encoder element. Null when the element does not
// exist here or does not start; status says which steps failed.
std::unique_ptr<H264EncoderSession> makeH264EncoderSession(const std::string &encoderName, const H264EncoderSettings &settings,
                                                          H264EncoderSession::OutputFn onOutput,
                                                          H264EncoderSession::ErrorFn onError, H264EncoderSetupStatus *status);

} // namespace velocast::capture
