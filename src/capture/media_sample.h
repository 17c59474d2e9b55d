// The sample that travels between capture, the encoders and the push bridge: a buffer of
// raw image, raw audio or encoded bytes, with what the encoders read from it (presentation
// time, sync flag, the H.264 parameter sets). Copies share the one buffer.
#pragma once

#include "capture/gst_util.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace velocast::capture {

// A time as value / timescale seconds, the shape the encoder delegates report.
struct MediaTime {
    static constexpr uint32_t kValid = 1;

    int64_t value = 0;
    int32_t timescale = 0;
    uint32_t flags = 0;
    int64_t epoch = 0;

    static MediaTime make(int64_t value, int32_t timescale);
    static MediaTime fromNanoseconds(uint64_t ns);
    bool isValid() const { return (flags & kValid) && timescale > 0; }
    // NaN when invalid.
    double seconds() const;
    // GST_CLOCK_TIME_NONE when invalid, negative or beyond the range of nanoseconds.
    uint64_t toNanoseconds() const;

    friend bool operator==(const MediaTime &, const MediaTime &) = default;
};

// An error handed to a delegate: where it came from and a code.
struct MediaError {
    std::string domain;
    int64_t code = 0;
    std::string description() const;
};

using ByteVector = std::vector<uint8_t>;

class MediaSample {
public:
    enum class Kind { Empty, RawVideo, H264, RawAudio, Aac };

    MediaSample() = default;

    // A raw picture; format is a GStreamer video format name ("NV12", "I420", "BGRx").
    // The planes follow GStreamer's default layout for the format and size unless the
    // buffer carries a GstVideoMeta with its own offsets and strides. The buffer is
    // shared, not copied (the encoder reads the planes in place).
    static MediaSample rawVideo(GstBufferPtr buffer, std::string format, int width, int height, MediaTime pts);
    // One encoded access unit in AVCC form (4-byte big-endian lengths). parameterSets holds
    // the SPS at index 0 and the PPS at index 1; sync is false for frames that depend on others.
    static MediaSample h264(GstBufferPtr avcc, MediaTime pts, bool sync, std::vector<ByteVector> parameterSets);
    // The same with parameter sets shared by many samples (an encoder's, until they change).
    static MediaSample h264(GstBufferPtr avcc, MediaTime pts, bool sync, std::shared_ptr<const std::vector<ByteVector>> parameterSets);
    // Interleaved PCM; format is a GStreamer audio format name ("S16LE", "F32LE").
    static MediaSample rawAudio(GstBufferPtr pcm, std::string format, int rate, int channels, MediaTime pts);
    // One raw AAC access unit (no ADTS header).
    static MediaSample aac(GstBufferPtr payload, MediaTime pts);

    Kind kind() const { return kind_; }
    // Borrowed; null for an empty sample.
    GstBuffer *buffer() const { return buffer_.get(); }
    MediaTime presentationTime() const { return pts_; }
    bool isSync() const { return sync_; }
    // A raw picture that is the one handed out just before, unchanged (an idle screen).
    bool isRepeat() const { return repeat_; }
    void setRepeat(bool repeat) { repeat_ = repeat; }
    // Null when the sample has no parameter set at that index.
    const ByteVector *parameterSet(size_t index) const;
    size_t parameterSetCount() const { return parameterSets_ ? parameterSets_->size() : 0; }

    const std::string &format() const { return format_; }
    int width() const { return width_; }
    int height() const { return height_; }
    int rate() const { return rate_; }
    int channels() const { return channels_; }

private:
    Kind kind_ = Kind::Empty;
    std::shared_ptr<GstBuffer> buffer_;
    MediaTime pts_;
    bool sync_ = true;
    bool repeat_ = false;
    std::shared_ptr<const std::vector<ByteVector>> parameterSets_;
    std::string format_;
    int width_ = 0;
    int height_ = 0;
    int rate_ = 0;
    int channels_ = 0;
};

} // namespace velocast::capture
