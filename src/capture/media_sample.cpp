#include "capture/media_sample.h"

#include <cmath>
#include <limits>

namespace velocast::capture {

MediaTime MediaTime::make(int64_t value, int32_t timescale)
{
    MediaTime t;
    t.value = value;
    t.timescale = timescale;
    t.flags = timescale > 0 ? kValid : 0;
    return t;
}

MediaTime MediaTime::fromNanoseconds(uint64_t ns)
{
    if (ns == GST_CLOCK_TIME_NONE || ns > uint64_t(std::numeric_limits<int64_t>::max())) return {};
    return make(int64_t(ns), 1'000'000'000);
}

double MediaTime::seconds() const
{
    if (!isValid()) return std::numeric_limits<double>::quiet_NaN();
    return double(value) / double(timescale);
}

uint64_t MediaTime::toNanoseconds() const
{
    if (!isValid() || value < 0) return GST_CLOCK_TIME_NONE;
    // value * 1e9 / timescale without overflow where the result fits.
    const uint64_t ns = gst_util_uint64_scale(uint64_t(value), GST_SECOND, uint64_t(timescale));
    return ns == G_MAXUINT64 ? GST_CLOCK_TIME_NONE : ns;
}

std::string MediaError::description() const
{
    return "Error Domain=" + domain + " Code=" + std::to_string(code);
}

MediaSample MediaSample::rawVideo(GstBufferPtr buffer, std::string format, int width, int height, MediaTime pts)
{
    MediaSample s;
    s.kind_ = Kind::RawVideo;
    s.buffer_ = std::shared_ptr<GstBuffer>(buffer.release(), GstBufferUnref{});
    s.format_ = std::move(format);
    s.width_ = width;
    s.height_ = height;
    s.pts_ = pts;
    return s;
}

MediaSample MediaSample::h264(GstBufferPtr avcc, MediaTime pts, bool sync, std::vector<ByteVector> parameterSets)
{
    MediaSample s;
    s.kind_ = Kind::H264;
    s.buffer_ = std::shared_ptr<GstBuffer>(avcc.release(), GstBufferUnref{});
    s.pts_ = pts;
    s.sync_ = sync;
    s.parameterSets_ = std::make_shared<const std::vector<ByteVector>>(std::move(parameterSets));
    return s;
}

MediaSample MediaSample::h264(GstBufferPtr avcc, MediaTime pts, bool sync, std::shared_ptr<const std::vector<ByteVector>> parameterSets)
{
    MediaSample s;
    s.kind_ = Kind::H264;
    s.buffer_ = std::shared_ptr<GstBuffer>(avcc.release(), GstBufferUnref{});
    s.pts_ = pts;
    s.sync_ = sync;
    s.parameterSets_ = std::move(parameterSets);
    return s;
}

MediaSample MediaSample::rawAudio(GstBufferPtr pcm, std::string format, int rate, int channels, MediaTime pts)
{
    MediaSample s;
    s.kind_ = Kind::RawAudio;
    s.buffer_ = std::shared_ptr<GstBuffer>(pcm.release(), GstBufferUnref{});
    s.format_ = std::move(format);
    s.rate_ = rate;
    s.channels_ = channels;
    s.pts_ = pts;
    return s;
}

MediaSample MediaSample::aac(GstBufferPtr payload, MediaTime pts)
{
    MediaSample s;
    s.kind_ = Kind::Aac;
    s.buffer_ = std::shared_ptr<GstBuffer>(payload.release(), GstBufferUnref{});
    s.pts_ = pts;
    return s;
}

const ByteVector *MediaSample::parameterSet(size_t index) const
{
    if (!parameterSets_ || index >= parameterSets_->size()) return nullptr;
    return &(*parameterSets_)[index];
}

} // namespace velocast::capture
