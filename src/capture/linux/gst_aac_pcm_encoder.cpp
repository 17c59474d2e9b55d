// PCM -> AAC LC on GStreamer:
//   appsrc (the capture's PCM) ! audioconvert ! audioresample ! audio/x-raw,rate=44100,channels=2
//     ! voaacenc|avenc_aac ! audio/mpeg,mpegversion=4,stream-format=raw ! appsink
// Each appsink buffer is exactly one raw access unit of 1024 samples.
#include "capture/aac_pcm_encoder.h"

#include "common/log.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <atomic>

namespace velocast::capture {

namespace {

constexpr const char *kAacEncoders[] = {"voaacenc", "avenc_aac"};
constexpr int kAacBitrate = 128000;

class GstAacPcmEncoder final : public AacPcmEncoder {
public:
    GstAacPcmEncoder(std::string name, std::string format, int rate, int channels, AccessUnitFn fn)
        : name_(std::move(name)), format_(std::move(format)), rate_(rate), channels_(channels), onAccessUnit_(std::move(fn))
    {
    }

    ~GstAacPcmEncoder() override
    {
        if (!pipeline_) return;
        // NULL joins the streaming thread; only then may the bus handler's "this" go away.
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        GstBus *bus = gst_element_get_bus(pipeline_.get());
        gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
        gst_object_unref(bus);
    }

    bool build()
    {
        pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("aac-encoder"))));
        GstElement *src = gst_element_factory_make("appsrc", "src");
        GstElement *convert = gst_element_factory_make("audioconvert", nullptr);
        GstElement *resample = gst_element_factory_make("audioresample", nullptr);
        GstElement *rawCaps = gst_element_factory_make("capsfilter", nullptr);
        GstElement *enc = gst_element_factory_make(name_.c_str(), nullptr);
        GstElement *aacCaps = gst_element_factory_make("capsfilter", nullptr);
        GstElement *sink = gst_element_factory_make("appsink", "sink");
        if (!src || !convert || !resample || !rawCaps || !enc || !aacCaps || !sink) {
            for (GstElement *e : {src, convert, resample, rawCaps, enc, aacCaps, sink})
                if (e) gst_object_unref(gst_object_ref_sink(e));
            return false;
        }
        gst_bin_add_many(GST_BIN(pipeline_.get()), src, convert, resample, rawCaps, enc, aacCaps, sink, nullptr);
        if (!gst_element_link_many(src, convert, resample, rawCaps, enc, aacCaps, sink, nullptr)) return false;

        GstCapsPtr in(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, format_.c_str(), "rate", G_TYPE_INT, rate_,
                                          "channels", G_TYPE_INT, channels_, "layout", G_TYPE_STRING, "interleaved", nullptr));
        g_object_set(src, "caps", in.get(), "format", GST_FORMAT_TIME, "is-live", TRUE, nullptr);
        GstCapsPtr raw(gst_caps_new_simple("audio/x-raw", "rate", G_TYPE_INT, 44100, "channels", G_TYPE_INT, 2, nullptr));
        g_object_set(rawCaps, "caps", raw.get(), nullptr);
        GstCapsPtr aac(gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING, "raw", nullptr));
        g_object_set(aacCaps, "caps", aac.get(), nullptr);
        setIntProperty(enc, "bitrate", kAacBitrate);
        g_object_set(sink, "sync", FALSE, nullptr);

        appsrc_ = src;
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &GstAacPcmEncoder::onNewSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        GstBus *bus = gst_element_get_bus(pipeline_.get());
        gst_bus_set_sync_handler(bus, &GstAacPcmEncoder::onBusMessage, this, nullptr);
        gst_object_unref(bus);
        return gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE && !failed_.load();
    }

    bool accepts(const MediaSample &pcm) const override
    {
        return pcm.kind() == MediaSample::Kind::RawAudio && pcm.format() == format_ && pcm.rate() == rate_
               && pcm.channels() == channels_;
    }

    bool push(const MediaSample &pcm) override
    {
        if (failed_.load() || !pcm.buffer()) return !failed_.load();
        // A shallow copy (the memory is shared) so that our time stamp does not touch the
        // caller's buffer; appsrc takes ownership of it.
        GstBuffer *buffer = gst_buffer_copy(pcm.buffer());
        GST_BUFFER_PTS(buffer) = pcm.presentationTime().toNanoseconds();
        GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
        return gst_app_src_push_buffer(GST_APP_SRC(appsrc_), buffer) == GST_FLOW_OK && !failed_.load();
    }

    const std::string &encoderName() const override { return name_; }

private:
    // Streaming thread: copy out the access unit and return; the callback only posts it.
    static GstFlowReturn onNewSample(GstAppSink *sink, gpointer self)
    {
        auto *that = static_cast<GstAacPcmEncoder *>(self);
        GstSamplePtr sample(gst_app_sink_pull_sample(sink));
        if (!sample) return GST_FLOW_OK;
        GstBuffer *buffer = gst_sample_get_buffer(sample.get());
        MappedBuffer data(buffer);
        if (!data.ok()) return GST_FLOW_OK;
        const GstClockTime pts = gst_segment_to_running_time(gst_sample_get_segment(sample.get()), GST_FORMAT_TIME,
                                                             GST_BUFFER_PTS(buffer));
        that->onAccessUnit_(data.bytes(), pts == GST_CLOCK_TIME_NONE ? MediaTime() : MediaTime::fromNanoseconds(pts));
        return GST_FLOW_OK;
    }

    // Posting thread; only flags and logs.
    static GstBusSyncReply onBusMessage(GstBus *, GstMessage *message, gpointer self)
    {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            static_cast<GstAacPcmEncoder *>(self)->failed_.store(true);
            logLine(lcCapture(), QStringLiteral("AAC encoder error: %1").arg(QString::fromStdString(describeError(message))));
        }
        return dropMessage(message);
    }

    const std::string name_;
    const std::string format_;
    const int rate_;
    const int channels_;
    const AccessUnitFn onAccessUnit_;
    std::atomic<bool> failed_{false};
    GstElement *appsrc_ = nullptr; // owned by the pipeline
    PipelinePtr pipeline_;
};

} // namespace

std::unique_ptr<AacPcmEncoder> makeAacPcmEncoder(const MediaSample &firstPcm, AacPcmEncoder::AccessUnitFn onAccessUnit)
{
    ensureGstreamer();
    if (firstPcm.kind() != MediaSample::Kind::RawAudio || firstPcm.channels() < 1 || firstPcm.channels() > 2
        || firstPcm.rate() < 8000 || firstPcm.rate() > 192000 || firstPcm.format().empty()) {
        logLine(lcCapture(), QStringLiteral("AACEncoder: PCM of %1 Hz, %2 channels, format \"%3\" is not supported")
                                 .arg(firstPcm.rate()).arg(firstPcm.channels()).arg(QString::fromStdString(firstPcm.format())));
        return nullptr;
    }
    for (const char *name : kAacEncoders) {
        if (!elementExists(name)) continue;
        auto encoder = std::make_unique<GstAacPcmEncoder>(name, firstPcm.format(), firstPcm.rate(), firstPcm.channels(), onAccessUnit);
        if (encoder->build()) return encoder;
        logLine(lcCapture(), QStringLiteral("AACEncoder: %1 did not open").arg(name));
    }
    logLine(lcCapture(), QStringLiteral("AACEncoder: no AAC encoder element is usable"));
    return nullptr;
}

} // namespace velocast::capture
