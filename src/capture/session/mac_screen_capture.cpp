#include "capture/session/mac_screen_capture.h"

#include "capture/gst_util.h"
#include "capture/input/input_event.h"
#include "capture/input/linux/virtual_pointer_injector.h"
#include "capture/input/mouse_event.h"
#include "capture/session/linux/portal_backend.h"
#include "capture/session/linux/portal_input_injector.h"
#include "capture/session/linux/portal_session.h"
#include "common/lenient_value.h"
#include "common/log.h"
#include "common/main_thread.h"
#include "common/notification_names.h"
#include "push/bridge/camera_encoder.h"
#include "push/push_api.h"

#include <QPointer>
#include <QVariantList>

#include <cmath>

namespace velocast {

namespace {

const QString kPermissionRequest = QStringLiteral("id_permission_request");
const QString kPermissionDisconnect = QStringLiteral("id_permission_disconnect");
const QString kPermissionAllow = QStringLiteral("id_permission_allow");
const QString kPermissionRefuse = QStringLiteral("id_permission_refuse");
const QString kCodecResize = QStringLiteral("id_codec_resize");
const QString kVideoPause = QStringLiteral("id_video_pause");
const QString kAudioCtrl = QStringLiteral("id_audio_ctrl");
const QString kPcMkEvent = QStringLiteral("id_pc_mk_event");

// The screen-casting road's type in the permission messages.
constexpr int kScreenType = 2;

// The toast when the screen cannot be captured (the reason itself goes to the log).
const QString kCaptureUnavailable = QStringLiteral("无法获取屏幕画面，投屏已停止");

QVariantMap screenMessage(const QString &id)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("property"), QVariantMap{{QStringLiteral("type"), kScreenType}}}};
}

int32_t int32Value(const QVariantMap &property, const char *key)
{
    return int32_t(lenientInt(property, QString::fromLatin1(key)));
}

} // namespace

// The running capture: the screen input and, when there is one, the audio input.
class MacScreenCapture::CaptureSession {
public:
    std::unique_ptr<capture::CaptureSource> video;
    std::unique_ptr<capture::CaptureSource> audio;

    void startRunning()
    {
        QString error;
        if (video && !video->startRunning(&error)) logLine(lcCapture(), QStringLiteral("ERROR: input video: %1").arg(error));
        if (audio && !audio->startRunning(&error)) logLine(lcCapture(), QStringLiteral("ERROR: input audio: %1").arg(error));
    }
    // Joins both capture threads: no sample is delivered after this returns.
    void stopRunning()
    {
        if (video) video->stopRunning();
        if (audio) audio->stopRunning();
    }
};

MacScreenCapture &MacScreenCapture::shareCapture()
{
    // Function-local statics are destroyed in the reverse order of their construction. The
    // teardown of this one still closes the push context and posts nothing, so make the
    // push context (a no-op close) and GStreamer exist first; the notification centre and
    // the log are made inside the constructor, which also puts them before this object.
    push::PushClose(nullptr);
    capture::ensureGstreamer();
    static MacScreenCapture instance;
    return instance;
}

MacScreenCapture::MacScreenCapture(BackendFactory backendFactory)
    : backendFactory_(std::move(backendFactory)), castQueue_(std::make_unique<SerialQueue>("cast queue")),
      life_(std::make_shared<MacScreenCapture *>(this))
{
    logLine(lcCapture(), QStringLiteral("-[MacScreenCapture init]"));
    aPort_.store(kDefaultPort);
    vPort_.store(kDefaultPort);
    addNotice();
}

MacScreenCapture::~MacScreenCapture()
{
    // Order: no notification reaches us any more; no capture thread runs; then the encoder
    // (its threads call the push API, which it closes last).
    notices_.clear();
    listenMsg(false);
    if (isPutting_.load()) input::MouseEvent::castEnded();
    // Lets the step in progress finish; queued ones are dropped and done below instead.
    castQueue_.reset();
    // Only now: the steps read life_ to hand weak handles to the main thread. Tasks they
    // queued there cannot run before this (we are on that thread) and find it gone.
    life_.reset();
    std::lock_guard lock(sessionMutex_);
    releaseCaptureSession();
    if (auto enc = encoder()) {
        if (isPutting_.load()) enc->stopCamera();
        enc->destroyEv();
    }
    std::lock_guard encoderLock(encoderMutex_);
    cameraEncoder_.reset();
}

void MacScreenCapture::addNotice()
{
    auto &center = NotificationCenter::defaultCenter();
    notices_.push_back(center.addObserver(QString::fromLatin1(notice::NOTICE_STARTSCREENCAPTURE), [this](const QVariant &) { startPut(); }));
    for (const char *name : {notice::NOTICE_STOPSCREENCAPTURE, notice::NOTICE_BEDISCONNECT, notice::NOTICE_DISCONNECT})
        notices_.push_back(center.addObserver(QString::fromLatin1(name), [this](const QVariant &) { stopPut(); }));
    // Our own rule: a receiver lost to the heartbeat ends the cast too, or capture and the
    // push would go on to nobody and the next allow would find a cast still running. There
    // is no channel left to tell the receiver on.
    notices_.push_back(center.addObserver(QString::fromLatin1(notice::NETCONTROL_CONNECTBROKEN), [this](const QVariant &) {
        logLine(lcCapture(), QStringLiteral("the receiver is lost; the cast stops"));
        stopPutFouction();
    }));
}

// --- Requests from the application -------------------------------------------------------

void MacScreenCapture::startPut()
{
    listenMsg(true);
    sendStartMessage();
}

void MacScreenCapture::stopPut()
{
    sendStopMessage();
    stopPutFouction();
}

void MacScreenCapture::startPutFuction()
{
    // No session lock here: a stop still running on the cast queue holds it.
    if (isPutting_.load() || preparing_.load()) return;
    // Audio stays off until the receiver asks for it.
    isAudioUse_.store(false);
    const uint64_t generation = generation_.load();
    if (!backend_ && backendFactory_) backend_ = backendFactory_();
    if (!backend_) {
        logLine(lcCapture(), QStringLiteral("screen capture is not available here; the cast does not start"));
        endCastWithReason(kCaptureUnavailable);
        return;
    }
    logLine(lcCapture(), QStringLiteral("casting with the %1 capture backend").arg(backend_->name()));
    // The desktop may ask the person what to share: the window stays usable meanwhile, and
    // the cast goes on (or ends) when the answer comes, on this thread. Building the capture
    // and the push's connect then run on the cast queue.
    preparing_.store(true);
    prepares_.fetch_add(1);
    std::weak_ptr<MacScreenCapture *> weak = life_;
    backend_->setEndedHandler([weak](const QString &why) {
        if (const auto life = weak.lock()) (*life)->endCastWithReason(why);
    });
    backend_->prepareCapture([weak, generation](bool ok, const QString &why) {
        const auto life = weak.lock();
        if (!life) return;
        MacScreenCapture *self = *life;
        if (!self->preparing_.exchange(false)) return; // stopped while the person was choosing
        if (!ok) {
            self->endCastWithReason(why);
            return;
        }
        self->runOnCastQueue([self, generation] { self->buildAndStart(generation); });
    });
}

void MacScreenCapture::buildAndStart(uint64_t generation)
{
    std::lock_guard lock(sessionMutex_);
    // A stop since the allow voids this start.
    if (generation_.load() != generation || isPutting_.load()) return;
    if (!captureSession_) configScreenCapture();
    if (!captureSession_) {
        // configScreenCapture said why. The receiver granted a cast that will not come and
        // the panel already shows it running: end it on both sides.
        std::weak_ptr<MacScreenCapture *> weak = life_;
        runOnMainThread([weak, generation] {
            const auto life = weak.lock();
            if (life && (*life)->generation_.load() == generation) (*life)->endCastWithReason(kCaptureUnavailable);
        });
        return;
    }
    continueStart();
}

void MacScreenCapture::continueStart()
{
    std::lock_guard lock(sessionMutex_);
    isPutting_.store(true);
    captureSession_->startRunning();
    if (auto enc = encoder()) enc->startLiving(ipStr(), vPort_.load(), aPort_.load());
    // The receiver's pointer lands on the pixels it sees, and only while this cast runs. The
    // desktop's sharing session lives on the main thread: remote input is set up there.
    const uint64_t generation = generation_.load();
    std::weak_ptr<MacScreenCapture *> weak = life_;
    runOnMainThread([weak, generation] {
        const auto life = weak.lock();
        if (!life) return;
        MacScreenCapture *self = *life;
        if (self->generation_.load() != generation || !self->isPutting_.load()) return;
        auto *portal = dynamic_cast<capture::PortalBackend *>(self->backend_.get());
        capture::PortalSession *sharing = portal ? portal->portalSession() : nullptr;
        {
            std::lock_guard props(self->propertyMutex_);
            if (self->display_) {
                const capture::MainDisplay &d = *self->display_;
                self->inputStream_ = {d.displayName, d.displayID, QRect(d.x, d.y, d.width, d.height),
                                      sharing ? sharing->sessionHandle() : QString(), sharing ? sharing->stream().node : 0};
                input::InputEvent::setCaptureStream(self->inputStream_);
            }
        }
        if (portal) chooseWaylandInput(sharing);
        input::InputEvent::announceBackend();
        input::MouseEvent::castStarted();
    });
}

void MacScreenCapture::chooseWaylandInput(capture::PortalSession *sharing)
{
    // The remote-desktop portal where the desktop has one (the person allowed the pointer in
    // the same dialog as the screen); wlroots compositors have only a screen cast and take
    // the pointer through their virtual-pointer protocol. X11 keeps the XTest backend, made
    // on first use.
    QPointer<capture::PortalSession> session(sharing);
    const bool remoteDesktop = sharing && sharing->isRemoteDesktop();
    const bool pointer = sharing && sharing->hasPointer();
    input::InputEvent::useInjector([session, remoteDesktop, pointer](QString *why) -> std::unique_ptr<input::InputInjector> {
        if (remoteDesktop) {
            if (pointer && session) return capture::makePortalInputInjector(session.data());
            *why = QStringLiteral("pointer input was not allowed when the screen was shared");
            return nullptr;
        }
        QString vpWhy;
        if (auto injector = input::makeVirtualPointerInjector(&vpWhy)) return injector;
        *why = QStringLiteral("this desktop offers neither the remote-desktop portal nor a virtual pointer (%1)").arg(vpWhy);
        return nullptr;
    });
}

void MacScreenCapture::endCastWithReason(const QString &why)
{
    logLine(lcCapture(), QStringLiteral("the cast ends: %1").arg(why));
    listenMsg(false);
    // A sharing session that no capture uses is given back now; one in use once capture has
    // stopped (the stop's last step).
    if (backend_ && !isPutting_.load() && castQueueIdle()) backend_->finishCapture();
    stopPut();
    auto &center = NotificationCenter::defaultCenter();
    center.post(QString::fromLatin1(notice::NOTICE_BESTOPSCREENCAPTURE));
    center.post(QString::fromLatin1(notice::NOTICE_SCREENCAPTURESTATE), QVariantList{false, why});
}

void MacScreenCapture::stopPutFouction()
{
    // Every stop ends listening and voids a start still waiting on the cast queue or on the
    // person's answer in the desktop's sharing dialog.
    generation_.fetch_add(1);
    listenMsg(false);
    if (preparing_.exchange(false) && backend_) backend_->finishCapture();
    if (!isPutting_.exchange(false)) {
        // A start may be running on the cast queue right now: the step below undoes it.
        if (castSteps_.load() == 0) return;
    }
    isAudioUse_.store(false);
    // No pointer event from the receiver acts after this; a button it holds is let go.
    input::MouseEvent::castEnded();
    const uint64_t prepares = prepares_.load();
    runOnCastQueue([this, prepares] {
        std::lock_guard lock(sessionMutex_);
        // Whatever start ran before this step is undone; a later start runs after it.
        isPutting_.store(false);
        input::MouseEvent::castEnded();
        // The next start builds a fresh capture and a fresh encoder bridge; this bridge is
        // stopped here and kept until then.
        releaseCaptureSession();
        if (auto enc = encoder()) {
            if (enc->isRunning()) enc->stopCamera();
            // Our own rule: the kept bridge does not keep its compression session. A hardware
            // session is a scarce device resource and a software one holds several pictures
            // (some 16 MB at 1280x800); the first picture of a later start builds a new one.
            if (auto *h264 = enc->h264Encoder()) h264->invalidate();
        }
        // The desktop's sharing session belongs to the main thread; a cast asked for since
        // this stop has taken a new one, which stays.
        std::weak_ptr<MacScreenCapture *> weak = life_;
        runOnMainThread([weak, prepares] {
            const auto life = weak.lock();
            if (!life) return;
            MacScreenCapture *self = *life;
            if (self->backend_ && self->prepares_.load() == prepares) self->backend_->finishCapture();
        });
    });
}

void MacScreenCapture::runOnCastQueue(std::function<void()> step)
{
    castSteps_.fetch_add(1);
    castQueue_->post([this, step = std::move(step)] {
        step();
        castSteps_.fetch_sub(1);
    });
}

bool MacScreenCapture::castQueueIdle() const { return castSteps_.load() == 0; }

void MacScreenCapture::pausePut(bool pause) { isPause_.store(pause); }

void MacScreenCapture::audioEnable(bool enable) { isAudioUse_.store(enable); }

void MacScreenCapture::changeSizeForCount(int64_t count)
{
    if (count <= 0) return;
    splitCount_.store(count);
    const int64_t divisor = count == 1 ? 1 : count <= 6 ? 2 : 3;
    const auto enc = encoder();
    if (!enc) return;
    const QSizeF size = screenSize();
    enc->changeOutputSize({size.width() / double(divisor), size.height() / double(divisor)});
    enc->changeBitrate(bitRate_.load() / divisor);
}

// --- Control messages --------------------------------------------------------------------

void MacScreenCapture::listenMsg(bool listen)
{
    if (listen) {
        // One observation at most, however many requests came before.
        if (listeningCount() > 0) return;
        Observation o = NotificationCenter::defaultCenter().addObserver(QString::fromLatin1(notice::NETCONTROL_RECEIVE),
                                                                         [this](const QVariant &message) { receiveMsg(message); });
        std::lock_guard lock(listenMutex_);
        listening_.push_back(std::move(o));
        return;
    }
    std::vector<Observation> gone;
    {
        std::lock_guard lock(listenMutex_);
        gone.swap(listening_);
    }
    // Destroyed outside the lock: a reset waits for a delivery in progress on another
    // thread, and that delivery may itself be calling listenMsg.
    gone.clear();
}

int MacScreenCapture::listeningCount() const
{
    std::lock_guard lock(listenMutex_);
    return int(listening_.size());
}

void MacScreenCapture::receiveMsg(const QVariant &message)
{
    const QString id = messageId(message);
    const QVariantMap property = messageProperty(message.toMap());
    if (id == kPermissionAllow) {
        // Building and starting the capture and the push's connect wait run off this
        // (the window's) thread; a stop in between voids the start.
        if (!isPutting_.load()) startPutFuction();
    } else if (id == kPermissionRefuse) {
        listenMsg(false);
    } else if (id == kPermissionDisconnect) {
        if (lenientInt(property, QStringLiteral("type")) != kScreenType) return;
        listenMsg(false);
        stopPutFouction();
        NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_BESTOPSCREENCAPTURE));
    } else if (id == kCodecResize) {
        if (lenientInt(property, QStringLiteral("type")) != kScreenType) return;
        // The encoder finishes its frames at the old size first: not on this thread.
        const int64_t count = lenientInt(property, QStringLiteral("count"));
        runOnCastQueue([this, count] { changeSizeForCount(count); });
    } else if (id == kVideoPause) {
        pausePut(lenientBool(property, QStringLiteral("pause")));
    } else if (id == kAudioCtrl) {
        audioEnable(lenientInt(property, QStringLiteral("type")) == 1);
    } else if (id == kPcMkEvent) {
        mouseEventWithType(int32Value(property, "type"), int32Value(property, "x"), int32Value(property, "y"), int32Value(property, "width"),
                           int32Value(property, "height"), int32Value(property, "wheel_x"), int32Value(property, "wheel_y"));
    }
}

void MacScreenCapture::sendStartMessage() { sendDic(screenMessage(kPermissionRequest)); }

void MacScreenCapture::sendStopMessage() { sendDic(screenMessage(kPermissionDisconnect)); }

void MacScreenCapture::sendDic(const QVariantMap &message)
{
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NETCONTROL_SEND), message);
}

void MacScreenCapture::mouseEventWithType(int32_t type, int32_t x, int32_t y, int32_t width, int32_t height, int32_t wheel_x,
                                          int32_t wheel_y)
{
    if (type == 0) return;
    // Mapped and acted on in the main thread, in arrival order, against the screen size
    // and the cast state of that moment.
    std::weak_ptr<MacScreenCapture *> weak = life_;
    runOnMainThread([weak, type, x, y, width, height, wheel_x, wheel_y] {
        const auto life = weak.lock();
        if (!life) return;
        if (!input::MouseEvent::isCastRunning()) {
            logLine(lcCapture(), QStringLiteral("mouseEventWithType: type %1 x %2 y %3 width %4 height %5 wheel_x %6 wheel_y %7 dropped: no cast is running")
                                     .arg(type).arg(x).arg(y).arg(width).arg(height).arg(wheel_x).arg(wheel_y));
            return;
        }
        const QSizeF screen = (*life)->screenSize();
        QPointF point(x, y);
        if (double(width) != screen.width() || double(height) != screen.height()) {
            // Where the screen's picture sits in the receiver's area; positions in its black
            // bars land outside the screen and are handed on as they are.
            const QRectF r = resizeCalWithAimWidth(width, height, screen.width(), screen.height(), false);
            point = QPointF((x - r.x()) / r.width() * screen.width(), (y - r.y()) / r.height() * screen.height());
        }
        if (!std::isfinite(point.x()) || !std::isfinite(point.y())) {
            if (type != input::MouseEvent::kTypeScroll) {
                logLine(lcCapture(), QStringLiteral("mouseEventWithType: type %1 in an empty %2x%3 area dropped").arg(type).arg(width).arg(height));
                return;
            }
            point = QPointF(); // the wheel needs no position
        }
        input::MouseEvent::eventWithType(type, point, QPointF(wheel_x, wheel_y));
    });
}

// --- Building the capture ----------------------------------------------------------------

void MacScreenCapture::configScreenCapture()
{
    std::lock_guard lock(sessionMutex_);
    splitCount_.store(1);
    if (!backend_ && backendFactory_) backend_ = backendFactory_();
    if (!backend_) {
        logLine(lcCapture(), QStringLiteral("screen capture is not available here; the cast does not start"));
        return;
    }
    QString why;
    std::optional<capture::MainDisplay> display = backend_->mainDisplay(&why);
    if (!display) {
        logLine(lcCapture(), QStringLiteral("cannot capture the screen: %1; the cast does not start").arg(why));
        return;
    }
    displayID_.store(display->displayID);
    {
        std::lock_guard props(propertyMutex_);
        display_ = display;
    }
    captureSession_ = std::make_unique<CaptureSession>();
    configVideoWithSession();
    configAudioWithSession();
    configEncoder();
}

void MacScreenCapture::configVideoWithSession()
{
    std::lock_guard lock(sessionMutex_);
    std::optional<capture::MainDisplay> display;
    {
        std::lock_guard props(propertyMutex_);
        display = display_;
    }
    if (!captureSession_ || !backend_ || !display) return;
    QString error;
    captureSession_->video = backend_->makeScreenInput(
        *display, [this](const capture::MediaSample &sample) { captureOutput(sample, Output::Video); }, &error);
    if (!captureSession_->video) logLine(lcCapture(), QStringLiteral("ERROR: input video: %1").arg(error));
}

void MacScreenCapture::configAudioWithSession()
{
    std::lock_guard lock(sessionMutex_);
    if (!captureSession_ || !backend_) return;
    QString error;
    captureSession_->audio = backend_->makeAudioInput([this](const capture::MediaSample &sample) { captureOutput(sample, Output::Audio); },
                                                      &error);
    // The cast goes on without sound.
    if (!captureSession_->audio) logLine(lcCapture(), QStringLiteral("ERROR: input audio: %1").arg(error));
}

void MacScreenCapture::configEncoder()
{
    std::lock_guard lock(sessionMutex_);
    auto fresh = std::make_shared<push::CameraEncoder>();
    // The bridge's state reports are not acted on here.
    fresh->setStateBlock([](int32_t) {});
    std::shared_ptr<push::CameraEncoder> previous;
    {
        std::lock_guard encoderLock(encoderMutex_);
        previous = std::exchange(cameraEncoder_, fresh);
    }
    // The previous bridge was stopped when its cast ended; no capture runs now.
    previous.reset();

    QSizeF size;
    {
        std::lock_guard props(propertyMutex_);
        if (display_) size = QSizeF(display_->width, display_->height);
    }
    setScreenSize(size);
    pictureSize_.store((int64_t(size.width()) << 32) | int64_t(size.height()));
    fresh->changeOutputSize({size.width(), size.height()});
    bitRate_.store(kFullBitRate);
    fresh->changeBitrate(kFullBitRate);
}

void MacScreenCapture::releaseCaptureSession()
{
    std::lock_guard lock(sessionMutex_);
    if (!captureSession_) return;
    captureSession_->stopRunning();
    captureSession_.reset();
}

// --- Samples -----------------------------------------------------------------------------

void MacScreenCapture::captureOutput(const capture::MediaSample &sample, Output output)
{
    (output == Output::Video ? videoCaptured_ : audioCaptured_).fetch_add(1);
    if (!isPutting_.load() || isPause_.load()) return;
    const auto enc = encoder();
    if (!enc) return;
    if (output == Output::Video) {
        followPictureSize(sample.width(), sample.height());
        videoForwarded_.fetch_add(1);
        enc->pushBuffer(sample);
    } else if (isAudioUse_.load()) {
        audioForwarded_.fetch_add(1);
        enc->pushAudioBuffer(sample);
    }
}

// The screen being shared can change size during a cast (a monitor re-arranged, or a portal
// that did not say the size up front): screenSize and the encoder follow the pictures, and
// the encoder starts again at the new size with a key frame. Capture thread.
void MacScreenCapture::followPictureSize(int width, int height)
{
    if (width <= 0 || height <= 0) return;
    const int64_t packed = (int64_t(width) << 32) | int64_t(height);
    if (pictureSize_.exchange(packed) == packed) return;
    logLine(lcCapture(), QStringLiteral("the shared screen is now %1x%2").arg(width).arg(height));
    setScreenSize(QSizeF(width, height));
    {
        // Remote input places positions on the picture as it is now.
        std::lock_guard props(propertyMutex_);
        if (inputStream_.area.size() != QSize(width, height)) {
            inputStream_.area.setSize(QSize(width, height));
            input::InputEvent::setCaptureStream(inputStream_);
        }
    }
    changeSizeForCount(splitCount_.load());
}

// --- Fit ---------------------------------------------------------------------------------

// The source keeps its aspect ratio r and is centred in the aim area. A width fit takes the
// aim's width (and falls back to a height fit when the result is too tall); a height fit
// takes the aim's height and is not checked against the aim's width. Which fit applies:
//   1. source as wide or wider, not taller            -> width fit
//   2. source as narrow or narrower, as tall or taller -> height fit
//   3. source larger in both                          -> landscape source: width fit;
//      otherwise a landscape (or square) aim: height fit; a portrait aim: width fit for a
//      square source, height fit for a portrait one (which can come out wider than the aim)
//   4. source smaller in both                         -> kept as is with keepOriSize,
//      otherwise scaled up to the aim's height, or to its width when that is too wide.
QRectF MacScreenCapture::resizeCalWithAimWidth(double aimWidth, double aimHeight, double sourceWidth, double sourceHeight, bool keepOriSize)
{
    const double r = sourceWidth / sourceHeight;
    double w = 0;
    double h = 0;
    const auto heightFit = [&] {
        w = r * aimHeight;
        h = aimHeight;
    };
    const auto widthFit = [&] {
        w = aimWidth;
        h = aimWidth / r;
        if (h > aimHeight) heightFit();
    };
    if (sourceWidth >= aimWidth && aimHeight >= sourceHeight) {
        widthFit();
    } else if (aimWidth >= sourceWidth && sourceHeight >= aimHeight) {
        heightFit();
    } else if (sourceWidth > aimWidth && sourceHeight > aimHeight) {
        if (sourceWidth > sourceHeight)
            widthFit();
        else if (aimHeight <= aimWidth)
            heightFit();
        else if (sourceWidth == sourceHeight)
            widthFit();
        else
            heightFit();
    } else if (keepOriSize) {
        w = sourceWidth;
        h = sourceHeight;
    } else {
        w = r * aimHeight;
        h = aimHeight;
        if (w > aimWidth) {
            w = aimWidth;
            h = aimWidth / r;
        }
    }
    return QRectF((aimWidth - w) * 0.5, (aimHeight - h) * 0.5, w, h);
}

// --- Properties --------------------------------------------------------------------------

QString MacScreenCapture::ipStr() const
{
    std::lock_guard lock(propertyMutex_);
    return ipStr_;
}

void MacScreenCapture::setIpStr(const QString &ip)
{
    std::lock_guard lock(propertyMutex_);
    ipStr_ = ip;
}

QSizeF MacScreenCapture::screenSize() const
{
    std::lock_guard lock(propertyMutex_);
    return screenSize_;
}

void MacScreenCapture::setScreenSize(QSizeF size)
{
    std::lock_guard lock(propertyMutex_);
    screenSize_ = size;
}

push::CameraEncoder *MacScreenCapture::cameraEncoder() const { return encoder().get(); }

std::shared_ptr<push::CameraEncoder> MacScreenCapture::encoder() const
{
    std::lock_guard lock(encoderMutex_);
    return cameraEncoder_;
}

MacScreenCapture::SampleCounts MacScreenCapture::sampleCounts() const
{
    return {videoCaptured_.load(), videoForwarded_.load(), audioCaptured_.load(), audioForwarded_.load()};
}

bool MacScreenCapture::hasAudioInput() const
{
    std::lock_guard lock(sessionMutex_);
    return captureSession_ && captureSession_->audio;
}

} // namespace velocast
