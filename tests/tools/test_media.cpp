#include "test_media.h"

#include "push/media_wire_format.h"

#include <QString>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <memory>

namespace wire = velocast::wire;

namespace {

struct PipelineDeleter {
    void operator()(GstElement *p) const
    {
        gst_element_set_state(p, GST_STATE_NULL);
        gst_object_unref(p);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, PipelineDeleter>;

// Pulls every sample of an appsink named "out" until end of stream.
template <typename F>
bool pullAll(const char *description, F &&onSample)
{
    static const bool initialised = [] {
        gst_init(nullptr, nullptr);
        return true;
    }();
    (void)initialised;
    GError *error = nullptr;
    PipelinePtr pipeline(gst_parse_launch(description, &error));
    if (!pipeline || error) {
        if (error) g_error_free(error);
        return false;
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline.get()), "out");
    if (!sink) return false;
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    bool ok = true;
    while (GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(sink))) {
        ok = onSample(sample) && ok;
        gst_sample_unref(sample);
    }
    gst_object_unref(sink);
    return ok;
}

} // namespace

// avcC (codec_data) -> SPS and PPS; each AVCC sample (4-byte lengths) -> Annex-B.
EncodedVideo encodeVideo(int frames, int width, int height)
{
    EncodedVideo v;
    const QByteArray desc = QStringLiteral(
        "videotestsrc num-buffers=%1 pattern=ball ! video/x-raw,width=%2,height=%3,framerate=30/1 ! "
        "x264enc speed-preset=ultrafast tune=zerolatency key-int-max=10 bframes=0 threads=1 aud=false "
        "option-string=repeat-headers=0 ! video/x-h264,profile=baseline,stream-format=avc,alignment=au ! "
        "appsink name=out sync=false").arg(frames).arg(width).arg(height).toUtf8();
    const QByteArray start = QByteArray::fromHex("00000001");
    QByteArray sps, pps;
    pullAll(desc.constData(), [&](GstSample *sample) {
        if (sps.isEmpty()) {
            const GValue *cd = gst_structure_get_value(gst_caps_get_structure(gst_sample_get_caps(sample), 0), "codec_data");
            if (!cd) return false;
            GstBuffer *b = gst_value_get_buffer(cd);
            GstMapInfo m;
            gst_buffer_map(b, &m, GST_MAP_READ);
            const QByteArray avcc(reinterpret_cast<const char *>(m.data), qsizetype(m.size));
            gst_buffer_unmap(b, &m);
            // [5]&0x1f SPS count, u16 length, SPS, PPS count, u16 length, PPS
            if (avcc.size() < 8) return false;
            const int spsLen = (uchar(avcc[6]) << 8) | uchar(avcc[7]);
            sps = avcc.mid(8, spsLen);
            const qsizetype p = 8 + spsLen + 1;
            if (avcc.size() < p + 2) return false;
            pps = avcc.mid(p + 2, (uchar(avcc[p]) << 8) | uchar(avcc[p + 1]));
        }
        GstBuffer *b = gst_sample_get_buffer(sample);
        const bool key = !GST_BUFFER_FLAG_IS_SET(b, GST_BUFFER_FLAG_DELTA_UNIT);
        GstMapInfo m;
        gst_buffer_map(b, &m, GST_MAP_READ);
        QByteArray au = key ? start + sps + start + pps : QByteArray();
        for (gsize off = 0; off + 4 <= m.size;) {
            const gsize len = (gsize(m.data[off]) << 24) | (m.data[off + 1] << 16) | (m.data[off + 2] << 8) | m.data[off + 3];
            if (off + 4 + len > m.size) break;
            au += start + QByteArray(reinterpret_cast<const char *>(m.data + off + 4), qsizetype(len));
            off += 4 + len;
        }
        gst_buffer_unmap(b, &m);
        v.units.append(au);
        v.keys.append(key);
        return true;
    });
    return v;
}

// Raw AAC LC access units behind the sender's fixed 7-byte ADTS header.
QList<QByteArray> encodeAudio(int frames)
{
    QList<QByteArray> out;
    const QByteArray desc = QStringLiteral(
        "audiotestsrc num-buffers=%1 samplesperbuffer=1024 wave=sine ! audio/x-raw,rate=44100,channels=2 ! "
        "voaacenc bitrate=128000 ! audio/mpeg,mpegversion=4,stream-format=raw ! appsink name=out sync=false").arg(frames).toUtf8();
    pullAll(desc.constData(), [&](GstSample *sample) {
        GstBuffer *b = gst_sample_get_buffer(sample);
        GstMapInfo m;
        gst_buffer_map(b, &m, GST_MAP_READ);
        const int fl = int(m.size) + 7;
        QByteArray f(7, 0);
        f[0] = char(0xFF), f[1] = char(0xF9), f[2] = char(0x50), f[3] = char(0x80 ^ (fl >> 11));
        f[4] = char(fl >> 3), f[5] = char((fl << 5) | 0x1F), f[6] = char(0xFC);
        f += QByteArray(reinterpret_cast<const char *>(m.data), qsizetype(m.size));
        gst_buffer_unmap(b, &m);
        out.append(f);
        return true;
    });
    return out;
}

QByteArray videoRecord(const QByteArray &au, bool key)
{
    wire::VideoRecordHeader h;
    h.payloadLength = uint32_t(au.size());
    h.keyFlag = key ? 1 : 0;
    QByteArray r(int(wire::kRecordHeaderSize), 0);
    wire::writeVideoRecordHeader(reinterpret_cast<uint8_t *>(r.data()), h);
    return r + au;
}

