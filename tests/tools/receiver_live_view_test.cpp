// The live view: pointer input in the window becomes id_pc_mk_event messages, and the
// decoder turns the sender's access units into pictures.
#include "live_view.h"

#include <QApplication>
#include <QMouseEvent>
#include <QWheelEvent>

#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

using namespace velocast::receiver;

namespace {

// Annex-B access units as the sender pushes them (SPS and PPS before each key frame), from x264enc.
QList<QByteArray> encodeVideo(int frames)
{
    const QByteArray desc = QStringLiteral(
        "videotestsrc num-buffers=%1 pattern=ball ! video/x-raw,width=352,height=288,framerate=30/1 ! "
        "x264enc speed-preset=ultrafast tune=zerolatency key-int-max=10 bframes=0 threads=1 ! "
        "video/x-h264,profile=baseline,stream-format=byte-stream,alignment=au ! appsink name=out sync=false")
                                .arg(frames).toUtf8();
    QList<QByteArray> units;
    GstElement *pipeline = gst_parse_launch(desc.constData(), nullptr);
    if (!pipeline) return units;
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    while (GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(sink))) {
        GstMapInfo m;
        gst_buffer_map(gst_sample_get_buffer(sample), &m, GST_MAP_READ);
        units.append(QByteArray(reinterpret_cast<const char *>(m.data), qsizetype(m.size)));
        gst_buffer_unmap(gst_sample_get_buffer(sample), &m);
        gst_sample_unref(sample);
    }
    gst_object_unref(sink);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return units;
}

} // namespace

// Buttons, drags, double clicks and wheel notches, each as type, x, y, wheel_x, wheel_y.
TEST(LiveView, PointerInputBecomesTypedMessages)
{
    LiveView view("test");
    view.resize(800, 450);
    QList<QList<int>> sent;
    QObject::connect(&view, &LiveView::pointer, [&](const OutgoingMessage &m) {
        EXPECT_EQ(m.id, "id_pc_mk_event");
        EXPECT_EQ(QSize(m.property.value("width").toInt(), m.property.value("height").toInt()), QSize(800, 450));
        sent.append({m.property.value("type").toInt(), m.property.value("x").toInt(), m.property.value("y").toInt(),
                     m.property.value("wheel_x").toInt(), m.property.value("wheel_y").toInt()});
    });
    const struct {
        QEvent::Type type;
        Qt::MouseButton button;
        Qt::MouseButtons held;
        QPointF pos;
    } mice[] = {
        {QEvent::MouseMove, Qt::NoButton, Qt::NoButton, {5, 5}}, // hovering sends nothing
        {QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton, {100, 50}},
        {QEvent::MouseMove, Qt::NoButton, Qt::LeftButton, {120, 60}},
        {QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, {120, 60}},
        {QEvent::MouseButtonPress, Qt::RightButton, Qt::RightButton, {1, 2}},
        {QEvent::MouseButtonRelease, Qt::RightButton, Qt::NoButton, {1, 2}},
        {QEvent::MouseButtonPress, Qt::MiddleButton, Qt::MiddleButton, {3, 4}},
        {QEvent::MouseButtonRelease, Qt::MiddleButton, Qt::NoButton, {3, 4}},
        {QEvent::MouseButtonDblClick, Qt::LeftButton, Qt::LeftButton, {700, 400}},
    };
    for (const auto &m : mice) {
        QMouseEvent e(m.type, m.pos, view.mapToGlobal(m.pos), m.button, m.held, Qt::NoModifier);
        QApplication::sendEvent(&view, &e);
    }
    // Two notches down, one to the side, less than a notch (nothing).
    for (const QPoint angle : {QPoint(0, -240), QPoint(120, 0), QPoint(0, 30)}) {
        QWheelEvent e({10, 20}, view.mapToGlobal(QPointF(10, 20)), {}, angle, Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(&view, &e);
    }
    const QList<QList<int>> expected{{1, 100, 50, 0, 0}, {8, 120, 60, 0, 0}, {2, 120, 60, 0, 0}, {3, 1, 2, 0, 0},
                                     {4, 1, 2, 0, 0},    {5, 3, 4, 0, 0},    {6, 3, 4, 0, 0},    {7, 700, 400, 0, 0},
                                     {9, 10, 20, 0, -2}, {9, 10, 20, 1, 0}};
    EXPECT_EQ(sent, expected);
}

TEST(LiveView, DecoderTurnsAccessUnitsIntoPictures)
{
    gst_init(nullptr, nullptr);
    const QList<QByteArray> video = encodeVideo(12);
    ASSERT_EQ(video.size(), 12) << "x264enc is not installed";
    std::mutex mutex;
    std::condition_variable cv;
    int pictures = 0;
    QSize size;
    VideoDecoder decoder([&](const QImage &image) {
        std::lock_guard lock(mutex);
        ++pictures;
        size = image.size();
        cv.notify_all();
    });
    QString error;
    ASSERT_TRUE(decoder.start(&error)) << error.toStdString();
    // Garbage first: the decoder must skip it and still decode what follows.
    decoder.pushAccessUnit(QByteArray::fromHex("0000000141ffffffff"));
    for (const QByteArray &au : video) decoder.pushAccessUnit(au);
    std::unique_lock lock(mutex);
    // The appsink keeps at most two pictures queued; a few must come out.
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return pictures >= 3; })) << pictures << " pictures";
    EXPECT_EQ(size, QSize(352, 288));
}
