#include "capture/session/linux/gst_capture_source.h"

#include "common/log.h"

#include <gst/app/gstappsink.h>
#include <gst/audio/audio.h>
#include <gst/video/video.h>

namespace velocast::capture {

namespace {
// How long one pull waits before it looks at the stop flag again.
constexpr GstClockTime kPullWait = 50 * GST_MSECOND;
} // namespace

GstCaptureSource::GstCaptureSource(GstElement *pipeline, Kind kind, std::string queueLabel, SampleHandler handler)
    : kind_(kind), label_(std::move(queueLabel)), handler_(std::move(handler)),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(pipeline)))
{
    sink_ = gst_bin_get_by_name(GST_BIN(pipeline_.get()), "sink");
    if (sink_) gst_object_unref(sink_); // the bin keeps it; we only borrow it
    GstClock *clock = gst_system_clock_obtain();
    gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock);
    gst_object_unref(clock);
    GstBus *bus = gst_element_get_bus(pipeline_.get());
    gst_bus_set_sync_handler(bus, &GstCaptureSource::onBusMessage, this, nullptr);
    gst_object_unref(bus);
}

GstCaptureSource::~GstCaptureSource() { stopRunning(); }

bool GstCaptureSource::open(QString *error)
{
    if (!sink_) {
        *error = QStringLiteral("the capture pipeline has no sink");
        return false;
    }
    if (gst_element_set_state(pipeline_.get(), GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        *error = takeError();
        if (error->isEmpty()) *error = QStringLiteral("the capture device did not open");
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        return false;
    }
    return true;
}

bool GstCaptureSource::startRunning(QString *error)
{
    if (running_.load()) return true;
    if (!sink_ || gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        *error = takeError();
        if (error->isEmpty()) *error = QStringLiteral("the capture did not start");
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        return false;
    }
    running_.store(true);
    queue_ = std::make_unique<SerialQueue>(label_);
    queue_->post([this] { drain(); });
    return true;
}

void GstCaptureSource::stopRunning()
{
    // Order: the flag ends the drain loop within one pull wait; destroying the queue joins
    // its thread, so no handler call is left running; only then the pipeline stops.
    running_.store(false);
    queue_.reset();
    if (pipeline_) gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

void GstCaptureSource::drain()
{
    GstAppSink *sink = GST_APP_SINK(sink_);
    while (running_.load()) {
        GstSamplePtr sample(gst_app_sink_try_pull_sample(sink, kPullWait));
        if (!sample) {
            if (gst_app_sink_is_eos(sink)) break; // the source ended (an error was logged)
            continue;
        }
        const MediaSample wrapped = wrap(sample.get());
        if (wrapped.kind() == MediaSample::Kind::Empty) continue;
        delivered_.fetch_add(1);
        handler_(wrapped);
    }
}

MediaSample GstCaptureSource::wrap(GstSample *sample) const
{
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    GstCaps *caps = gst_sample_get_caps(sample);
    if (!buffer || !caps) return {};
    MediaTime time;
    const GstClockTime running = gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    if (running != GST_CLOCK_TIME_NONE) time = MediaTime::fromNanoseconds(gst_element_get_base_time(pipeline_.get()) + running);
    // Shared, not copied: the encoders read the planes in place.
    GstBufferPtr shared(gst_buffer_ref(buffer));
    if (kind_ == Kind::Video) {
        GstVideoInfo info;
        if (!gst_video_info_from_caps(&info, caps)) return {};
        return MediaSample::rawVideo(std::move(shared), gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info)), GST_VIDEO_INFO_WIDTH(&info),
                                     GST_VIDEO_INFO_HEIGHT(&info), time);
    }
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, caps)) return {};
    return MediaSample::rawAudio(std::move(shared), gst_audio_format_to_string(GST_AUDIO_INFO_FORMAT(&info)), GST_AUDIO_INFO_RATE(&info),
                                 GST_AUDIO_INFO_CHANNELS(&info), time);
}

// On whichever thread posts the message; only records and logs.
GstBusSyncReply GstCaptureSource::onBusMessage(GstBus *, GstMessage *message, gpointer self)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        auto *that = static_cast<GstCaptureSource *>(self);
        const QString text = QString::fromStdString(describeError(message));
        // Before the start the caller reports the failure itself.
        if (that->running_.load()) logLine(lcCapture(), QStringLiteral("%1: capture error: %2").arg(QString::fromStdString(that->label_), text));
        std::lock_guard lock(that->errorMutex_);
        if (that->error_.isEmpty()) that->error_ = text;
    }
    return dropMessage(message);
}

QString GstCaptureSource::takeError()
{
    std::lock_guard lock(errorMutex_);
    return std::exchange(error_, QString());
}

} // namespace velocast::capture
