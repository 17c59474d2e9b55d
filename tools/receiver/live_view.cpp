#include "live_view.h"

#include <QCloseEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

namespace velocast::receiver {

namespace {

// Builds a pipeline from a description; null when an element is missing.
PipelinePtr build(const QByteArray &description, QString *error)
{
    GError *err = nullptr;
    GstElement *p = gst_parse_launch(description.constData(), &err);
    if (err) {
        if (error) *error = QString::fromUtf8(err->message);
        g_error_free(err);
        if (p) gst_object_unref(p);
        return nullptr;
    }
    return PipelinePtr(p);
}

QByteArray firstInstalled(std::initializer_list<const char *> names)
{
    for (const char *n : names) {
        if (GstElementFactory *f = gst_element_factory_find(n)) {
            gst_object_unref(f);
            return n;
        }
    }
    return {};
}

void pushBytes(GstElement *src, const QByteArray &bytes)
{
    GstBuffer *b = gst_buffer_new_allocate(nullptr, gsize(bytes.size()), nullptr);
    gst_buffer_fill(b, 0, bytes.constData(), gsize(bytes.size()));
    gst_app_src_push_buffer(GST_APP_SRC(src), b); // takes the buffer
}

} // namespace

VideoDecoder::VideoDecoder(FrameCallback onFrame) : onFrame_(std::move(onFrame)) {}

VideoDecoder::~VideoDecoder()
{
    // Stop the streaming thread before the callback's owner goes away.
    pipeline_.reset();
}

bool VideoDecoder::start(QString *error)
{
    const QByteArray decoder = firstInstalled({"avdec_h264", "openh264dec"});
    if (decoder.isEmpty()) {
        if (error) *error = QStringLiteral("no H.264 decoder (avdec_h264 or openh264dec) is installed");
        return false;
    }
    // A decoder that falls behind drops the oldest queued access units instead of
    // letting the queue grow.
    pipeline_ = build("appsrc name=src is-live=true do-timestamp=true format=time max-bytes=16000000 leaky-type=downstream "
                      "caps=video/x-h264,stream-format=byte-stream,alignment=au ! h264parse ! "
                      + decoder + " ! videoconvert ! video/x-raw,format=RGBx ! "
                                  "appsink name=sink sync=false max-buffers=2 drop=true emit-signals=true",
                      error);
    if (!pipeline_) return false;
    src_ = gst_bin_get_by_name(GST_BIN(pipeline_.get()), "src");
    gst_object_unref(src_); // the pipeline keeps it alive
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline_.get()), "sink");
    g_signal_connect(sink, "new-sample", G_CALLBACK(&VideoDecoder::onSample), this);
    gst_object_unref(sink);
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        if (error) *error = QStringLiteral("the decoding pipeline does not start");
        pipeline_.reset();
        return false;
    }
    return true;
}

void VideoDecoder::pushAccessUnit(const QByteArray &au)
{
    if (pipeline_) pushBytes(src_, au);
}

// GStreamer's streaming thread: copy the picture out and return at once.
GstFlowReturn VideoDecoder::onSample(GstElement *sink, gpointer self)
{
    GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
    if (!sample) return GST_FLOW_OK;
    GstVideoInfo info;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample))) {
        GstBuffer *b = gst_sample_get_buffer(sample);
        GstMapInfo m;
        if (gst_buffer_map(b, &m, GST_MAP_READ)) {
            const int w = GST_VIDEO_INFO_WIDTH(&info), h = GST_VIDEO_INFO_HEIGHT(&info);
            const int stride = GST_VIDEO_INFO_PLANE_STRIDE(&info, 0);
            if (w > 0 && h > 0 && gsize(stride) * gsize(h) <= m.size) {
                const QImage image = QImage(m.data, w, h, stride, QImage::Format_RGBX8888).copy();
                static_cast<VideoDecoder *>(self)->onFrame_(image);
            }
            gst_buffer_unmap(b, &m);
        }
    }
    gst_sample_unref(sample);
    return GST_FLOW_OK;
}

bool AudioPlayer::start(QString *error)
{
    const QByteArray decoder = firstInstalled({"avdec_aac", "faad", "fdkaacdec"});
    if (decoder.isEmpty()) {
        if (error) *error = QStringLiteral("no AAC decoder is installed");
        return false;
    }
    pipeline_ = build("appsrc name=src is-live=true do-timestamp=true format=time max-bytes=1000000 leaky-type=downstream "
                      "caps=audio/mpeg,mpegversion=4,stream-format=adts ! aacparse ! "
                      + decoder + " ! audioconvert ! audioresample ! autoaudiosink sync=false",
                      error);
    if (!pipeline_) return false;
    src_ = gst_bin_get_by_name(GST_BIN(pipeline_.get()), "src");
    gst_object_unref(src_);
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        if (error) *error = QStringLiteral("no audio output");
        pipeline_.reset();
        return false;
    }
    return true;
}

void AudioPlayer::pushFrame(const QByteArray &adts)
{
    if (pipeline_) pushBytes(src_, adts);
}

// ---------------------------------------------------------------------------------------

LiveView::LiveView(const QString &title, QWidget *parent) : QWidget(parent)
{
    setWindowTitle(title);
    setMinimumSize(320, 180);
    resize(960, 540);
    setAutoFillBackground(false);
    setMouseTracking(false); // moves count only while a button is held (drag, type 8)
}

void LiveView::showFrame(const QImage &frame)
{
    frame_ = frame;
    ++framesShown_;
    update();
}

void LiveView::clearPicture()
{
    frame_ = QImage();
    status_.clear();
    update();
}

void LiveView::setConnectCode(const QString &code)
{
    code_ = code;
    update();
}

void LiveView::setStatus(const QString &status)
{
    status_ = status;
    update();
}

void LiveView::closeEvent(QCloseEvent *e)
{
    emit closed();
    e->accept();
}

bool LiveView::saveSnapshot(const QString &path) { return grab().save(path, "PNG"); }

// The picture fitted into the window, centred, aspect ratio kept.
QRect LiveView::pictureRect() const
{
    if (frame_.isNull()) return rect();
    QSize s = frame_.size().scaled(size(), Qt::KeepAspectRatio);
    return QRect(QPoint((width() - s.width()) / 2, (height() - s.height()) / 2), s);
}

void LiveView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), Qt::black);
    if (frame_.isNull()) {
        // The waiting screen: name and connect code, large, as a receiver shows them.
        QFont f = font();
        f.setPixelSize(std::max(14, height() / 18));
        p.setFont(f);
        p.setPen(QColor(200, 200, 200));
        const QString code = code_.isEmpty() ? tr("(no connect code)") : code_;
        p.drawText(rect().adjusted(0, 0, 0, -height() / 5), Qt::AlignCenter, windowTitle());
        f.setPixelSize(std::max(24, height() / 7));
        f.setBold(true);
        p.setFont(f);
        p.setPen(Qt::white);
        p.drawText(rect(), Qt::AlignCenter, code);
        f.setPixelSize(std::max(12, height() / 30));
        f.setBold(false);
        p.setFont(f);
        p.setPen(Qt::gray);
        p.drawText(rect().adjusted(0, height() / 5, 0, 0), Qt::AlignCenter, tr("Type this code into the sender"));
        return;
    }
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.drawImage(pictureRect(), frame_);
    if (!status_.isEmpty()) {
        QFont f = font();
        f.setPixelSize(13);
        p.setFont(f);
        const QRect text = p.fontMetrics().boundingRect(status_).adjusted(-6, -3, 6, 3);
        const QRect box(QPoint(8, 8), text.size());
        p.fillRect(box, QColor(0, 0, 0, 160));
        p.setPen(Qt::white);
        p.drawText(box, Qt::AlignCenter, status_);
    }
}

// Positions are in window coordinates and width/height is the window's area: the sender
// fits its screen into that area the same way the picture is fitted here.
void LiveView::emitPointer(int type, QPointF pos, int wheelX, int wheelY)
{
    emit pointer({QStringLiteral("id_pc_mk_event"), QJsonObject{{QStringLiteral("type"), type},
                                                                {QStringLiteral("x"), qRound(pos.x())},
                                                                {QStringLiteral("y"), qRound(pos.y())},
                                                                {QStringLiteral("width"), width()},
                                                                {QStringLiteral("height"), height()},
                                                                {QStringLiteral("wheel_x"), wheelX},
                                                                {QStringLiteral("wheel_y"), wheelY}}});
}

static int downCode(Qt::MouseButton b)
{
    switch (b) {
    case Qt::LeftButton: return 1;
    case Qt::RightButton: return 3;
    case Qt::MiddleButton: return 5;
    default: return 0;
    }
}

void LiveView::mousePressEvent(QMouseEvent *e)
{
    if (const int code = downCode(e->button())) emitPointer(code, e->position());
}

void LiveView::mouseReleaseEvent(QMouseEvent *e)
{
    if (const int code = downCode(e->button())) emitPointer(code + 1, e->position());
}

void LiveView::mouseDoubleClickEvent(QMouseEvent *e)
{
    // The first click of the pair already went out as down/up; the second is the double click.
    if (e->button() == Qt::LeftButton) emitPointer(7, e->position());
}

void LiveView::mouseMoveEvent(QMouseEvent *e)
{
    if (e->buttons() != Qt::NoButton) emitPointer(8, e->position());
}

void LiveView::wheelEvent(QWheelEvent *e)
{
    // One notch is 120 eighths of a degree: one line.
    const QPoint lines = e->angleDelta() / 120;
    if (!lines.isNull()) emitPointer(9, e->position(), lines.x(), lines.y());
}

} // namespace velocast::receiver
