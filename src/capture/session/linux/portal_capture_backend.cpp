// The Wayland capture backend: the screen the person chose in the desktop portal's dialog,
// read from PipeWire; sound as on X11 (PulseAudio, which PipeWire also serves).
//
//   screen: pipewiresrc fd=FD path=NODE (keep-alive: the last picture again every 33 ms)
//           ! videorate ! 30/1 ! videoconvert ! NV12 ! appsink
//
// PipeWire sends a picture only when the screen changes; a still screen would starve the
// encoder and the receiver. pipewiresrc's keep-alive repeats the last buffer while nothing
// new comes and videorate evens the result out to 30 per second.
#include "capture/session/capture_source.h"
#include "capture/session/linux/gst_capture_source.h"
#include "capture/session/linux/portal_backend.h"
#include "capture/session/linux/portal_session.h"
#include "common/log.h"
#include "common/preferences.h"

#include <QDBusConnection>

#include <gst/gst.h>

#include <unistd.h>

namespace velocast::capture {

namespace {

constexpr const char *kSink = "appsink name=sink max-buffers=2 drop=true sync=false emit-signals=false";

QString plainWords(PortalSession::Outcome outcome, const QString &why)
{
    switch (outcome) {
    case PortalSession::Outcome::Cancelled:
        return QStringLiteral("已取消共享屏幕，投屏没有开始");
    case PortalSession::Outcome::Unavailable:
        return QStringLiteral("这个桌面不提供屏幕共享（缺少桌面门户服务），投屏没有开始");
    default:
        return QStringLiteral("桌面没有共享屏幕（%1），投屏没有开始").arg(why);
    }
}

class PortalCaptureBackend final : public CaptureBackend, public PortalBackend {
public:
    explicit PortalCaptureBackend(bool pointerInput) : pointerInput_(pointerInput) {}
    ~PortalCaptureBackend() override { finishCapture(); }

    QString name() const override { return QStringLiteral("portal"); }

    void prepareCapture(Ready done) override
    {
        finishCapture();
        const QString token = Preferences::value(QString::fromLatin1(prefkey::ScreenCastRestoreToken)).toString();
        session_ = std::make_unique<PortalSession>(QDBusConnection::sessionBus(), token, pointerInput_);
        PortalSession *session = session_.get();
        session->setClosedHandler([this] {
            if (ended_) ended_(QStringLiteral("已在桌面上停止共享屏幕，投屏已结束"));
        });
        session->start([this, session, token, done = std::move(done)](PortalSession::Outcome outcome, const QString &why) {
            const QString key = QString::fromLatin1(prefkey::ScreenCastRestoreToken);
            if (outcome != PortalSession::Outcome::Started) {
                logLine(lcCapture(), QStringLiteral("portal: %1").arg(why));
                // A remembered choice that did not lead to a cast is not offered again.
                if (!token.isEmpty() && outcome != PortalSession::Outcome::Unavailable) Preferences::remove(key);
                done(false, plainWords(outcome, why));
                return;
            }
            const PortalSession::Stream &s = session->stream();
            logLine(lcCapture(), QStringLiteral("portal: sharing PipeWire node %1 at (%2, %3) %4x%5%6%7")
                                     .arg(s.node).arg(s.x).arg(s.y).arg(s.width).arg(s.height)
                                     .arg(token.isEmpty() ? QString() : QStringLiteral(", restored from the remembered choice"))
                                     .arg(session->hasPointer() ? QStringLiteral(", pointer allowed") : QString()));
            if (!session->restoreToken().isEmpty()) Preferences::setValue(key, session->restoreToken());
            fd_ = session->takePipeWireFd();
            done(true, QString());
        });
    }

    void finishCapture() override
    {
        if (session_) session_->close();
        session_.reset();
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    void setEndedHandler(std::function<void(const QString &why)> handler) override { ended_ = std::move(handler); }

    std::optional<MainDisplay> mainDisplay(QString *why) override
    {
        if (!session_ || fd_ < 0) {
            *why = QStringLiteral("no screen has been shared through the desktop portal");
            return std::nullopt;
        }
        const PortalSession::Stream &s = session_->stream();
        MainDisplay display;
        display.displayID = s.node;
        display.displayName = QStringLiteral("pipewire");
        display.x = s.x;
        display.y = s.y;
        // When the portal does not say, the first picture tells (the session follows it).
        display.width = s.width;
        display.height = s.height;
        return display;
    }

    std::unique_ptr<CaptureSource> makeScreenInput(const MainDisplay &display, CaptureSource::SampleHandler handler,
                                                   QString *error) override
    {
        ensureGstreamer();
        if (fd_ < 0) {
            *error = QStringLiteral("no screen has been shared through the desktop portal");
            return nullptr;
        }
        // pipewiresrc connects with its own duplicate of the descriptor; ours stays until
        // the cast ends.
        const QString description = QStringLiteral("pipewiresrc name=src fd=%1 path=%2 do-timestamp=true keepalive-time=33 "
                                                   "! videorate ! video/x-raw,framerate=30/1 ! videoconvert "
                                                   "! video/x-raw,format=NV12 ! %3")
                                        .arg(fd_).arg(display.displayID).arg(kSink);
        GError *err = nullptr;
        GstElement *pipeline = gst_parse_launch(description.toUtf8().constData(), &err);
        if (err) {
            *error = QString::fromUtf8(err->message);
            g_error_free(err);
            if (pipeline) gst_object_unref(pipeline);
            return nullptr;
        }
        auto source = std::make_unique<GstCaptureSource>(pipeline, GstCaptureSource::Kind::Video, "delegate queue", std::move(handler));
        if (!source->open(error)) return nullptr;
        return source;
    }

    std::unique_ptr<CaptureSource> makeAudioInput(CaptureSource::SampleHandler handler, QString *error) override
    {
        return sound_->makeAudioInput(std::move(handler), error);
    }

    PortalSession *portalSession() override { return session_ && fd_ >= 0 ? session_.get() : nullptr; }

private:
    const bool pointerInput_;
    std::unique_ptr<CaptureBackend> sound_ = makeX11CaptureBackend();
    std::unique_ptr<PortalSession> session_;
    std::function<void(const QString &)> ended_;
    int fd_ = -1;
};

} // namespace

std::unique_ptr<CaptureBackend> makePortalCaptureBackend(bool pointerInput)
{
    return std::make_unique<PortalCaptureBackend>(pointerInput);
}

SessionKind sessionKind(const QString &xdgSessionType, const QString &waylandDisplay)
{
    const QString type = xdgSessionType.trimmed().toLower();
    if (type == QLatin1String("wayland")) return SessionKind::Wayland;
    if (type == QLatin1String("x11")) return SessionKind::X11;
    // "tty", "unspecified" or nothing (a session started by hand): the display servers tell.
    if (!waylandDisplay.isEmpty()) return SessionKind::Wayland;
    return SessionKind::X11;
}

SessionKind currentSessionKind()
{
    return sessionKind(qEnvironmentVariable("XDG_SESSION_TYPE"), qEnvironmentVariable("WAYLAND_DISPLAY"));
}

std::unique_ptr<CaptureBackend> makeCaptureBackendForSession()
{
    return currentSessionKind() == SessionKind::Wayland ? makePortalCaptureBackend() : makeX11CaptureBackend();
}

} // namespace velocast::capture
