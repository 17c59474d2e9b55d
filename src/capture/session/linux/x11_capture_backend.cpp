// The X11 + PulseAudio capture backend.
//
//   screen: MIT-SHM + DAMAGE capture of the primary output's rectangle, pointer drawn,
//           converted to NV12 (BT.709, video range) on the capture thread, 30 per second
//           (x11_shm_screen_input). Where that cannot run (a screen that is not 32-bit xRGB,
//           no DAMAGE): ximagesrc ! 30/1 ! videoconvert ! NV12 ! appsink
//   audio:  what the computer plays (linux/pulse_audio_input.cpp)
#include "capture/session/capture_source.h"
#include "capture/session/linux/gst_capture_source.h"
#include "capture/session/linux/pulse_audio_input.h"
#include "capture/session/linux/x11_main_display.h"
#include "capture/session/linux/x11_shm_screen_input.h"
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
        QString why;
        if (auto input = makeX11ShmScreenInput(display, handler, &why)) return input;
        logLine(lcCapture(), QStringLiteral("X11 capture: %1; falling back to ximagesrc").arg(why));
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
        return makePulseAudioInput(std::move(handler), error);
    }
};

} // namespace

std::unique_ptr<CaptureBackend> makeX11CaptureBackend() { return std::make_unique<X11CaptureBackend>(); }

} // namespace velocast::capture
