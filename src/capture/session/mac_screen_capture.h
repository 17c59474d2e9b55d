// MacScreenCapture: the casting session. It turns an established control connection into a
// running cast: asks the receiver for permission, starts and stops capture and the push on
// the receiver's word, and applies the receiver's pause, size and audio commands.
//
// It is reached only through notifications: it observes the application's start and stop
// requests (NOTICE_STARTSCREENCAPTURE, NOTICE_STOPSCREENCAPTURE, NOTICE_BEDISCONNECT,
// NOTICE_DISCONNECT), the heartbeat's loss of the receiver (NETCONTROL_CONNECTBROKEN) and,
// while a request is open, the control channel's NETCONTROL_RECEIVE (one observation at
// most); it sends by posting NETCONTROL_SEND, and posts NOTICE_BESTOPSCREENCAPTURE when the
// receiver ends the cast. When the screen cannot be captured after the receiver allowed the
// cast, it tells the receiver the cast ended, posts NOTICE_BESTOPSCREENCAPTURE and
// NOTICE_SCREENCAPTURESTATE [false, why].
//
// Threads. Notifications are handled on the thread that posts them (the main thread in the
// program). Everything that can block runs on the "cast queue", in the order it was asked
// for: building and starting the capture, the push's connect (startLiving), stopping the
// capture and the push (stopCamera), and the encoder's size change. Pictures arrive on the
// "delegate queue" thread and sound on the "Audio Capture Queue" thread; both read
// isPutting, isPause and isAudioUse as plain flags, so a sample may slip through just after
// a flag changes. Stopping clears isPutting and isAudioUse at once.
#pragma once

#include "capture/input/input_injector.h"
#include "capture/session/capture_source.h"
#include "common/notification_center.h"
#include "common/serial_queue.h"

#include <QRectF>
#include <QSizeF>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace velocast::push {
class CameraEncoder;
}

namespace velocast::capture {
class PortalSession;
}

namespace velocast {

class MacScreenCapture {
public:
    static constexpr int32_t kDefaultPort = 15630;
    static constexpr int64_t kFullBitRate = 4000000;

    using BackendFactory = std::function<std::unique_ptr<capture::CaptureBackend>()>;

    // The one instance of the program, made on first use (from any thread).
    static MacScreenCapture &shareCapture();

    // Separate instances exist for tests (each observes the notifications while it lives);
    // the program uses shareCapture(). The backend is made when the first cast is built.
    explicit MacScreenCapture(BackendFactory backendFactory = capture::makeCaptureBackendForSession);
    // Stops a running capture and the encoder bridge, and removes every observation.
    ~MacScreenCapture();
    MacScreenCapture(const MacScreenCapture &) = delete;
    MacScreenCapture &operator=(const MacScreenCapture &) = delete;

    void addNotice();

    // The application asks to cast: listen for the answer, then ask the receiver.
    void startPut();
    // The application ends the cast: tell the receiver (always), then stop.
    void stopPut();
    // Starts capture and the push to ipStr; nothing while casting. Builds the capture first
    // when none exists. Runs on the main thread: a desktop that asks the person what to share
    // (the Wayland portal) asks first, without blocking; building the capture and the push's
    // connect then run on the cast queue. A screen that cannot be captured ends the cast on
    // both sides (endCastWithReason).
    void startPutFuction();
    // The cast ends as if the application had stopped it (the receiver is told, the panel
    // goes back to its start state) and the window shows why in a toast. Main thread.
    void endCastWithReason(const QString &why);
    // Stops listening, voids a start still queued and, when casting, clears isPutting and
    // isAudioUse at once; capture and the push stop on the cast queue. Any thread.
    void stopPutFouction();
    void pausePut(bool pause);
    void audioEnable(bool enable);
    // Scales the output size and bit rate for a receiver showing count pictures side by
    // side: 1 full, 2 to 6 halved, 7 or more a third; 0 or less changes nothing.
    void changeSizeForCount(int64_t count);
    // true: handle NETCONTROL_RECEIVE with receiveMsg (once, however often it is called);
    // false: stop handling it.
    void listenMsg(bool listen);
    void receiveMsg(const QVariant &message);
    void sendStartMessage();
    void sendStopMessage();
    void sendDic(const QVariantMap &message);

    // Build the capture (display, inputs) and the encoder bridge.
    void configScreenCapture();
    void configVideoWithSession();
    void configAudioWithSession();
    void configEncoder();

    enum class Output { Video, Audio };
    // Where captured samples come in (the capture threads).
    void captureOutput(const capture::MediaSample &sample, Output output);

    // A pointer event from the receiver (its position in a width x height area), acted on
    // the desktop by remote input while a cast runs; logged and dropped otherwise.
    void mouseEventWithType(int32_t type, int32_t x, int32_t y, int32_t width, int32_t height, int32_t wheel_x, int32_t wheel_y);

    // Places a source of sourceWidth x sourceHeight, kept at its aspect ratio, centred in
    // an aim area; returns the rectangle in aim coordinates. See the .cpp for the rules.
    static QRectF resizeCalWithAimWidth(double aimWidth, double aimHeight, double sourceWidth, double sourceHeight, bool keepOriSize);

    // Properties.
    QString ipStr() const;
    void setIpStr(const QString &ip);
    int32_t vPort() const { return vPort_.load(); }
    void setVPort(int32_t port) { vPort_.store(port); }
    int32_t aPort() const { return aPort_.load(); }
    void setAPort(int32_t port) { aPort_.store(port); }
    uint32_t displayID() const { return displayID_.load(); }
    void setDisplayID(uint32_t id) { displayID_.store(id); }
    QSizeF screenSize() const;
    void setScreenSize(QSizeF size);
    int64_t bitRate() const { return bitRate_.load(); }
    void setBitRate(int64_t rate) { bitRate_.store(rate); }
    bool isPutting() const { return isPutting_.load(); }
    void setIsPutting(bool putting) { isPutting_.store(putting); }
    bool isPause() const { return isPause_.load(); }
    void setIsPause(bool pause) { isPause_.store(pause); }
    bool isAudioUse() const { return isAudioUse_.load(); }
    void setIsAudioUse(bool use) { isAudioUse_.store(use); }
    // The encoder bridge of the current (or last) cast; null before the first build.
    push::CameraEncoder *cameraEncoder() const;

    // Diagnostics (and tests): samples that came in from capture and those handed on to
    // the encoder bridge, per kind, since this object was made.
    struct SampleCounts {
        uint64_t videoCaptured = 0;
        uint64_t videoForwarded = 0;
        uint64_t audioCaptured = 0;
        uint64_t audioForwarded = 0;
    };
    SampleCounts sampleCounts() const;
    // True while a capture exists and has an audio input.
    bool hasAudioInput() const;
    // Observations of NETCONTROL_RECEIVE held now.
    int listeningCount() const;
    // True when no step waits or runs on the cast queue.
    bool castQueueIdle() const;

private:
    class CaptureSession;

    void releaseCaptureSession();
    void runOnCastQueue(std::function<void()> step);
    // Builds the capture when there is none and starts it with the push (cast queue).
    void buildAndStart(uint64_t generation);
    void continueStart();
    // Remote input for a cast shared through the desktop portal (Wayland).
    static void chooseWaylandInput(capture::PortalSession *sharing);
    void followPictureSize(int width, int height);
    std::shared_ptr<push::CameraEncoder> encoder() const;

    const BackendFactory backendFactory_;
    std::unique_ptr<capture::CaptureBackend> backend_;

    mutable std::mutex propertyMutex_;
    QString ipStr_;
    QSizeF screenSize_{0, 0};
    std::optional<capture::MainDisplay> display_; // of the capture being built
    input::CaptureStream inputStream_;             // what remote input was told of the cast

    std::atomic<int32_t> vPort_{kDefaultPort};
    std::atomic<int32_t> aPort_{kDefaultPort};
    std::atomic<uint32_t> displayID_{0};
    std::atomic<int64_t> bitRate_{0};
    std::atomic<bool> isPutting_{false};
    std::atomic<bool> isPause_{false};
    std::atomic<bool> isAudioUse_{false};
    // Between asking the desktop what to share and its answer.
    std::atomic<bool> preparing_{false};
    // How many times the desktop was asked what to share (each cast asks once).
    std::atomic<uint64_t> prepares_{0};
    // The picture size the encoder was last set up for, and the receiver's last split count.
    std::atomic<int64_t> pictureSize_{0};
    std::atomic<int64_t> splitCount_{1};

    std::atomic<uint64_t> videoCaptured_{0};
    std::atomic<uint64_t> videoForwarded_{0};
    std::atomic<uint64_t> audioCaptured_{0};
    std::atomic<uint64_t> audioForwarded_{0};

    // Serialises building, starting and tearing down the capture and the encoder.
    mutable std::recursive_mutex sessionMutex_;
    std::unique_ptr<CaptureSession> captureSession_;
    // Read by the capture threads for every sample; replaced only while no capture runs.
    mutable std::mutex encoderMutex_;
    std::shared_ptr<push::CameraEncoder> cameraEncoder_;

    // Counts stops: a start queued before a stop does not run.
    std::atomic<uint64_t> generation_{0};
    std::atomic<int> castSteps_{0};
    std::unique_ptr<SerialQueue> castQueue_;

    mutable std::mutex listenMutex_;
    std::vector<Observation> listening_;
    std::vector<Observation> notices_;
    // Weak handle for the tasks queued on the main thread.
    std::shared_ptr<MacScreenCapture *> life_;
};

} // namespace velocast
