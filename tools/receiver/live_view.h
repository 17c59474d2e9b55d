// Live view of the receiver: decodes the cast with GStreamer, shows the video in a window
// and plays the audio; clicks, drags and the wheel in the window become pointer messages
// ("id_pc_mk_event") for the sender, with the window's picture area as width/height.
// Created only when a display is present.
#pragma once

#include "commands.h"

#include <QImage>
#include <QWidget>

#include <gst/gst.h>

#include <memory>

namespace velocast::receiver {

struct PipelineDeleter {
    void operator()(GstElement *p) const
    {
        gst_element_set_state(p, GST_STATE_NULL);
        gst_object_unref(p);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, PipelineDeleter>;

// Decodes Annex-B access units to RGB images. pushAccessUnit() on the main thread;
// frames arrive through the callback on GStreamer's streaming thread.
class VideoDecoder {
public:
    using FrameCallback = std::function<void(const QImage &)>;
    explicit VideoDecoder(FrameCallback onFrame);
    ~VideoDecoder();
    // False when no H.264 decoder element is installed; error says which were tried.
    bool start(QString *error);
    void pushAccessUnit(const QByteArray &au);

private:
    static GstFlowReturn onSample(GstElement *sink, gpointer self);
    FrameCallback onFrame_;
    PipelinePtr pipeline_;
    GstElement *src_ = nullptr; // owned by the pipeline
};

// Plays ADTS frames on the default audio output. Main thread only.
class AudioPlayer {
public:
    bool start(QString *error);
    void pushFrame(const QByteArray &adts);

private:
    PipelinePtr pipeline_;
    GstElement *src_ = nullptr;
};

class LiveView : public QWidget {
    Q_OBJECT
public:
    explicit LiveView(const QString &title, QWidget *parent = nullptr);

    // Main thread. The picture shown until the next one.
    void showFrame(const QImage &frame);
    // Back to the waiting screen (the cast ended).
    void clearPicture();
    // What the waiting screen shows, as a receiver's screen would: its name and the code.
    void setConnectCode(const QString &code);
    // A short status line drawn over the picture (size, rate); empty hides it.
    void setStatus(const QString &status);
    int framesShown() const { return framesShown_; }
    // Saves the window as it looks now (PNG); false when it cannot be written.
    bool saveSnapshot(const QString &path);

signals:
    void pointer(const velocast::receiver::OutgoingMessage &message);
    // The user closed the window.
    void closed();

protected:
    void paintEvent(QPaintEvent *) override;
    void closeEvent(QCloseEvent *e) override;
    void mousePressEvent(QMouseEvent *e) override;
    void mouseReleaseEvent(QMouseEvent *e) override;
    void mouseDoubleClickEvent(QMouseEvent *e) override;
    void mouseMoveEvent(QMouseEvent *e) override;
    void wheelEvent(QWheelEvent *e) override;

private:
    void emitPointer(int type, QPointF pos, int wheelX = 0, int wheelY = 0);
    QRect pictureRect() const;

    QImage frame_;
    int framesShown_ = 0;
    QString code_;
    QString status_;
};

} // namespace velocast::receiver
