// The casting session against the reference receiver on loopback: the fit, scaling, permission
// and steering; under an X server and PulseAudio, real casts taken in without a violation.
#include "capture/session/mac_screen_capture.h"

#include "common/lenient_value.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "control/connection_session.h"
#include "control/net_control.h"
#include "media_test_support.h"
#include "push/bridge/camera_encoder.h"
#include "support/child_process.h"
#include "support/loopback_peer.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <X11/Xlib.h>

#include <future>

using namespace velocast;
using velocast::test::LogRecorder;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// No capture backend: the message handling alone, whatever the machine has.
std::unique_ptr<capture::CaptureBackend> noBackend() { return nullptr; }

TEST(MacScreenCapture, FitPlacesTheSourceInTheAim)
{
    const struct {
        double aimW, aimH, srcW, srcH;
        bool keep;
        QRectF want;
    } cases[] = {
        {1920, 1080, 1280, 800, false, {96, 0, 1728, 1080}}, // up to the aim's height
        {1920, 1080, 1280, 800, true, {320, 140, 1280, 800}},
        {1280, 720, 2880, 1800, false, {64, 0, 1152, 720}},   // width fit too tall
        {1000, 800, 2000, 500, false, {0, 275, 1000, 250}},
        {1000, 800, 400, 1600, false, {400, 0, 200, 800}},
        {720, 1280, 2000, 2000, false, {0, 280, 720, 720}},
        {720, 1280, 1500, 2000, false, {-120, 0, 960, 1280}}, // unchecked: wider than the aim
    };
    for (const auto &c : cases)
        EXPECT_EQ(MacScreenCapture::resizeCalWithAimWidth(c.aimW, c.aimH, c.srcW, c.srcH, c.keep), c.want)
            << c.srcW << "x" << c.srcH << " in " << c.aimW << "x" << c.aimH;
}

TEST(MacScreenCapture, SplitScreenCountScalesWhatTheEncoderGets)
{
    MacScreenCapture capture(noBackend);
    capture.changeSizeForCount(2); // no bridge yet: nothing to scale, nothing breaks
    capture.configEncoder();
    ASSERT_NE(capture.cameraEncoder(), nullptr);
    capture.setScreenSize(QSizeF(1920, 1080));
    capture::H264HWEncoder *h264 = capture.cameraEncoder()->h264Encoder();
    const struct {
        int64_t count;
        double w, h;
        int64_t rate;
    } steps[] = {{7, 640, 360, 1333333}, {1, 1920, 1080, 4000000}, {2, 960, 540, 2000000}, {0, 960, 540, 2000000},
                 {6, 960, 540, 2000000}, {100, 640, 360, 1333333}, {-3, 640, 360, 1333333}, {1, 1920, 1080, 4000000}};
    for (const auto &s : steps) {
        capture.changeSizeForCount(s.count);
        EXPECT_EQ(h264->outputSize().width, s.w) << "count " << s.count;
        EXPECT_EQ(h264->outputSize().height, s.h) << "count " << s.count;
        EXPECT_EQ(h264->bitrate(), s.rate) << "count " << s.count;
        EXPECT_EQ(capture.bitRate(), 4000000) << "the full rate stays";
    }
}

// A control channel to a reference receiver on loopback.
struct Link {
    explicit Link(QStringList receiverArgs = {}) : receiver(std::move(receiverArgs))
    {
        if (!ReferenceReceiver::available() || !receiver.start()) return;
        control.setControlPort(receiver.controlPort());
        control.connect("127.0.0.1", [this](bool ok) { connected = ok; });
        waitUntil([this] { return connected; }, 10s);
    }
    bool receivedCount(const QString &id, int n) { return waitUntil([&] { return receiver.received(id).size() >= n; }, 10s); }
    ReferenceReceiver receiver;
    NetControl control;
    bool connected = false;
    int stops = 0; // NOTICE_BESTOPSCREENCAPTURE
    Observation stopTap = NotificationCenter::defaultCenter().addObserver(notice::NOTICE_BESTOPSCREENCAPTURE, [this](const QVariant &) { ++stops; });
};

#define REQUIRE_LINK(link)                                                                                                  \
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";                          \
    ASSERT_TRUE((link).connected) << (link).receiver.error().toStdString()

bool isScreenType(const QJsonObject &event) { return event.value("property").toObject().value("type") == QJsonValue(2); }

// While a request is open: pause and audio read leniently, other disconnects and ids ignored,
// the screen's disconnect ends it, a refusal ends all handling; requests in any order listen once.
TEST(MacScreenCapture, SteeringMessagesWhileARequestIsOpenAndRequestsListenOnce)
{
    Link link({"--permission", "manual"});
    REQUIRE_LINK(link);
    ReferenceReceiver &receiver = link.receiver;
    MacScreenCapture capture(noBackend);
    NotificationCenter::defaultCenter().post(notice::NOTICE_STARTSCREENCAPTURE);
    ASSERT_TRUE(link.receivedCount("id_permission_request", 1));
    EXPECT_TRUE(isScreenType(receiver.received("id_permission_request").first()));
    EXPECT_EQ(capture.listeningCount(), 1);

    const struct {
        const char *command;
        bool pause, audio;
    } steps[] = {{"pause", true, false}, {R"(send id_video_pause {"pause":"0"})", false, false}, {"audio on", false, true},
                 {"audio 2", false, false}, {"audio on", false, true}, {"audio off", false, false}, {"audio on", false, true},
                 {"send id_audio_ctrl {}", false, false}, {R"(send id_audio_ctrl {"type":"1"})", false, true}, {"audio 0", false, false}};
    for (const auto &s : steps) {
        receiver.command(s.command);
        ASSERT_TRUE(waitUntil([&] { return capture.isPause() == s.pause && capture.isAudioUse() == s.audio; })) << s.command;
    }
    receiver.command("stop 1");
    receiver.command(R"(send id_permission_disconnect {"type":3})");
    receiver.command("send id_unknown_thing {}");
    receiver.command("pause"); // a marker that the ignored ones went by
    ASSERT_TRUE(waitUntil([&] { return capture.isPause(); }));
    EXPECT_EQ(link.stops, 0);
    EXPECT_EQ(capture.listeningCount(), 1);
    receiver.command(R"(send id_permission_disconnect {"type":"2"})");
    ASSERT_TRUE(waitUntil([&] { return link.stops == 1 && capture.listeningCount() == 0; }));
    EXPECT_TRUE(capture.isPause());

    capture.startPut();
    receiver.command("resume");
    ASSERT_TRUE(waitUntil([&] { return !capture.isPause(); }));
    receiver.command("deny 2");
    ASSERT_TRUE(waitUntil([&] { return capture.listeningCount() == 0; }));
    // A late allow or pause is not seen. Each message reaches every observer in one delivery,
    // so once this one has seen the last of them, so could we.
    QStringList seen;
    Observation tap = NotificationCenter::defaultCenter().addObserver(notice::NETCONTROL_RECEIVE, [&](const QVariant &m) { seen << messageId(m); });
    LogRecorder log;
    receiver.command("grant");
    receiver.command("pause");
    receiver.command(R"(send id_pc_mk_event {"type":1})");
    ASSERT_TRUE(waitUntil([&] { return seen.contains("id_pc_mk_event"); }));
    EXPECT_FALSE(capture.isPause());
    EXPECT_FALSE(capture.isPutting());
    EXPECT_FALSE(log.lines().join('\n').contains("mouseEventWithType"));

    const QString line = "mouseEventWithType: type 1 x 10 y 20 width 1920 height 1080 wheel_x 0 wheel_y 0 dropped: no cast is running";
    int requests = int(receiver.received("id_permission_request").size());
    // Each round of requests ends with exactly one observation, or none after an ending.
    struct Round {
        const char *name;
        int starts;
        std::function<void()> end;
    };
    const Round rounds[] = {
        {"twice", 2, nullptr},
        {"after a refusal", 1, [&] { link.receiver.command("deny 2"); }},
        {"after a stop with nothing casting", 1, [&] { capture.stopPut(); }},
        {"after the receiver's disconnect", 1, [&] { link.receiver.command("stop"); }},
    };
    for (const Round &r : rounds) {
        if (r.end) {
            r.end();
            ASSERT_TRUE(waitUntil([&] { return capture.listeningCount() == 0; })) << r.name;
        }
        for (int i = 0; i < r.starts; ++i) capture.startPut();
        requests += r.starts;
        ASSERT_TRUE(link.receivedCount("id_permission_request", requests)) << r.name;
        EXPECT_EQ(capture.listeningCount(), 1) << r.name;
        LogRecorder roundLog;
        link.receiver.command("mouse 1 10 20 1920 1080 0 0");
        link.receiver.command("pause"); // a marker: every delivery of the mouse event is over
        ASSERT_TRUE(waitUntil([&] { return capture.isPause(); })) << r.name;
        // The line is written on the main thread's next turn; a second one would come with it.
        ASSERT_TRUE(waitUntil([&] { return roundLog.count(line) >= 1; })) << r.name;
        link.receiver.command("resume");
        ASSERT_TRUE(waitUntil([&] { return !capture.isPause(); })) << r.name;
        EXPECT_EQ(roundLog.count(line), 1) << r.name;
    }
    capture.listenMsg(false);
    EXPECT_EQ(capture.listeningCount(), 0);
}

// Each of the four stop requests sends the disconnect, nothing casting or not; the user's
// disconnect does so before the connection session (subscribed first, as in the program)
// closes the channel.
TEST(MacScreenCapture, EveryStopRequestPutsADisconnectOnTheWire)
{
    Link link;
    REQUIRE_LINK(link);
    struct : ConnectionSessionView {
        void reSetTextFields() override { }
        void setLoadingVisible(bool) override { }
        void setTipVisible(bool, const QString &) override { }
        void showCastingPanel(const QString &) override { }
        void setCastingPanelName(const QString &) override { }
        void removeCastingPanel() override { }
    } view;
    ConnectionSession session(view, link.control);
    MacScreenCapture capture(noBackend);
    int n = 0;
    capture.stopPut();
    ASSERT_TRUE(link.receivedCount("id_permission_disconnect", ++n));
    for (const char *name : {notice::NOTICE_STOPSCREENCAPTURE, notice::NOTICE_BEDISCONNECT, notice::NOTICE_DISCONNECT}) {
        NotificationCenter::defaultCenter().post(name);
        ASSERT_TRUE(link.receivedCount("id_permission_disconnect", ++n)) << name;
    }
    ASSERT_TRUE(link.receiver.waitForEvent("control_closed"));
    EXPECT_FALSE(link.control.stream());
    for (const QJsonObject &e : link.receiver.received("id_permission_disconnect")) EXPECT_TRUE(isScreenType(e));
    EXPECT_EQ(link.receiver.received("id_permission_request").size(), 0);
}

// --- Real capture ---------------------------------------------------------------------------

struct CastRig {
    CastRig() : link({"--output-dir", out = velocast::test::freshTempDir(), "--log-frames"})
    {
        capture.setIpStr("127.0.0.1");
        capture.setVPort(link.receiver.mediaPort());
        capture.setAPort(link.receiver.mediaPort());
    }
    QString out;
    Link link;
    MacScreenCapture capture;
};

// Sockets here trying to connect to that port (SYN_SENT in /proc/net/tcp).
int connectsPendingTo(uint16_t port)
{
    QFile f("/proc/net/tcp");
    if (!f.open(QIODevice::ReadOnly)) return 0;
    const QByteArray remote = ':' + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    int n = 0;
    for (const QByteArray &line : f.readAll().split('\n')) {
        const QList<QByteArray> cols = line.simplified().split(' ');
        n += cols.size() > 3 && cols[2].endsWith(remote) && cols[3] == "02";
    }
    return n;
}

// A call queued on the main thread's event loop now: true once it ran and check() held then.
bool ranWhile(std::function<bool()> check)
{
    auto state = std::make_shared<std::pair<bool, bool>>(); // ran, check()
    QMetaObject::invokeMethod(QCoreApplication::instance(), [state, check] { *state = {true, check()}; }, Qt::QueuedConnection);
    return waitUntil([&] { return state->first; }, 20s) && state->second;
}

// Holds the encoder's output thread inside its delivery while closed: no flush can finish.
struct DeliveryGate : capture::H264OutputObserver {
    void didDeliver(capture::MediaTime, size_t, bool) override
    {
        if (!closed) return;
        held = true;
        opened.wait_for(10s); // bounded only so that a failing run cannot hang
        held = false;
    }
    std::atomic<bool> closed = false, held = false;
    std::promise<void> open;
    std::shared_future<void> opened = open.get_future().share();
};

// Work waiting on the cast queue leaves the window's loop turning: the push's connect to a port
// that drops connection attempts, and the flush at the old size when the receiver resizes while
// the encoder cannot deliver. The second cast has no sound server to open: video only.
TEST(MacScreenCaptureCast, BlockingCastWorkLeavesTheWindowRunning)
{
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (DISPLAY is not set; scripts/test.sh starts Xvfb)";
    DeliveryGate gate; // outlives the encoder
    CastRig rig;
    REQUIRE_LINK(rig.link);
    MacScreenCapture &capture = rig.capture;
    ReferenceReceiver &receiver = rig.link.receiver;
    {
        velocast::test::HangingListener silent;
        capture.setVPort(silent.port());
        const auto pushConnecting = [&, fillers = connectsPendingTo(silent.port())] { return connectsPendingTo(silent.port()) > fillers; };
        capture.startPut();
        ASSERT_TRUE(waitUntil(pushConnecting, 20s));
        EXPECT_TRUE(ranWhile([&] { return pushConnecting() && !capture.castQueueIdle(); })) << "the main thread waited for the connect";
        // The push gives up on its own; the cast then stops as usual.
        ASSERT_TRUE(waitUntil([&] { return capture.isPutting() && capture.castQueueIdle(); }, 20s));
        capture.stopPut();
        ASSERT_TRUE(waitUntil([&] { return !capture.isPutting() && capture.castQueueIdle(); }));
        EXPECT_TRUE(rig.link.receivedCount("id_permission_disconnect", 1));
    }
    capture.setVPort(receiver.mediaPort());
    LogRecorder log;
    const QByteArray pulse = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", "unix:" + QDir(velocast::test::freshTempDir()).filePath("no-server").toLocal8Bit());
    capture.startPut();
    const bool started = waitUntil([&] { return receiver.count("video_frame") >= 5; }, 20s);
    pulse.isNull() ? qunsetenv("PULSE_SERVER") : qputenv("PULSE_SERVER", pulse);
    ASSERT_TRUE(started);
    EXPECT_FALSE(capture.hasAudioInput());
    EXPECT_EQ(log.lines().filter("ERROR: input audio: ").size(), 1) << log.lines().join('\n').toStdString();
    const uint64_t sound = capture.sampleCounts().audioCaptured;
    capture::H264HWEncoder *h264 = capture.cameraEncoder()->h264Encoder();
    h264->setOutputObserver(&gate);
    gate.closed = true;
    ASSERT_TRUE(waitUntil([&] { return gate.held.load(); }, 20s));
    receiver.command("resize 2");
    ASSERT_TRUE(waitUntil([&] { return h264->unable() && !capture.castQueueIdle(); }, 20s)) << "the flush began off the main thread";
    EXPECT_TRUE(ranWhile([&] { return gate.held && h264->unable(); })) << "the main thread waited for the flush";
    gate.closed = false;
    gate.open.set_value();
    ASSERT_TRUE(waitUntil([&] { return capture.castQueueIdle() && h264->bitrate() == 2000000; }, 20s));
    const int before = receiver.count("video_frame");
    ASSERT_TRUE(waitUntil([&] { return receiver.count("video_frame") >= before + 5; }, 20s)) << "the smaller picture goes out";
    h264->setOutputObserver(nullptr);
    receiver.command("audio on");
    ASSERT_TRUE(waitUntil([&] { return capture.isAudioUse(); }));
    EXPECT_EQ(capture.sampleCounts().audioCaptured, sound);
    capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !capture.isPutting() && capture.castQueueIdle(); }));
}

// A colour over the screen comes back as it was from what the receiver wrote (ffmpeg converts
// with the matrix the stream signals); the cast follows the receiver's audio, pause and end;
// each other ending stops a cast and the next allow builds a fresh bridge; no violation.
TEST(MacScreenCaptureCast, CastArrivesAsShownFollowsTheReceiverAndEachEnding)
{
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (DISPLAY is not set; scripts/test.sh starts Xvfb)";
    if (!std::getenv("PULSE_SERVER")) GTEST_SKIP() << "no PulseAudio server (PULSE_SERVER is not set; scripts/test.sh starts one)";
    if (!velocast::test::haveFfprobe() || QStandardPaths::findExecutable("ffmpeg").isEmpty()) GTEST_SKIP() << "no ffmpeg here";
    const int colour[3] = {200, 120, 40}; // no grey: a swap of red and blue or a wrong matrix shows
    std::unique_ptr<Display, int (*)(Display *)> dpy(XOpenDisplay(nullptr), XCloseDisplay);
    ASSERT_TRUE(dpy);
    Display *d = dpy.get();
    const int sw = DisplayWidth(d, DefaultScreen(d)), sh = DisplayHeight(d, DefaultScreen(d));
    ASSERT_EQ(DefaultDepth(d, DefaultScreen(d)), 24);
    XSetWindowAttributes attributes{};
    attributes.override_redirect = True;
    attributes.background_pixel = colour[0] << 16 | colour[1] << 8 | colour[2];
    const Window w = XCreateWindow(d, DefaultRootWindow(d), 0, 0, unsigned(sw), unsigned(sh), 0, CopyFromParent, InputOutput, CopyFromParent,
                                   CWOverrideRedirect | CWBackPixel, &attributes);
    XMapRaised(d, w);
    XSync(d, False);
    CastRig rig;
    REQUIRE_LINK(rig.link);
    ReferenceReceiver &receiver = rig.link.receiver;
    MacScreenCapture &capture = rig.capture;
    const auto more = [&](const char *event, int n) {
        const int target = receiver.count(event) + n;
        return waitUntil([&] { return receiver.count(event) >= target; }, 30s);
    };
    capture.startPut();
    ASSERT_TRUE(receiver.waitForEvent("media_connected", {}, 20s));
    EXPECT_TRUE(capture.hasAudioInput());
    ASSERT_TRUE(more("video_frame", 45));
    EXPECT_FALSE(capture.isAudioUse()) << "a cast starts with audio off";
    EXPECT_EQ(capture.sampleCounts().audioForwarded, 0u);
    EXPECT_TRUE(waitUntil([&] { return capture.sampleCounts().audioCaptured > 0; }, 10s)) << "no sound captured";
    receiver.command("audio on");
    ASSERT_TRUE(more("audio_frame", 20));
    // Paused: samples keep coming in from capture and none goes on to the encoder.
    receiver.command("pause");
    ASSERT_TRUE(waitUntil([&] { return capture.isPause(); }));
    const auto paused = capture.sampleCounts();
    ASSERT_TRUE(waitUntil([&] {
        const auto now = capture.sampleCounts();
        return now.videoCaptured >= paused.videoCaptured + 10 && now.audioCaptured >= paused.audioCaptured + 10;
    }, 20s));
    EXPECT_EQ(capture.sampleCounts().videoForwarded, paused.videoForwarded);
    EXPECT_EQ(capture.sampleCounts().audioForwarded, paused.audioForwarded);
    receiver.command("resume");
    ASSERT_TRUE(more("video_frame", 10));
    receiver.command("stop");
    ASSERT_TRUE(waitUntil([&] { return rig.link.stops == 1 && !capture.isPutting(); }));
    EXPECT_FALSE(capture.isAudioUse());
    EXPECT_EQ(capture.listeningCount(), 0);
    ASSERT_TRUE(receiver.waitForEvent("media_closed"));
    XDestroyWindow(d, w);
    XSync(d, False);

    const QString file = QDir(rig.out).filePath("video.h264");
    const QJsonObject vs = velocast::test::ffprobeStream(file, "width,height,color_space,color_range");
    EXPECT_EQ(QJsonDocument(vs).toJson(QJsonDocument::Compact),
              QString(R"({"color_range":"tv","color_space":"bt709","height":%1,"width":%2})").arg(sh).arg(sw).toUtf8());
    // The mean of 16x16 pixels of frame 40 (away from the pointer in the middle), well after the
    // colour was on the screen.
    const QString filters = "select=eq(n\\,40),crop=16:16:32:32,scale=1:1:flags=area";
    const auto rgb = test::ChildProcess::run("ffmpeg", {"-v", "error", "-i", file, "-vf", filters, "-frames:v", "1", "-f", "rawvideo",
                                                        "-pix_fmt", "rgb24", "-"});
    ASSERT_TRUE(rgb && rgb->size() == 3);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(uint8_t(rgb->at(c)), colour[c], 6) << "channel " << c;

    // Losing the receiver (no channel left to tell it on) and the application's stop: audio
    // is off at once, the bridge stops, and the next cast has its own.
    push::CameraEncoder *last = capture.cameraEncoder();
    for (const auto &[ending, disconnects] : {std::pair{notice::NETCONTROL_CONNECTBROKEN, 0}, {notice::NOTICE_STOPSCREENCAPTURE, 1}}) {
        SCOPED_TRACE(ending);
        const int casts = receiver.count("media_connected"), told = int(receiver.received("id_permission_disconnect").size());
        capture.startPut();
        ASSERT_TRUE(waitUntil([&] { return receiver.count("media_connected") == casts + 1; }, 20s));
        EXPECT_NE(capture.cameraEncoder(), last) << "each cast builds its own bridge";
        EXPECT_FALSE(capture.isAudioUse());
        ASSERT_TRUE(more("video_frame", 5));
        capture.audioEnable(true);
        last = capture.cameraEncoder();
        NotificationCenter::defaultCenter().post(ending);
        EXPECT_FALSE(capture.isAudioUse()) << "cleared at once";
        ASSERT_TRUE(waitUntil([&] { return !capture.isPutting() && capture.castQueueIdle(); }));
        EXPECT_FALSE(last->isRunning());
        EXPECT_EQ(capture.listeningCount(), 0);
        ASSERT_TRUE(waitUntil([&] { return receiver.count("media_closed") == casts + 1; }));
        EXPECT_EQ(receiver.received("id_permission_disconnect").size(), told + disconnects);
    }
    receiver.command("quit");
    ASSERT_TRUE(receiver.waitForEvent("media_report", {}, 20s));
    const QJsonObject report = receiver.events("media_report").last();
    EXPECT_EQ(report.value("violation_count").toInt(), 0) << QJsonDocument(report).toJson().constData();
    EXPECT_GE(report.value("video").toArray().first().toObject().value("frames").toInt(), 50);
    EXPECT_GE(report.value("audio").toObject().value("frames").toInt(), 20);
}

} // namespace
