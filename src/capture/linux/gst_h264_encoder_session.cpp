// H.264 encoder sessions on GStreamer. One pipeline per session:
//
//   appsrc (raw pictures, 30/1) ! videoconvertscale ! video/x-raw,width=W,height=H
//     ! ENCODER ! video/x-h264,profile=P ! h264parse
//     ! video/x-h264,stream-format=avc,alignment=au ! appsink
//
// h264parse turns every encoder's output into the same form: one access unit per buffer as
// 4-byte length-prefixed NAL units, with SPS and PPS in the avcC codec_data of the caps.
// videoconvertscale does the output-size scaling and the format conversion some encoders
// need (openh264enc takes I420 only); it passes through when nothing needs changing.
//
// A picture marked as a repeat of the one before does not reach the encoder when the
// encoder's parameter sets allow it (h264_skip_picture.h): a probe on the appsrc's pad,
// on the streaming thread and so in order with the encoder's output, sends a coded picture
// of skipped macroblocks in its place, as long as the encoder holds no picture of its own
// (x264 with zerolatency and one thread hands each picture out before taking the next).
// The encoder's own slices then get the stream's frame_num, and its key frame is forced
// when the stream's count asks for one.
#include "capture/h264_encoder_session.h"

#include "capture/avc_config.h"
#include "capture/h264_skip_picture.h"
#include "common/log.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>

namespace velocast::capture {

namespace {

constexpr const char *kChain[] = {"vah264lpenc", "vah264enc", "vaapih264enc", "nvh264enc", "v4l2h264enc", "x264enc", "openh264enc"};

// How many pictures may wait for the encoder. Beyond that the oldest is dropped: a slow
// encoder must lose frames rather than build up latency in a live cast.
constexpr guint kMaxQueuedPictures = 3;
constexpr auto kFlushTimeout = std::chrono::seconds(3);
// Our mark on a picture's buffer: it repeats the picture handed in before.
constexpr GstBufferFlags kRepeatFlag = GST_BUFFER_FLAG_LAST;

int64_t kbit(int64_t bitrate) { return std::max<int64_t>(1, bitrate / 1000); }

// Sets the fixed properties and keeps the ones the encoder did not take ("name=value"), so
// that an encoder which keeps its own key-frame interval, say, shows in the log.
struct FixedSettings {
    GstElement *encoder;
    std::vector<std::string> notTaken;
    void set(const char *name, int value)
    {
        if (setIntProperty(encoder, name, value) != 0) notTaken.push_back(std::string(name) + '=' + std::to_string(value));
    }
    void set(const char *name, const char *value)
    {
        if (setArgProperty(encoder, name, value) != 0) notTaken.push_back(std::string(name) + '=' + value);
    }
};

// Per-encoder settings. Each gets the same intent: average rate b with a cap of 2b in any
// one-second window, a key frame at least every 30 frames, no B-frames or reordering, the
// lowest-latency mode, and Baseline (Constrained Baseline where that is all it offers).
// Only the x264enc and openh264enc rows could be run on the development machines; the
// hardware rows follow the elements' documented properties.
struct EncoderProfile {
    std::string_view name;
    bool hardware;
    const char *capsProfile;
    // The rate-control mode and the cap's buffer, set once when the session is built;
    // returns the sum of the property statuses.
    int (*applyRateMode)(GstElement *encoder, int64_t bitrate);
    // The rate itself (and what scales with it); also used for live changes. Returns the
    // sum of the property statuses.
    int (*applyRate)(GstElement *encoder, int64_t bitrate);
    // Key-frame interval, latency, B-frames, output form.
    void (*applyFixed)(FixedSettings &encoder);
    // The properties applyRate touches; the rate changes live only when all are mutable
    // while PLAYING.
    std::initializer_list<const char *> rateProperties;
    // The property claims to be mutable but the encoder ignores a change while running.
    bool liveRateBroken;
};

const EncoderProfile kProfiles[] = {
    {"vah264lpenc", true, "constrained-baseline",
     [](GstElement *e, int64_t) { return setArgProperty(e, "rate-control", "cbr"); },
     [](GstElement *e, int64_t b) { return setIntProperty(e, "bitrate", kbit(b)) + setIntProperty(e, "cpb-size", kbit(b)); },
     [](FixedSettings &e) { e.set("key-int-max", 30); e.set("b-frames", 0); e.set("target-usage", 7); },
     {"bitrate", "cpb-size"}, false},
    {"vah264enc", true, "constrained-baseline",
     [](GstElement *e, int64_t) { return setArgProperty(e, "rate-control", "cbr"); },
     [](GstElement *e, int64_t b) { return setIntProperty(e, "bitrate", kbit(b)) + setIntProperty(e, "cpb-size", kbit(b)); },
     [](FixedSettings &e) { e.set("key-int-max", 30); e.set("b-frames", 0); e.set("target-usage", 7); },
     {"bitrate", "cpb-size"}, false},
    {"vaapih264enc", true, "constrained-baseline",
     // A 1000 ms coded picture buffer: at most rate x 1 s + buffer = 2b in any second.
     [](GstElement *e, int64_t) { return setArgProperty(e, "rate-control", "cbr") + setIntProperty(e, "cpb-length", 1000); },
     [](GstElement *e, int64_t b) { return setIntProperty(e, "bitrate", kbit(b)); },
     [](FixedSettings &e) { e.set("keyframe-period", 30); e.set("max-bframes", 0); e.set("tune", "low-power"); },
     {"bitrate"}, false},
    {"nvh264enc", true, "baseline",
     [](GstElement *e, int64_t) { return setArgProperty(e, "rc-mode", "cbr"); },
     [](GstElement *e, int64_t b) {
         return setIntProperty(e, "bitrate", kbit(b)) + setIntProperty(e, "max-bitrate", kbit(2 * b)) + setIntProperty(e, "vbv-buffer-size", kbit(b));
     },
     [](FixedSettings &e) {
         e.set("gop-size", 30);
         e.set("preset", "low-latency-hp");
         e.set("zerolatency", "true");
         e.set("bframes", 0);
         e.set("rc-lookahead", 0);
     },
     {"bitrate", "max-bitrate", "vbv-buffer-size"}, false},
    {"v4l2h264enc", true, "constrained-baseline",
     [](GstElement *, int64_t) { return 0; },
     [](GstElement *e, int64_t b) {
         // V4L2 controls: bitrate mode 1 is CBR.
         const std::string controls = "controls,video_bitrate_mode=1,video_bitrate=" + std::to_string(b)
                                      + ",video_gop_size=30,h264_i_frame_period=30,video_b_frames=0";
         return setArgProperty(e, "extra-controls", controls.c_str());
     },
     [](FixedSettings &) {}, {"extra-controls"}, false},
    {"x264enc", false, "baseline",
     // pass=cbr makes x264 set vbv-maxrate = bitrate; a 1000 ms VBV buffer then bounds any
     // one-second window by rate x 1 s + buffer = 2b. (An option-string vbv-maxrate would
     // be overridden by the pass setting.)
     [](GstElement *e, int64_t) { return setArgProperty(e, "pass", "cbr") + setIntProperty(e, "vbv-buf-capacity", 1000); },
     [](GstElement *e, int64_t b) { return setIntProperty(e, "bitrate", kbit(b)); },
     [](FixedSettings &e) {
         e.set("speed-preset", "ultrafast");
         e.set("tune", "zerolatency");
         // One thread, so one slice per picture, as a hardware encoder gives. On two cores
         // the sliced threads of zerolatency cut the per-picture time a little but cost
         // about 15 % more CPU in thread hand-offs, and leave no core to capture.
         e.set("threads", 1);
         e.set("key-int-max", 30);
         e.set("bframes", 0);
         // SPS and PPS only in codec_data, no access unit delimiters: the packetiser puts
         // the parameter sets in front of key frames itself.
         e.set("aud", "false");
         e.set("option-string", "repeat-headers=0");
     },
     {"bitrate"}, false},
    {"openh264enc", false, "constrained-baseline",
     [](GstElement *e, int64_t) { return setArgProperty(e, "rate-control", "bitrate"); },
     // openh264 does not enforce max-bitrate; it is set for what it is worth.
     [](GstElement *e, int64_t b) { return setIntProperty(e, "bitrate", b) + setIntProperty(e, "max-bitrate", 2 * b); },
     [](FixedSettings &e) { e.set("gop-size", 30); e.set("usage-type", "camera"); e.set("complexity", "low"); },
     // Its "bitrate" is flagged mutable, but a change while running fails inside openh264
     // and the old rate stays; a new session is the only way.
     {"bitrate"}, true},
};

const EncoderProfile *findProfile(std::string_view name)
{
    for (const EncoderProfile &p : kProfiles)
        if (p.name == name) return &p;
    return nullptr;
}

class GstH264EncoderSession final : public H264EncoderSession {
public:
    GstH264EncoderSession(const EncoderProfile &profile, H264EncoderSettings settings, OutputFn onOutput, ErrorFn onError)
        : profile_(profile), name_(profile.name), settings_(std::move(settings)), onOutput_(std::move(onOutput)), onError_(std::move(onError)),
          skip_(settings_.maxKeyFrameInterval)
    {
    }

    ~GstH264EncoderSession() override
    {
        if (pipeline_) {
            // NULL joins the streaming threads; only then may the callbacks' "this" go away.
            gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
            GstBus *bus = gst_element_get_bus(pipeline_.get());
            gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
            gst_object_unref(bus);
        }
        if (encoderSink_) gst_object_unref(encoderSink_);
    }

    bool build(H264EncoderSetupStatus &status)
    {
        pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("h264-encoder"))));
        GstElement *src = gst_element_factory_make("appsrc", "src");
        GstElement *scale = gst_element_factory_make("videoconvertscale", nullptr);
        GstElement *sizeCaps = gst_element_factory_make("capsfilter", nullptr);
        GstElement *enc = gst_element_factory_make(name_.c_str(), "encoder");
        GstElement *profileCaps = gst_element_factory_make("capsfilter", nullptr);
        GstElement *parse = gst_element_factory_make("h264parse", nullptr);
        GstElement *avcCaps = gst_element_factory_make("capsfilter", nullptr);
        GstElement *sink = gst_element_factory_make("appsink", "sink");
        GstElement *all[] = {src, scale, sizeCaps, enc, profileCaps, parse, avcCaps, sink};
        for (GstElement *e : all) {
            if (e) continue;
            for (GstElement *made : all)
                if (made) gst_object_unref(gst_object_ref_sink(made));
            status.start = -1;
            return false;
        }
        gst_bin_add_many(GST_BIN(pipeline_.get()), src, scale, sizeCaps, enc, profileCaps, parse, avcCaps, sink, nullptr);
        if (!gst_element_link_many(src, scale, sizeCaps, enc, profileCaps, parse, avcCaps, sink, nullptr)) {
            status.start = -1;
            return false;
        }

        // The expected frame rate goes in the caps: rate control takes it from there.
        GstCapsPtr in(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, settings_.inputFormat.c_str(), "width", G_TYPE_INT,
                                          settings_.inputWidth, "height", G_TYPE_INT, settings_.inputHeight, "framerate",
                                          GST_TYPE_FRACTION, settings_.expectedFrameRate, 1, "pixel-aspect-ratio", GST_TYPE_FRACTION,
                                          1, 1, nullptr));
        // The screen capture converts with the BT.709 matrix into video range; said so here,
        // the encoder writes it into the stream's VUI for every picture size.
        if (settings_.inputFormat == "NV12")
            gst_caps_set_simple(in.get(), "colorimetry", G_TYPE_STRING, "bt709", nullptr);
        g_object_set(src, "caps", in.get(), "format", GST_FORMAT_TIME, "is-live", TRUE, "max-buffers", guint64(kMaxQueuedPictures),
                     "block", FALSE, nullptr);
        setArgProperty(src, "leaky-type", "downstream");
        status.frameRate = 0;
        // Square pixels at the output size: a picture of another shape is letterboxed, not
        // stretched.
        GstCapsPtr size(gst_caps_new_simple("video/x-raw", "width", G_TYPE_INT, settings_.width, "height", G_TYPE_INT, settings_.height,
                                            "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr));
        g_object_set(sizeCaps, "caps", size.get(), nullptr);
        GstCapsPtr prof(gst_caps_new_simple("video/x-h264", "profile", G_TYPE_STRING, profile_.capsProfile, nullptr));
        g_object_set(profileCaps, "caps", prof.get(), nullptr);
        GstCapsPtr avc(gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "avc", "alignment", G_TYPE_STRING, "au", nullptr));
        g_object_set(avcCaps, "caps", avc.get(), nullptr);

        status.bitrate = profile_.applyRateMode(enc, settings_.bitrate) + profile_.applyRate(enc, settings_.bitrate);
        FixedSettings fixed{enc, {}};
        profile_.applyFixed(fixed);
        for (const std::string &setting : fixed.notTaken)
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 did not take %2").arg(QString::fromStdString(name_), QString::fromStdString(setting)));
        if (status.bitrate != 0)
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 did not take all of its rate settings").arg(QString::fromStdString(name_)));
        liveRate_ = !profile_.liveRateBroken;
        for (const char *p : profile_.rateProperties) liveRate_ = liveRate_ && isMutableWhilePlaying(enc, p);

        g_object_set(sink, "sync", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &GstH264EncoderSession::onNewSample;
        callbacks.eos = &GstH264EncoderSession::onEos;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        GstBus *bus = gst_element_get_bus(pipeline_.get());
        gst_bus_set_sync_handler(bus, &GstH264EncoderSession::onBusMessage, this, nullptr);
        gst_object_unref(bus);

        appsrc_ = src;
        encoder_ = enc;
        GstPad *srcPad = gst_element_get_static_pad(src, "src");
        gst_pad_add_probe(srcPad, GST_PAD_PROBE_TYPE_BUFFER, &GstH264EncoderSession::onPicture, this, nullptr);
        gst_object_unref(srcPad);
        encoderSink_ = gst_element_get_static_pad(enc, "sink");
        const bool started = gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE && !failed_.load();
        status.start = started ? 0 : -1;
        return started;
    }

    const std::string &encoderName() const override { return name_; }
    bool isHardware() const override { return profile_.hardware; }
    bool producedOutput() const override { return produced_.load(); }

    EncodeResult encodeFrame(const MediaSample &picture) override
    {
        if (failed_.load()) return EncodeResult::Failed;
        if (picture.kind() != MediaSample::Kind::RawVideo || !picture.buffer() || picture.format() != settings_.inputFormat
            || picture.width() != settings_.inputWidth || picture.height() != settings_.inputHeight)
            return EncodeResult::NeedsNewSession;
        // A shallow copy: the planes are shared, only our time stamp is new.
        GstBuffer *buffer = gst_buffer_copy(picture.buffer());
        if (picture.isRepeat())
            GST_BUFFER_FLAG_SET(buffer, kRepeatFlag);
        else
            GST_BUFFER_FLAG_UNSET(buffer, kRepeatFlag);
        GST_BUFFER_PTS(buffer) = nextTimestamp(picture.presentationTime().toNanoseconds());
        GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
        GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
        // appsrc takes ownership of the buffer.
        if (gst_app_src_push_buffer(GST_APP_SRC(appsrc_), buffer) != GST_FLOW_OK) return EncodeResult::Failed;
        return EncodeResult::Queued;
    }

    bool setBitrate(int64_t bitrate) override
    {
        if (!liveRate_) return false;
        profile_.applyRate(encoder_, bitrate);
        return true;
    }

    void completeFrames() override
    {
        if (failed_.load()) return;
        gst_app_src_end_of_stream(GST_APP_SRC(appsrc_));
        std::unique_lock lock(mutex_);
        if (!flushed_.wait_for(lock, kFlushTimeout, [this] { return eos_ || failed_.load(); }))
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 did not finish its frames in time").arg(QString::fromStdString(name_)));
        if (skipped_.load() > 0)
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 skipped pictures sent in place of unchanged ones").arg(skipped_.load()));
    }

    uint64_t skippedPictures() const override { return skipped_.load(); }

private:
    // Timestamps must rise strictly for the encoder's rate control; a missing or repeated
    // one is replaced by the previous plus one frame time.
    GstClockTime nextTimestamp(GstClockTime pts)
    {
        const GstClockTime frame = GST_SECOND / GstClockTime(std::max(1, settings_.expectedFrameRate));
        if (pts == GST_CLOCK_TIME_NONE || (lastPts_ != GST_CLOCK_TIME_NONE && pts <= lastPts_))
            pts = lastPts_ == GST_CLOCK_TIME_NONE ? 0 : lastPts_ + frame;
        lastPts_ = pts;
        return pts;
    }

    // Streaming thread. Wraps the access unit without copying it and hands it on.
    static GstFlowReturn onNewSample(GstAppSink *sink, gpointer self)
    {
        auto *that = static_cast<GstH264EncoderSession *>(self);
        GstSamplePtr sample(gst_app_sink_pull_sample(sink));
        if (!sample) return GST_FLOW_OK;
        GstBuffer *buffer = gst_sample_get_buffer(sample.get());
        if (!buffer) return GST_FLOW_OK;
        that->updateParameterSets(gst_sample_get_caps(sample.get()));
        // Encoders move their timestamps (x264enc by 1000 h) along with the segment; the
        // running time is the time that went in.
        const GstClockTime pts = gst_segment_to_running_time(gst_sample_get_segment(sample.get()), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        const bool sync = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        ++that->fromEncoder_;
        GstBufferPtr out(gst_buffer_ref(buffer));
        if (that->skip_.enabled()) {
            // The stream's frame_num, when skipped pictures went out since the key frame.
            std::vector<uint8_t> renumbered;
            {
                MappedBuffer bytes(buffer);
                if (bytes.ok()) renumbered = that->skip_.takeEncoderPicture(bytes.bytes(), sync);
            }
            if (!renumbered.empty()) out.reset(wrapBytes(std::move(renumbered), buffer));
        }
        // Shared, not copied: the packetiser leaves out the SPS and PPS (and access unit
        // delimiters) that byte-stream encoders repeat inside their frames.
        const MediaSample compressed = MediaSample::h264(std::move(out),
                                                         pts == GST_CLOCK_TIME_NONE ? MediaTime() : MediaTime::fromNanoseconds(pts),
                                                         sync, that->parameterSets_);
        that->produced_.store(true);
        that->onOutput_(&compressed);
        return GST_FLOW_OK;
    }

    // Streaming thread. Re-reads SPS and PPS only when the caps object changed.
    void updateParameterSets(GstCaps *caps)
    {
        if (!caps || caps == lastCaps_.get()) return;
        // Held so that its address cannot be reused by other caps while we compare against it.
        lastCaps_.reset(gst_caps_ref(caps));
        parameterSets_.reset();
        const GValue *cd = gst_structure_get_value(gst_caps_get_structure(caps, 0), "codec_data");
        if (!cd || !GST_VALUE_HOLDS_BUFFER(cd)) return;
        MappedBuffer record(gst_value_get_buffer(cd));
        const auto config = parseAvcDecoderConfig(record.bytes());
        if (!config || config->nalLengthSize != 4 || config->sps.empty() || config->pps.empty()) {
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: unusable codec_data from %1; key frames go out without SPS/PPS")
                                     .arg(QString::fromStdString(name_)));
            return;
        }
        parameterSets_ = std::make_shared<const std::vector<ByteVector>>(std::vector<ByteVector>{config->sps.front(), config->pps.front()});
        std::string reason;
        if (!skip_.setParameterSets(config->sps.front(), config->pps.front(), &reason) && !skipRefusalLogged_) {
            skipRefusalLogged_ = true;
            logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 encodes unchanged pictures too (its stream allows no skipped pictures: %2)")
                                     .arg(QString::fromStdString(name_), QString::fromStdString(reason)));
        }
    }

    // A new buffer holding bytes, with the time stamps and flags of like.
    static GstBuffer *wrapBytes(std::vector<uint8_t> bytes, GstBuffer *like)
    {
        auto *held = new std::vector<uint8_t>(std::move(bytes));
        GstBuffer *b = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, held->data(), held->size(), 0, held->size(), held,
                                                   [](gpointer p) { delete static_cast<std::vector<uint8_t> *>(p); });
        if (like) gst_buffer_copy_into(b, like, GstBufferCopyFlags(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0, -1);
        return b;
    }

    // Streaming thread, for every picture on its way to the encoder.
    static GstPadProbeReturn onPicture(GstPad *pad, GstPadProbeInfo *info, gpointer self)
    {
        auto *that = static_cast<GstH264EncoderSession *>(self);
        GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        if (!buffer) return GST_PAD_PROBE_OK;
        // A repeat by the pacer's word, and provably: the same memory as the picture before,
        // which cannot have been written since because the held buffer keeps it locked.
        GstMemory *memory = gst_buffer_n_memory(buffer) > 0 ? gst_buffer_peek_memory(buffer, 0) : nullptr;
        const bool sameMemory = memory && that->lastPicture_ && gst_buffer_n_memory(that->lastPicture_.get()) > 0
                                && gst_buffer_peek_memory(that->lastPicture_.get(), 0) == memory;
        const bool repeat = sameMemory && GST_BUFFER_FLAG_IS_SET(buffer, kRepeatFlag);
        that->lastPicture_.reset(gst_buffer_ref(buffer));
        SkipPictureStream &skip = that->skip_;
        if (repeat && skip.canInject() && that->toEncoder_ == that->fromEncoder_ && that->parameterSets_) {
            GstClockTime pts = GST_BUFFER_PTS(buffer);
            if (GstEvent *event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0)) {
                const GstSegment *segment = nullptr;
                gst_event_parse_segment(event, &segment);
                if (segment && segment->format == GST_FORMAT_TIME) pts = gst_segment_to_running_time(segment, GST_FORMAT_TIME, pts);
                gst_event_unref(event);
            }
            GstBufferPtr coded(wrapBytes(skip.nextSkipPicture(), nullptr));
            GST_BUFFER_PTS(coded.get()) = pts;
            GST_BUFFER_FLAG_SET(coded.get(), GST_BUFFER_FLAG_DELTA_UNIT);
            const MediaSample compressed = MediaSample::h264(std::move(coded), pts == GST_CLOCK_TIME_NONE ? MediaTime() : MediaTime::fromNanoseconds(pts),
                                                             false, that->parameterSets_);
            that->skipped_.fetch_add(1);
            that->onOutput_(&compressed);
            return GST_PAD_PROBE_DROP;
        }
        if (skip.mustForceKeyFrame() && that->encoderSink_) {
            gst_pad_send_event(that->encoderSink_,
                               gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, FALSE, 0));
        }
        ++that->toEncoder_;
        return GST_PAD_PROBE_OK;
    }

    static void onEos(GstAppSink *, gpointer self)
    {
        auto *that = static_cast<GstH264EncoderSession *>(self);
        {
            std::lock_guard lock(that->mutex_);
            that->eos_ = true;
        }
        that->flushed_.notify_all();
    }

    // Runs on the thread that posted the message; flags, reports and returns.
    static GstBusSyncReply onBusMessage(GstBus *, GstMessage *message, gpointer self)
    {
        if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return dropMessage(message);
        auto *that = static_cast<GstH264EncoderSession *>(self);
        {
            std::lock_guard lock(that->mutex_);
            that->failed_.store(true);
        }
        that->flushed_.notify_all();
        if (that->onError_) that->onError_(describeError(message));
        return dropMessage(message);
    }

    const EncoderProfile &profile_;
    const std::string name_;
    const H264EncoderSettings settings_;
    const OutputFn onOutput_;
    const ErrorFn onError_;
    bool liveRate_ = false;
    GstClockTime lastPts_ = GST_CLOCK_TIME_NONE; // encodeFrame's thread only
    // Streaming thread only.
    GstCapsPtr lastCaps_;
    std::shared_ptr<const std::vector<ByteVector>> parameterSets_; // one copy for all frames until the caps change
    SkipPictureStream skip_;
    bool skipRefusalLogged_ = false;
    GstBufferPtr lastPicture_;  // the last picture seen on its way in
    uint64_t toEncoder_ = 0;    // pictures that went on to the encoder
    uint64_t fromEncoder_ = 0;  // access units that came out of it
    std::atomic<uint64_t> skipped_{0};
    GstPad *encoderSink_ = nullptr; // one reference
    std::atomic<bool> produced_{false};
    std::atomic<bool> failed_{false};
    std::mutex mutex_;
    std::condition_variable flushed_;
    bool eos_ = false;
    GstElement *appsrc_ = nullptr;  // owned by the pipeline
    GstElement *encoder_ = nullptr; // owned by the pipeline
    PipelinePtr pipeline_;
};

} // namespace

std::span<const char *const> h264EncoderChain() { return kChain; }

std::unique_ptr<H264EncoderSession> makeH264EncoderSession(const std::string &encoderName, const H264EncoderSettings &settings,
                                                          H264EncoderSession::OutputFn onOutput, H264EncoderSession::ErrorFn onError,
                                                          H264EncoderSetupStatus *status)
{
    ensureGstreamer();
    H264EncoderSetupStatus local;
    H264EncoderSetupStatus &st = status ? *status : local;
    st = {};
    const EncoderProfile *profile = findProfile(encoderName);
    if (!profile || !elementExists(encoderName.c_str())) {
        st.start = -1;
        return nullptr;
    }
    auto session = std::make_unique<GstH264EncoderSession>(*profile, settings, std::move(onOutput), std::move(onError));
    if (!session->build(st)) return nullptr;
    return session;
}

} // namespace velocast::capture
