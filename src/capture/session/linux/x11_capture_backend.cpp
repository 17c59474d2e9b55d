// The X11 + PulseAudio capture backend.
//
//   screen: ximagesrc (the primary output's rectangle, pointer drawn, no damage tracking)
//           ! 30/1 ! videoconvert ! NV12 (bt709, video range) ! appsink
//   audio:  pulsesrc (default source) ! audioconvert ! audioresample ! S16LE 44100 Hz 2 ch ! appsink
#include "capture/session/capture_source.h"
#include "capture/session/linux/gst_capture_source.h"
#include "capture/session/linux/x11_main_display.h"
#include "common/log.h"

#include <gst/gst.h>

namespace velocast::capture {

namespace {

// Keeps at most two samples for the draining thread and drops the oldest beyond that, so
// a late consumer costs frames, not latency; sync=false: hand samples over as they come.
constexpr const char *kSink = "appsink name=sink max-buffers=2 drop=true sync=false emit-signals=false";

GstElement *parse(const QString &description, QString *error)
{
    GError *err = nullptr;
    GstElement *pipeline = gst_parse_launch(description.toUtf8().constData(), &err);
    if (err) {
        *error = QString::fromUtf8(err->message);
        g_error_free(err);
        if (pipeline) gst_object_unref(pipeline);
        return nullptr;
    }
    return pipeline;
}

class X11CaptureBackend final : public CaptureBackend {
public:
    QString name() const override { return QStringLiteral("X11"); }

    std::optional<MainDisplay> mainDisplay(QString *why) override
    {
        // Under XWayland the X server sees only the X11 clients' windows, not the desktop.
        if (qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland"))
            logLine(lcCapture(), QStringLiteral("this is a Wayland session: the X11 capture shows only X11 windows"));
        return queryMainDisplay(QString(), why);
    }

    std::unique_ptr<CaptureSource> makeScreenInput(const MainDisplay &display, CaptureSource::SampleHandler handler,
                                                   QString *error) override
    {
        ensureGstreamer();
        // use-damage=false: damage tracking copies every frame twice for a full-screen grab.
        // endx/endy are inclusive. Without a frame rate in the caps ximagesrc settles on 25/1.
        const QString description =
            QStringLiteral("ximagesrc name=src use-damage=false show-pointer=true startx=%1 starty=%2 endx=%3 endy=%4 "
                           "! video/x-raw,framerate=30/1 ! videoconvert ! video/x-raw,format=NV12 ! %5")
                .arg(display.x).arg(display.y).arg(display.x + display.width - 1).arg(display.y + display.height - 1).arg(kSink);
        GstElement *pipeline = parse(description, error);
        if (!pipeline) return nullptr;
        if (GstElement *src = gst_bin_get_by_name(GST_BIN(pipeline), "src")) {
            if (!display.displayName.isEmpty()) g_object_set(src, "display-name", display.displayName.toLocal8Bit().constData(), nullptr);
            gst_object_unref(src);
        }
        auto source = std::make_unique<GstCaptureSource>(pipeline, GstCaptureSource::Kind::Video, "delegate queue", std::move(handler));
        if (!source->open(error)) return nullptr;
        return source;
    }

    std::unique_ptr<CaptureSource> makeAudioInput(CaptureSource::SampleHandler handler, QString *error) override
    {
        ensureGstreamer();
        const QString description = QStringLiteral("pulsesrc name=src ! audioconvert ! audioresample "
                                                   "! audio/x-raw,format=S16LE,rate=44100,channels=2,layout=interleaved ! %1")
                                        .arg(kSink);
        GstElement *pipeline = parse(description, error);
        if (!pipeline) return nullptr;
        auto source = std::make_unique<GstCaptureSource>(pipeline, GstCaptureSource::Kind::Audio, "Audio Capture Queue", std::move(handler));
        // pulsesrc connects to the sound server when it goes to READY: that is where a
        // missing server or source shows.
        if (!source->open(error)) return nullptr;
        return source;
    }
};

} // namespace

std::unique_ptr<CaptureBackend> makeX11CaptureBackend() { return std::make_unique<X11CaptureBackend>(); }

} // namespace velocast::capture
