#include "push/bridge/h264_hw_decoder.h"

#include "capture/avc_config.h"
#include "push/bridge/h264_frame_scan.h"
#include "common/log.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

namespace velocast::push {

using capture::GstCapsPtr;
using capture::GstSamplePtr;
using capture::MediaSample;
using capture::MediaTime;
using capture::PipelinePtr;

const char *const H264HWDecoder::kNaluTypesStrings[32] = {
    "0: Unspecified (non-VCL)",
    "1: Coded slice of a non-IDR picture (VCL)",
    "2: Coded slice data partition A (VCL)",
    "3: Coded slice data partition B (VCL)",
    "4: Coded slice data partition C (VCL)",
    "5: Coded slice of an IDR picture (VCL)",
    "6: Supplemental enhancement information (SEI) (non-VCL)",
    "7: Sequence parameter set (non-VCL)",
    "8: Picture parameter set (non-VCL)",
    "9: Access unit delimiter (non-VCL)",
    "10: End of sequence (non-VCL)",
    "11: End of stream (non-VCL)",
    "12: Filler data (non-VCL)",
    "13: Sequence parameter set extension (non-VCL)",
    "14: Prefix NAL unit (non-VCL)",
    "15: Subset sequence parameter set (non-VCL)",
    "16: Reserved (non-VCL)",
    "17: Reserved (non-VCL)",
    "18: Reserved (non-VCL)",
    "19: Coded slice of an auxiliary coded picture without partitioning (non-VCL)",
    "20: Coded slice extension (non-VCL)",
    "21: Coded slice extension for depth view components (non-VCL)",
    "22: Reserved (non-VCL)",
    "23: Reserved (non-VCL)",
    "24: STAP-A Single-time aggregation packet (non-VCL)",
    "25: STAP-B Single-time aggregation packet (non-VCL)",
    "26: MTAP16 Multi-time aggregation packet (non-VCL)",
    "27: MTAP24 Multi-time aggregation packet (non-VCL)",
    "28: FU-A Fragmentation unit (non-VCL)",
    "29: FU-B Fragmentation unit (non-VCL)",
    "30: Unspecified (non-VCL)",
    "31: Unspecified (non-VCL)",
};

namespace {

constexpr const char *kDecoderChain[] = {"vah264dec", "vaapih264dec", "nvh264dec", "v4l2slh264dec", "avdec_h264", "openh264dec"};

constexpr int kNalSps = 7;
constexpr int kNalPps = 8;

GstCapsPtr avcCaps(const std::vector<uint8_t> &sps, const std::vector<uint8_t> &pps)
{
    const std::vector<uint8_t> record = capture::buildAvcDecoderConfig(sps, pps);
    capture::GstBufferPtr codecData = capture::bufferFromBytes(record);
    return GstCapsPtr(gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "avc", "alignment", G_TYPE_STRING, "au",
                                          "codec_data", GST_TYPE_BUFFER, codecData.get(), nullptr));
}

} // namespace

// One decoding pipeline: appsrc ! h264parse ! DECODER ! videoconvert ! NV12 ! appsink.
struct H264HWDecoder::Session {
    explicit Session(H264HWDecoder *owner) : owner(owner) { }

    ~Session()
    {
        if (!pipeline) return;
        // NULL joins the streaming threads; only then may the callbacks' "this" go away.
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        GstBus *bus = gst_element_get_bus(pipeline.get());
        gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
        gst_object_unref(bus);
    }

    bool build(const std::string &decoder, GstCaps *caps)
    {
        pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("h264-decoder"))));
        GstElement *src = gst_element_factory_make("appsrc", "src");
        GstElement *parse = gst_element_factory_make("h264parse", nullptr);
        GstElement *dec = gst_element_factory_make(decoder.c_str(), nullptr);
        GstElement *convert = gst_element_factory_make("videoconvert", nullptr);
        GstElement *nv12 = gst_element_factory_make("capsfilter", nullptr);
        GstElement *sink = gst_element_factory_make("appsink", "sink");
        GstElement *all[] = {src, parse, dec, convert, nv12, sink};
        for (GstElement *e : all) {
            if (e) continue;
            for (GstElement *made : all)
                if (made) gst_object_unref(gst_object_ref_sink(made));
            return false;
        }
        gst_bin_add_many(GST_BIN(pipeline.get()), src, parse, dec, convert, nv12, sink, nullptr);
        if (!gst_element_link_many(src, parse, dec, convert, nv12, sink, nullptr)) return false;
        g_object_set(src, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
        // Frame threading holds pictures back by a frame per thread; slice threading hands
        // each one out as soon as it is decoded (avdec_h264 has the switch).
        capture::setArgProperty(dec, "thread-type", "slice");
        GstCapsPtr raw(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "NV12", nullptr));
        g_object_set(nv12, "caps", raw.get(), nullptr);
        g_object_set(sink, "sync", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &Session::onNewSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        GstBus *bus = gst_element_get_bus(pipeline.get());
        gst_bus_set_sync_handler(bus, &Session::onBusMessage, this, nullptr);
        gst_object_unref(bus);
        appsrc = src;
        name = decoder;
        return gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }

    // Streaming thread: hands the picture (a new reference, no copy) to the delegate.
    static GstFlowReturn onNewSample(GstAppSink *sink, gpointer self)
    {
        auto *that = static_cast<Session *>(self);
        GstSamplePtr sample(gst_app_sink_pull_sample(sink));
        if (!sample) return GST_FLOW_OK;
        GstBuffer *buffer = gst_sample_get_buffer(sample.get());
        GstVideoInfo info;
        if (!buffer || !gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get()))) return GST_FLOW_OK;
        H264HWDecoderDelegate *delegate = that->owner->_delegate.load();
        if (!delegate) return GST_FLOW_OK;
        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        delegate->displayDecodedFrame(MediaSample::rawVideo(capture::GstBufferPtr(gst_buffer_ref(buffer)), "NV12", GST_VIDEO_INFO_WIDTH(&info),
                                                            GST_VIDEO_INFO_HEIGHT(&info),
                                                            pts == GST_CLOCK_TIME_NONE ? MediaTime() : MediaTime::fromNanoseconds(pts)));
        return GST_FLOW_OK;
    }

    static GstBusSyncReply onBusMessage(GstBus *, GstMessage *message, gpointer)
    {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
            logLine(lcCapture(), QStringLiteral("Decompressed error: %1").arg(QString::fromStdString(capture::describeError(message))));
        return capture::dropMessage(message);
    }

    H264HWDecoder *const owner;
    std::string name;
    GstElement *appsrc = nullptr; // owned by the pipeline
    GstClockTime started = gst_util_get_timestamp();
    PipelinePtr pipeline;
};

H264HWDecoder::H264HWDecoder()
{
    capture::ensureGstreamer();
    for (const char *name : kDecoderChain) chain_.emplace_back(name);
}

H264HWDecoder::~H264HWDecoder() = default;

std::string H264HWDecoder::decoderName() const
{
    std::lock_guard lock(nameMutex_);
    return decoderName_;
}

bool H264HWDecoder::setFormatDescription(std::vector<uint8_t> sps, std::vector<uint8_t> pps)
{
    // The least a decoder needs: an SPS with its profile and level bytes and a PPS, each
    // with the right NAL type.
    if (sps.size() < 4 || (sps[0] & 0x1F) != kNalSps || pps.empty() || (pps[0] & 0x1F) != kNalPps) {
        logLine(lcCapture(), QStringLiteral("H264HWDecoder: SPS (%1 bytes) or PPS (%2 bytes) unusable; frame skipped").arg(sps.size()).arg(pps.size()));
        return false;
    }
    const bool changed = sps != _formatSps || pps != _formatPps;
    _formatSps = std::move(sps);
    _formatPps = std::move(pps);
    // A running session follows the new parameter sets through new caps.
    if (changed && _decompressionSession) {
        GstCapsPtr caps = avcCaps(_formatSps, _formatPps);
        gst_app_src_set_caps(GST_APP_SRC(_decompressionSession->appsrc), caps.get());
    }
    return true;
}

void H264HWDecoder::receivedRawVideoFrame(const uint8_t *frame, uint32_t frameSize, bool)
{
    if (!frame) frameSize = 0;
    const H264FrameScan scan = scanH264Frame({frame, frameSize}, _spsSize, _ppsSize, hasFormatDesc());
    _spsSize = scan.spsSize;
    _ppsSize = scan.ppsSize;
    using Verdict = H264FrameScan::Verdict;
    switch (scan.verdict) {
    case Verdict::TooShort:
        logLine(lcCapture(), QStringLiteral("H264HWDecoder: frame of %1 bytes dropped").arg(frameSize));
        return;
    case Verdict::BeforeFirstSps:
        return; // nothing to decode with before the first SPS
    case Verdict::SetsDoNotFit:
        logLine(lcCapture(), QStringLiteral("H264HWDecoder: parameter sets (%1 + %2 bytes) do not fit a %3-byte frame; dropped")
                                 .arg(_spsSize).arg(_ppsSize).arg(frameSize));
        return;
    default:
        break;
    }
    if (scan.hasParameterSets() &&
        !setFormatDescription(std::vector<uint8_t>(scan.sps.begin(), scan.sps.end()), std::vector<uint8_t>(scan.pps.begin(), scan.pps.end())))
        return;
    if (!_decompressionSession) createDecompSession();

    if (scan.verdict == Verdict::NotASlice) return;
    const uint64_t offset = scan.sliceOffset;
    if (scan.verdict == Verdict::SliceDoesNotFit) {
        logLine(lcCapture(), QStringLiteral("H264HWDecoder: slice at offset %1 does not fit a %2-byte frame; dropped").arg(offset).arg(frameSize));
        return;
    }
    // The sample: the first start code becomes the big-endian length of what follows it.
    // Later NAL units of the same frame keep their start codes.
    std::vector<uint8_t> sample(frame + offset, frame + frameSize);
    const auto length = uint32_t(sample.size() - 4);
    sample[0] = uint8_t(length >> 24);
    sample[1] = uint8_t(length >> 16);
    sample[2] = uint8_t(length >> 8);
    sample[3] = uint8_t(length);
    render(std::move(sample));
}

void H264HWDecoder::createDecompSession()
{
    _decompressionSession.reset();
    if (!hasFormatDesc()) {
        logLine(lcCapture(), QStringLiteral("\t\t VTD ERROR type: %1").arg(-1));
        return;
    }
    GstCapsPtr caps = avcCaps(_formatSps, _formatPps);
    for (const std::string &name : chain_) {
        if (!capture::elementExists(name.c_str())) continue;
        auto session = std::make_unique<Session>(this);
        if (!session->build(name, caps.get())) continue;
        _decompressionSession = std::move(session);
        logLine(lcCapture(), QStringLiteral("H.264 decoder: %1").arg(QString::fromStdString(name)));
        std::lock_guard lock(nameMutex_);
        decoderName_ = name;
        return;
    }
    logLine(lcCapture(), QStringLiteral("\t\t VTD ERROR type: %1").arg(-1));
}

void H264HWDecoder::render(std::vector<uint8_t> sample)
{
    lastSample_ = sample;
    if (!_decompressionSession) return;
    capture::GstBufferPtr buffer = capture::bufferFromBytes(sample);
    // The time of submission stands in for a presentation time; nothing here needs more.
    GST_BUFFER_PTS(buffer.get()) = gst_util_get_timestamp() - _decompressionSession->started;
    // appsrc takes ownership of the buffer.
    gst_app_src_push_buffer(GST_APP_SRC(_decompressionSession->appsrc), buffer.release());
}

} // namespace velocast::push
