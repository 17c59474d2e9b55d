// What the casting session needs from the platform: the main display's geometry, a source
// of raw pictures of it (NV12, the 4:2:0 bi-planar video-range format, 30 per second) and
// a source of PCM from the default audio input (44100 Hz, stereo). The Linux backend is X11
// with XRandR plus PulseAudio, on GStreamer (linux/).
#pragma once

#include "capture/media_sample.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace velocast::capture {

// The display a cast shows: the primary output, in root-window pixels.
struct MainDisplay {
    // The RandR output's id; 0 when the screen has no usable output and the whole root
    // window stands for the display.
    uint32_t displayID = 0;
    // Which X display ("name" as XOpenDisplay takes it).
    QString displayName;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// One running capture. Samples are handed to the handler on the source's own serial
// thread, one at a time, in capture order; the handler must return promptly (a slow one
// makes the source drop the oldest waiting samples, never block the capture).
class CaptureSource {
public:
    using SampleHandler = std::function<void(const MediaSample &sample)>;

    // Stops first.
    virtual ~CaptureSource() = default;
    // Starts delivering. False, with the reason in *error, when the capture did not start.
    virtual bool startRunning(QString *error) = 0;
    // Stops the capture. When it returns the handler is not running and is not called again.
    // Safe to call more than once.
    virtual void stopRunning() = 0;
    // Samples delivered to the handler so far (diagnostics and tests).
    virtual uint64_t deliveredSamples() const = 0;
};

class CaptureBackend {
public:
    using Ready = std::function<void(bool ok, const QString &why)>;

    virtual ~CaptureBackend() = default;
    // Its name in the log line at the start of each cast ("X11", "portal").
    virtual QString name() const = 0;
    // Some desktops ask the person what to share before a cast can be built, in a dialog
    // that may stay up for minutes. This runs that step without blocking the calling
    // thread, which must run an event loop, and calls done there: ok, or the reason in plain
    // words. Call once per cast, before mainDisplay(). By default there is nothing to ask.
    virtual void prepareCapture(Ready done) { done(true, QString()); }
    // Gives back what prepareCapture took (the desktop's sharing session) when a cast ends.
    virtual void finishCapture() {}
    // handler is called, on the thread that called prepareCapture, when the desktop ends
    // the sharing by itself (the person stopped it from the desktop's own indicator).
    virtual void setEndedHandler(std::function<void(const QString &why)> handler) { (void)handler; }
    // The main display, or nothing, with the reason in *why, when this desktop cannot be
    // captured (no X display, no RandR: a Wayland session without XWayland, a console).
    virtual std::optional<MainDisplay> mainDisplay(QString *why) = 0;
    // Pictures of that display: NV12, its full size, 30 per second, with the pointer drawn in.
    virtual std::unique_ptr<CaptureSource> makeScreenInput(const MainDisplay &display, CaptureSource::SampleHandler handler,
                                                           QString *error) = 0;
    // Interleaved S16LE PCM, 44100 Hz, stereo, of what the computer plays (the default
    // output), or of the default input where that cannot be had. Null, with the reason in
    // *error, when there is no audio input to open.
    virtual std::unique_ptr<CaptureSource> makeAudioInput(CaptureSource::SampleHandler handler, QString *error) = 0;
};

// X11 (XRandR primary output, ximagesrc) and PulseAudio (pulsesrc) on GStreamer.
std::unique_ptr<CaptureBackend> makeX11CaptureBackend();
// The desktop portal's screen cast (pipewiresrc) and PulseAudio, for Wayland sessions.
// pointerInput: share through a remote-desktop session (one dialog for the screen and the
// receiver's pointer) where the desktop offers one; otherwise a plain screen cast.
std::unique_ptr<CaptureBackend> makePortalCaptureBackend(bool pointerInput = true);

enum class SessionKind { X11, Wayland };
// Which kind of desktop session this is, from XDG_SESSION_TYPE ("wayland", "x11") and,
// when that says neither, from whether WAYLAND_DISPLAY names a compositor.
SessionKind sessionKind(const QString &xdgSessionType, const QString &waylandDisplay);
SessionKind currentSessionKind();
// The backend for the session this program runs in.
std::unique_ptr<CaptureBackend> makeCaptureBackendForSession();

} // namespace velocast::capture
