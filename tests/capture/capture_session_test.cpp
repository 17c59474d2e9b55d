// The casting session: the fit computation, split-screen scaling as the encoder bridge sees
// it, the permission exchange and the receiver's steering messages against the reference
// receiver on loopback, and (under an X server and PulseAudio) a real cast of the screen and
// the default audio input that the receiver takes in without a violation.
#include "capture/session/mac_screen_capture.h"

#include "common/notification_center.h"
#include "common/lenient_value.h"
#include "common/notification_names.h"
#include "control/connection_session.h"
#include "control/net_control.h"
#include "media_test_support.h"
#include "push/bridge/camera_encoder.h"
#include "support/loopback_peer.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <X11/Xlib.h>

#include <cstdlib>
#include <iostream>

using namespace velocast;
using velocast::test::HangingListener;
using velocast::test::LogRecorder;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// No capture backend: the message handling alone, whatever the machine has.
std::unique_ptr<capture::CaptureBackend> noBackend() { return nullptr; }

struct FitCase {
    const char *name;
    double aimW, aimH, srcW, srcH;
    bool keep;
    double x, y, w, h;
};

void PrintTo(const FitCase &c, std::ostream *os) { *os << c.name; }

class Fit : public ::testing::TestWithParam<FitCase> { };

TEST_P(Fit, PlacesTheSourceInTheAim)
{
    const FitCase &c = GetParam();
    const QRectF r = MacScreenCapture::resizeCalWithAimWidth(c.aimW, c.aimH, c.srcW, c.srcH, c.keep);
    EXPECT_DOUBLE_EQ(r.x(), c.x);
    EXPECT_DOUBLE_EQ(r.y(), c.y);
    EXPECT_DOUBLE_EQ(r.width(), c.w);
    EXPECT_DOUBLE_EQ(r.height(), c.h);
}

INSTANTIATE_TEST_SUITE_P(
    MacScreenCapture, Fit,
    ::testing::Values(
        // Smaller in both: scaled up to the aim's height (r = 1.6), or kept as it is.
        FitCase{"smaller_scaled", 1920, 1080, 1280, 800, false, 96, 0, 1728, 1080},
        FitCase{"smaller_kept", 1920, 1080, 1280, 800, true, 320, 140, 1280, 800},
        // Smaller in both, scaled to the height would be too wide: the width wins.
        FitCase{"smaller_wide", 1000, 1000, 400, 100, false, 0, 375, 1000, 250},
        // Larger in both, landscape: the width fit is too tall, so the height fit.
        FitCase{"larger_landscape", 1280, 720, 2880, 1800, false, 64, 0, 1152, 720},
        // Larger in both, landscape source that fits by width.
        FitCase{"larger_by_width", 1280, 1024, 2560, 1440, false, 0, 152, 1280, 720},
        // Wider, not taller: width fit.
        FitCase{"wider", 1000, 800, 2000, 500, false, 0, 275, 1000, 250},
        // Narrower and taller: height fit.
        FitCase{"taller", 1000, 800, 400, 1600, false, 400, 0, 200, 800},
        // Larger in both, portrait source in a landscape aim: height fit.
        FitCase{"portrait_in_landscape", 1280, 720, 1500, 2000, false, 370, 0, 540, 720},
        // Larger in both, portrait aim: a square source takes the width...
        FitCase{"square_in_portrait", 720, 1280, 2000, 2000, false, 0, 280, 720, 720},
        // ...and a portrait one the height, unchecked: it comes out wider than the aim.
        FitCase{"portrait_overflow", 720, 1280, 1500, 2000, false, -120, 0, 960, 1280}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(MacScreenCapture, SplitScreenCountScalesWhatTheEncoderGets)
{
    MacScreenCapture capture(noBackend);
    EXPECT_EQ(capture.vPort(), 15630);
    EXPECT_EQ(capture.aPort(), 15630);
    EXPECT_EQ(capture.screenSize(), QSizeF(0, 0));
    EXPECT_FALSE(capture.isPutting() || capture.isPause() || capture.isAudioUse());
    EXPECT_EQ(capture.cameraEncoder(), nullptr);
    capture.changeSizeForCount(2); // no bridge yet: nothing to scale, nothing breaks

    capture.configEncoder();
    ASSERT_NE(capture.cameraEncoder(), nullptr);
    EXPECT_EQ(capture.bitRate(), 4000000);
    capture.setScreenSize(QSizeF(1920, 1080));
    capture::H264HWEncoder *h264 = capture.cameraEncoder()->h264Encoder();
    ASSERT_NE(h264, nullptr);

    struct Step {
        int64_t count;
        double w, h;
        int64_t rate;
    };
    const Step steps[] = {
        {7, 640, 360, 1333333}, {1, 1920, 1080, 4000000}, {2, 960, 540, 2000000}, {0, 960, 540, 2000000},
        {6, 960, 540, 2000000}, {100, 640, 360, 1333333}, {-3, 640, 360, 1333333}, {1, 1920, 1080, 4000000},
    };
    for (const Step &s : steps) {
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
        control.connect("127.0.0.1", [this](bool ok) {
            connected = ok;
            done = true;
        });
        waitUntil([this] { return done; }, 10s);
    }
    // Waits for the n-th message with that id from us.
    bool receivedCount(const QString &id, int n) { return waitUntil([&] { return receiver.received(id).size() >= n; }, 10s); }
    ReferenceReceiver receiver;
    NetControl control;
    bool connected = false;
    bool done = false;
};

#define REQUIRE_LINK(link)                                                                                                  \
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";                          \
    ASSERT_TRUE((link).connected) << (link).receiver.error().toStdString()

bool isScreenType(const QJsonObject &event) { return event.value("property").toObject().value("type") == QJsonValue(2); }

// Counts NOTICE_BESTOPSCREENCAPTURE.
struct BeStopCounter {
    int count = 0;
    Observation o = NotificationCenter::defaultCenter().addObserver(notice::NOTICE_BESTOPSCREENCAPTURE, [this](const QVariant &) { ++count; });
};

TEST(MacScreenCapture, StartAsksForPermissionAndARefusalEndsListening)
{
    Link link({"--permission", "manual"});
    REQUIRE_LINK(link);
    MacScreenCapture capture(noBackend);
    NotificationCenter::defaultCenter().post(notice::NOTICE_STARTSCREENCAPTURE);
    ASSERT_TRUE(link.receivedCount("id_permission_request", 1));
    EXPECT_TRUE(isScreenType(link.receiver.received("id_permission_request").first()));
    EXPECT_EQ(capture.listeningCount(), 1);

    // Steering messages are handled while listening: pause and audio, read leniently.
    link.receiver.command("pause");
    ASSERT_TRUE(waitUntil([&] { return capture.isPause(); }));
    link.receiver.command(R"(send id_video_pause {"pause":"0"})");
    ASSERT_TRUE(waitUntil([&] { return !capture.isPause(); }));
    link.receiver.command("audio on");
    ASSERT_TRUE(waitUntil([&] { return capture.isAudioUse(); }));
    for (const char *off : {"audio 2", "audio off", "send id_audio_ctrl {}", "audio 0"}) {
        link.receiver.command("audio on");
        ASSERT_TRUE(waitUntil([&] { return capture.isAudioUse(); }));
        link.receiver.command(off);
        ASSERT_TRUE(waitUntil([&] { return !capture.isAudioUse(); })) << off;
    }
    link.receiver.command(R"(send id_audio_ctrl {"type":"1"})");
    ASSERT_TRUE(waitUntil([&] { return capture.isAudioUse(); })) << "a numeric string serves";

    link.receiver.command("deny 2");
    ASSERT_TRUE(waitUntil([&] { return capture.listeningCount() == 0; }));
    // No longer listening: a late allow or pause is not seen. Each message reaches every
    // observer in one delivery, so once this one has seen the last of them, so could we.
    QStringList seen;
    Observation tap = NotificationCenter::defaultCenter().addObserver(notice::NETCONTROL_RECEIVE,
                                                                      [&](const QVariant &m) { seen << messageId(m); });
    LogRecorder log;
    link.receiver.command("grant");
    link.receiver.command("pause");
    link.receiver.command(R"(send id_pc_mk_event {"type":1})");
    ASSERT_TRUE(waitUntil([&] { return seen.contains("id_pc_mk_event"); }));
    EXPECT_FALSE(capture.isPause());
    EXPECT_FALSE(capture.isPutting());
    EXPECT_FALSE(log.lines().join('\n').contains("mouseEventWithType"));
}

TEST(MacScreenCapture, EveryStopRequestPutsADisconnectOnTheWire)
{
    Link link;
    REQUIRE_LINK(link);
    MacScreenCapture capture(noBackend);
    int n = 0;
    // Nothing is casting; each of the four still sends the disconnect.
    capture.stopPut();
    ASSERT_TRUE(link.receivedCount("id_permission_disconnect", ++n));
    for (const char *name : {notice::NOTICE_STOPSCREENCAPTURE, notice::NOTICE_BEDISCONNECT, notice::NOTICE_DISCONNECT}) {
        NotificationCenter::defaultCenter().post(name);
        ASSERT_TRUE(link.receivedCount("id_permission_disconnect", ++n)) << name;
    }
    for (const QJsonObject &e : link.receiver.received("id_permission_disconnect")) EXPECT_TRUE(isScreenType(e));
    EXPECT_EQ(link.receiver.received("id_permission_request").size(), 0);
}

TEST(MacScreenCapture, ReceiverDisconnectOfTheScreenTypeOnlyEndsTheRequest)
{
    Link link({"--permission", "manual"});
    REQUIRE_LINK(link);
    MacScreenCapture capture(noBackend);
    BeStopCounter stops;
    capture.startPut();
    ASSERT_TRUE(link.receivedCount("id_permission_request", 1));
    link.receiver.command("stop 1");
    link.receiver.command(R"(send id_permission_disconnect {"type":3})");
    link.receiver.command("send id_unknown_thing {}");
    link.receiver.command("pause"); // a marker that the ignored ones went by
    ASSERT_TRUE(waitUntil([&] { return capture.isPause(); }));
    EXPECT_EQ(stops.count, 0);
    EXPECT_EQ(capture.listeningCount(), 1);

    link.receiver.command(R"(send id_permission_disconnect {"type":"2"})");
    ASSERT_TRUE(waitUntil([&] { return stops.count == 1; }));
    EXPECT_EQ(capture.listeningCount(), 0);
    // A pause the receiver set outlives the request.
    EXPECT_TRUE(capture.isPause());
}

TEST(MacScreenCapture, RequestsInAnyOrderListenOnceAndAnyStopEndsListening)
{
    Link link({"--permission", "manual"});
    REQUIRE_LINK(link);
    MacScreenCapture capture(noBackend);
    const QString line = "mouseEventWithType: type 1 x 10 y 20 width 1920 height 1080 wheel_x 0 wheel_y 0 dropped: no cast is running";
    int requests = 0;
    // start, start; refused; start, stop while nothing casts; start, cancelled by the
    // receiver: each round ends with exactly one observation, or none after an ending.
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
        LogRecorder log;
        link.receiver.command("mouse 1 10 20 1920 1080 0 0");
        link.receiver.command("pause"); // a marker: every delivery of the mouse event is over
        ASSERT_TRUE(waitUntil([&] { return capture.isPause(); })) << r.name;
        // The line is written on the main thread's next turn; a second one would come with it.
        ASSERT_TRUE(waitUntil([&] { return log.lines().count(line) >= 1; })) << r.name;
        link.receiver.command("resume");
        ASSERT_TRUE(waitUntil([&] { return !capture.isPause(); })) << r.name;
        EXPECT_EQ(log.lines().count(line), 1) << r.name;
    }
    // Lenient values: strings, booleans and missing keys.
    LogRecorder log;
    link.receiver.command(R"(send id_pc_mk_event {"type":"9","x":true,"wheel_y":"-3"})");
    const QString lenient = "mouseEventWithType: type 9 x 1 y 0 width 0 height 0 wheel_x 0 wheel_y -3 dropped: no cast is running";
    ASSERT_TRUE(waitUntil([&] { return log.lines().count(lenient) == 1; })) << log.lines().join('\n').toStdString();
    capture.listenMsg(false);
    EXPECT_EQ(capture.listeningCount(), 0);
}

// A window-less stand-in for the main window: the connection session only needs somewhere to
// put its effects.
struct NullView : ConnectionSessionView {
    void reSetTextFields() override { }
    void setLoadingVisible(bool) override { }
    void setTipVisible(bool, const QString &) override { }
    void showCastingPanel(const QString &) override { }
    void setCastingPanelName(const QString &) override { }
    void removeCastingPanel() override { }
};

TEST(MacScreenCapture, UserDisconnectTellsTheReceiverBeforeTheChannelCloses)
{
    Link link;
    REQUIRE_LINK(link);
    // The connection session subscribes first, as in the program.
    NullView view;
    ConnectionSession session(view, link.control);
    MacScreenCapture capture(noBackend);
    NotificationCenter::defaultCenter().post(notice::NOTICE_DISCONNECT);
    ASSERT_TRUE(link.receiver.waitForEvent("control_closed"));
    ASSERT_EQ(link.receiver.received("id_permission_disconnect").size(), 1);
    EXPECT_TRUE(isScreenType(link.receiver.received("id_permission_disconnect").first()));
    EXPECT_FALSE(link.control.stream());
}

// Watches the main thread's event loop: the longest time between two of its turns.
struct LoopWatch {
    LoopWatch()
    {
        timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer, &QTimer::timeout, [this] { tick(); });
        timer.start(5);
    }
    void tick()
    {
        const auto now = std::chrono::steady_clock::now();
        longest = std::max(longest, std::chrono::duration_cast<std::chrono::milliseconds>(now - last));
        last = now;
    }
    // The longest gap since the last reset, up to now: a wait that ends right after a
    // stalled turn has not let the timer tick since.
    std::chrono::milliseconds reset()
    {
        tick();
        const auto l = longest;
        longest = {};
        last = std::chrono::steady_clock::now();
        return l;
    }
    QTimer timer;
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
    std::chrono::milliseconds longest{0};
};

constexpr auto kLongestStall = 100ms;

TEST(MacScreenCapture, AReceiverThatStopsReadingDoesNotStallTheWindow)
{
    // A control port that takes the connection (the kernel's backlog) and never reads.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    socklen_t len = sizeof addr;
    ::getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len);
    NetControl control;
    control.setControlPort(ntohs(addr.sin_port));
    bool done = false, connected = false;
    control.connect("127.0.0.1", [&](bool ok) {
        connected = ok;
        done = true;
    });
    ASSERT_TRUE(waitUntil([&] { return done; }, 10s));
    ASSERT_TRUE(connected);

    // Far more than the socket buffers hold: the writes block until the send time-out. Only
    // the write path is measured: one message per turn of the loop, and not the logging of
    // each 64 KB message.
    QLoggingCategory::setFilterRules(QStringLiteral("velocast.control.info=false"));
    LoopWatch watch;
    const QString big(64 * 1024, QChar(u'x'));
    for (int i = 0; i < 100; ++i) {
        NotificationCenter::defaultCenter().post(notice::NETCONTROL_SEND,
                                                 QVariantMap{{"id", "id_bulk"}, {"property", QVariantMap{{"fill", big}}}});
        velocast::test::spinFor(1ms);
    }
    // The writer gave up on the stuck receiver: what is left is dropped quickly.
    ASSERT_TRUE(waitUntil([&] { return control.stream()->pendingWrites() == 0; }, 20s));
    control.disConnect();
    velocast::test::spinFor(50ms);
    QLoggingCategory::setFilterRules(QString());
    EXPECT_LT(watch.reset(), kLongestStall);
    ::close(listener);
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

#define REQUIRE_DISPLAY()                                                                                                   \
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (DISPLAY is not set; scripts/test.sh starts Xvfb)"

TEST(MacScreenCaptureCast, WithoutAnXDisplayTheCastDoesNotStart)
{
    const char *display = std::getenv("DISPLAY");
    const QByteArray saved = display ? QByteArray(display) : QByteArray();
    unsetenv("DISPLAY");
    LogRecorder log;
    MacScreenCapture capture;
    capture.startPutFuction();
    // The capture is built on the cast queue.
    EXPECT_TRUE(waitUntil([&] { return capture.castQueueIdle(); }));
    if (!saved.isNull()) setenv("DISPLAY", saved.constData(), 1);
    EXPECT_FALSE(capture.isPutting());
    EXPECT_EQ(capture.cameraEncoder(), nullptr);
    EXPECT_TRUE(log.lines().join('\n').contains("cannot capture the screen: no X display")) << log.lines().join('\n').toStdString();
}

// Records NOTICE_SCREENCAPTURESTATE.
struct StateRecorder {
    QList<QVariantList> states;
    Observation o = NotificationCenter::defaultCenter().addObserver(notice::NOTICE_SCREENCAPTURESTATE,
                                                                    [this](const QVariant &v) { states << v.toList(); });
};

TEST(MacScreenCaptureCast, WithoutAScreenTheAllowedCastEndsOnBothSides)
{
    Link link; // grants at once
    REQUIRE_LINK(link);
    const char *display = std::getenv("DISPLAY");
    const QByteArray saved = display ? QByteArray(display) : QByteArray();
    unsetenv("DISPLAY");
    MacScreenCapture capture;
    BeStopCounter stops;
    StateRecorder state;
    capture.startPut();
    const bool ended = link.receivedCount("id_permission_disconnect", 1);
    const bool panelTold = waitUntil([&] { return stops.count == 1 && !state.states.isEmpty(); });
    if (!saved.isNull()) setenv("DISPLAY", saved.constData(), 1);
    ASSERT_TRUE(ended) << "the receiver is told the granted cast is over";
    EXPECT_TRUE(isScreenType(link.receiver.received("id_permission_disconnect").first()));
    ASSERT_TRUE(panelTold);
    ASSERT_EQ(state.states.first().size(), 2);
    EXPECT_FALSE(state.states.first().at(0).toBool());
    EXPECT_FALSE(state.states.first().at(1).toString().isEmpty()) << "a toast says why";
    EXPECT_FALSE(capture.isPutting());
    EXPECT_EQ(capture.listeningCount(), 0);
}

TEST(MacScreenCaptureCast, LosingTheReceiverStopsTheCastAndTheNextAllowStartsOne)
{
    REQUIRE_DISPLAY();
    CastRig rig;
    REQUIRE_LINK(rig.link);
    MacScreenCapture &capture = rig.capture;
    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting(); }, 20s));
    ASSERT_TRUE(rig.link.receiver.waitForEvent("media_connected", {}, 20s));
    push::CameraEncoder *first = capture.cameraEncoder();

    NotificationCenter::defaultCenter().post(notice::NETCONTROL_CONNECTBROKEN);
    ASSERT_TRUE(waitUntil([&] { return !capture.isPutting() && capture.castQueueIdle(); }));
    EXPECT_FALSE(first->isRunning());
    EXPECT_EQ(capture.listeningCount(), 0);
    ASSERT_TRUE(rig.link.receiver.waitForEvent("media_closed"));

    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return rig.link.receiver.count("media_connected") == 2; }, 20s));
    EXPECT_TRUE(capture.isPutting());
    capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return capture.castQueueIdle(); }));
}

TEST(MacScreenCaptureCast, ASilentMediaPortAndResizingDoNotStallTheWindow)
{
    REQUIRE_DISPLAY();
    CastRig rig;
    REQUIRE_LINK(rig.link);
    MacScreenCapture &capture = rig.capture;
    LoopWatch watch;
    {
        // The push's connect waits its full time for a port that drops connection attempts.
        HangingListener silent;
        capture.setVPort(silent.port());
        capture.startPut();
        ASSERT_TRUE(waitUntil([&] { return capture.isPutting() && capture.castQueueIdle(); }, 20s));
        EXPECT_LT(watch.reset(), kLongestStall) << "starting against a silent media port";
        capture.stopPut();
        ASSERT_TRUE(waitUntil([&] { return capture.castQueueIdle(); }));
        EXPECT_LT(watch.reset(), kLongestStall) << "stopping";
    }
    capture.setVPort(rig.link.receiver.mediaPort());
    capture.startPut();
    ASSERT_TRUE(rig.link.receiver.waitForEvent("media_connected", {}, 20s));
    ASSERT_TRUE(waitUntil([&] { return rig.capture.sampleCounts().videoForwarded > 10; }, 20s));
    watch.reset();
    capture::H264HWEncoder *h264 = capture.cameraEncoder()->h264Encoder();
    for (const char *count : {"resize 2", "resize 7", "resize 1"}) {
        rig.link.receiver.command(count);
        const int64_t rate = count[7] == '2' ? 2000000 : count[7] == '7' ? 1333333 : 4000000;
        ASSERT_TRUE(waitUntil([&] { return h264->bitrate() == rate && capture.castQueueIdle(); }, 20s)) << count;
        velocast::test::spinFor(200ms); // pictures at the new size
    }
    EXPECT_LT(watch.reset(), kLongestStall) << "resizing";
    capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return capture.castQueueIdle(); }));
}

TEST(MacScreenCaptureCast, AllowedCastReachesTheReceiverAndFollowsItsCommands)
{
    REQUIRE_DISPLAY();
    if (!std::getenv("PULSE_SERVER")) GTEST_SKIP() << "no PulseAudio server (PULSE_SERVER is not set; scripts/test.sh starts one)";
    CastRig rig;
    REQUIRE_LINK(rig.link);
    ReferenceReceiver &receiver = rig.link.receiver;
    MacScreenCapture &capture = rig.capture;
    const auto videoFrames = [&] { return int(receiver.count("video_frame")); };
    const auto audioFrames = [&] { return int(receiver.count("audio_frame")); };

    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting(); }, 20s));
    ASSERT_TRUE(receiver.waitForEvent("media_connected"));
    EXPECT_TRUE(capture.hasAudioInput());
    EXPECT_NE(capture.screenSize().width(), 0);
    ASSERT_TRUE(waitUntil([&] { return videoFrames() >= 30; }, 20s)) << videoFrames();
    EXPECT_FALSE(capture.isAudioUse()) << "a cast starts with audio off";
    EXPECT_EQ(capture.sampleCounts().audioForwarded, 0u);
    EXPECT_TRUE(waitUntil([&] { return capture.sampleCounts().audioCaptured > 0; }, 10s)) << "no sound captured";

    receiver.command("audio on");
    ASSERT_TRUE(waitUntil([&] { return audioFrames() >= 20; }, 20s)) << audioFrames();

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
    const int beforeResume = videoFrames();
    ASSERT_TRUE(waitUntil([&] { return videoFrames() >= beforeResume + 10; }, 20s));

    // Split screen, through the receiver's message.
    const QSizeF full = capture.screenSize();
    capture::H264HWEncoder *h264 = capture.cameraEncoder()->h264Encoder();
    receiver.command("resize 7");
    ASSERT_TRUE(waitUntil([&] { return h264->bitrate() == 1333333; }));
    // Divided in floating point; the encoder rounds down to even sizes when it builds.
    EXPECT_DOUBLE_EQ(h264->outputSize().width, full.width() / 3);
    EXPECT_DOUBLE_EQ(h264->outputSize().height, full.height() / 3);
    receiver.command("resize 1 1"); // another type: ignored
    receiver.command("resize 2");
    ASSERT_TRUE(waitUntil([&] { return h264->bitrate() == 2000000; }));
    EXPECT_DOUBLE_EQ(h264->outputSize().width, full.width() / 2);
    const int beforeSmall = videoFrames();
    ASSERT_TRUE(waitUntil([&] { return videoFrames() >= beforeSmall + 10; }, 20s)) << "the smaller picture goes out";

    // The receiver ends the cast.
    BeStopCounter stops;
    receiver.command("stop");
    ASSERT_TRUE(waitUntil([&] { return stops.count == 1 && !capture.isPutting(); }));
    EXPECT_FALSE(capture.isAudioUse());
    EXPECT_EQ(capture.listeningCount(), 0);
    ASSERT_TRUE(receiver.waitForEvent("media_closed"));

    receiver.command("quit");
    ASSERT_TRUE(receiver.waitForEvent("media_report", {}, 20s));
    const QJsonObject report = receiver.events("media_report").last();
    EXPECT_EQ(report.value("violation_count").toInt(), 0) << QJsonDocument(report).toJson().constData();
    const QJsonObject video = report.value("video").toArray().first().toObject();
    EXPECT_GE(video.value("frames").toInt(), 50);
    EXPECT_GE(video.value("key_frames").toInt(), 2);
    EXPECT_GE(report.value("audio").toObject().value("frames").toInt(), 20);
    std::cout << "receiver report: " << QJsonDocument(report).toJson(QJsonDocument::Compact).constData() << std::endl;

    if (velocast::test::haveFfprobe()) {
        const QJsonObject vs = velocast::test::ffprobeStream(QDir(rig.out).filePath("video.h264"), "codec_name,profile,width,height");
        EXPECT_EQ(vs.value("codec_name").toString(), "h264") << QJsonDocument(vs).toJson().constData();
        EXPECT_EQ(vs.value("profile").toString(), "Constrained Baseline");
        EXPECT_EQ(vs.value("width").toInt(), int(full.width())) << "the first picture is the whole main display";
        EXPECT_EQ(vs.value("height").toInt(), int(full.height()));
        const QJsonObject as = velocast::test::ffprobeStream(QDir(rig.out).filePath("audio.aac"), "codec_name,sample_rate,channels");
        EXPECT_EQ(as.value("codec_name").toString(), "aac") << QJsonDocument(as).toJson().constData();
        EXPECT_EQ(as.value("sample_rate").toString(), "44100");
        EXPECT_EQ(as.value("channels").toInt(), 2);
    }
}

TEST(MacScreenCaptureCast, AppStopThenANewCastBuildsAFreshCaptureWithAudioOff)
{
    REQUIRE_DISPLAY();
    CastRig rig;
    REQUIRE_LINK(rig.link);
    MacScreenCapture &capture = rig.capture;
    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting(); }, 20s));
    ASSERT_TRUE(rig.link.receiver.waitForEvent("video_frame", {}, 20s));
    capture.audioEnable(true);
    push::CameraEncoder *first = capture.cameraEncoder();

    NotificationCenter::defaultCenter().post(notice::NOTICE_STOPSCREENCAPTURE);
    EXPECT_FALSE(capture.isAudioUse()) << "cleared at once";
    ASSERT_TRUE(waitUntil([&] { return !capture.isPutting(); }));
    ASSERT_TRUE(rig.link.receivedCount("id_permission_disconnect", 1));
    EXPECT_TRUE(isScreenType(rig.link.receiver.received("id_permission_disconnect").value(0)));
    ASSERT_TRUE(waitUntil([&] { return capture.castQueueIdle(); }));
    EXPECT_FALSE(first->isRunning());
    ASSERT_TRUE(rig.link.receiver.waitForEvent("media_closed"));

    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting(); }, 20s));
    EXPECT_NE(capture.cameraEncoder(), first) << "each cast builds its own bridge";
    EXPECT_FALSE(capture.isAudioUse());
    ASSERT_TRUE(waitUntil([&] { return rig.link.receiver.count("media_connected") == 2; }, 20s));
    const int before = rig.link.receiver.count("video_frame");
    ASSERT_TRUE(waitUntil([&] { return rig.link.receiver.count("video_frame") >= before + 5; }, 20s));
    capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !capture.isPutting(); }));
}

TEST(MacScreenCaptureCast, WithoutAnAudioInputTheCastGoesOnVideoOnly)
{
    REQUIRE_DISPLAY();
    // A sound server address where nothing listens: pulsesrc cannot open.
    const char *pulse = std::getenv("PULSE_SERVER");
    const QByteArray saved = pulse ? QByteArray(pulse) : QByteArray();
    setenv("PULSE_SERVER", QDir(velocast::test::freshTempDir()).filePath("no-server").prepend("unix:").toLocal8Bit().constData(), 1);
    LogRecorder log;
    CastRig rig;
    REQUIRE_LINK(rig.link);
    rig.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return rig.capture.isPutting(); }, 20s));
    if (saved.isNull())
        unsetenv("PULSE_SERVER");
    else
        setenv("PULSE_SERVER", saved.constData(), 1);
    EXPECT_FALSE(rig.capture.hasAudioInput());
    EXPECT_TRUE(log.lines().filter("ERROR: input audio: ").size() == 1) << log.lines().join('\n').toStdString();
    rig.link.receiver.command("audio on");
    ASSERT_TRUE(waitUntil([&] { return rig.link.receiver.count("video_frame") >= 10; }, 20s));
    EXPECT_TRUE(rig.capture.isAudioUse());
    EXPECT_EQ(rig.capture.sampleCounts().audioCaptured, 0u);
    rig.capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !rig.capture.isPutting(); }));
}

// A window of colour patches over the whole screen, cast, decoded from what the receiver
// wrote with ffmpeg (which converts back with the matrix the stream signals): each patch
// comes back as the colour it was.
TEST(MacScreenCaptureCast, ColoursArriveAsTheScreenShowsThem)
{
    REQUIRE_DISPLAY();
    if (!velocast::test::haveFfprobe() || QStandardPaths::findExecutable("ffmpeg").isEmpty()) GTEST_SKIP() << "no ffmpeg here";
    struct Patch {
        uint8_t r, g, b;
    };
    const Patch patches[8] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255},
                              {128, 128, 128}, {255, 255, 0}, {0, 255, 255}, {200, 120, 40}};
    struct DisplayCloser {
        void operator()(Display *d) const { XCloseDisplay(d); }
    };
    std::unique_ptr<Display, DisplayCloser> dpy(XOpenDisplay(nullptr));
    ASSERT_TRUE(dpy);
    Display *d = dpy.get();
    const int sw = DisplayWidth(d, DefaultScreen(d)), sh = DisplayHeight(d, DefaultScreen(d));
    ASSERT_EQ(DefaultDepth(d, DefaultScreen(d)), 24);
    XSetWindowAttributes attributes{};
    attributes.override_redirect = True;
    attributes.background_pixel = 0;
    const Window w = XCreateWindow(d, DefaultRootWindow(d), 0, 0, unsigned(sw), unsigned(sh), 0, CopyFromParent, InputOutput, CopyFromParent,
                                   CWOverrideRedirect | CWBackPixel, &attributes);
    XMapRaised(d, w);
    XSync(d, False);
    GC gc = XCreateGC(d, w, 0, nullptr);
    const int pw = sw / 4, ph = sh / 2;
    auto paint = [&] {
        for (int i = 0; i < 8; ++i) {
            XSetForeground(d, gc, (unsigned long)patches[i].r << 16 | (unsigned long)patches[i].g << 8 | patches[i].b);
            XFillRectangle(d, w, gc, (i % 4) * pw, (i / 4) * ph, unsigned(pw), unsigned(ph));
        }
        XSync(d, False);
    };
    paint();

    CastRig rig;
    REQUIRE_LINK(rig.link);
    rig.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return rig.capture.isPutting(); }, 20s));
    paint(); // again, in case the first went to a window not yet shown
    ASSERT_TRUE(waitUntil([&] { return rig.link.receiver.count("video_frame") >= 45; }, 30s));
    rig.capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !rig.capture.isPutting(); }));
    XFreeGC(d, gc);
    XDestroyWindow(d, w);
    XSync(d, False);

    const QString file = QDir(rig.out).filePath("video.h264");
    const QJsonObject vs = velocast::test::ffprobeStream(file, "width,height,color_space,color_range");
    EXPECT_EQ(vs.value("color_space").toString(), "bt709") << QJsonDocument(vs).toJson().constData();
    EXPECT_EQ(vs.value("color_range").toString(), "tv");
    ASSERT_EQ(vs.value("width").toInt(), sw);
    ASSERT_EQ(vs.value("height").toInt(), sh);
    // Frame 40: well after the patches were on the screen.
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg", {"-v", "error", "-i", file, "-vf", "select=eq(n\\,40)", "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    ASSERT_TRUE(ffmpeg.waitForFinished(60000));
    const QByteArray rgb = ffmpeg.readAllStandardOutput();
    ASSERT_EQ(rgb.size(), qsizetype(sw) * sh * 3) << ffmpeg.readAllStandardError().constData();
    for (int i = 0; i < 8; ++i) {
        // The mean of a 16x16 square in the patch's middle.
        const int cx = (i % 4) * pw + pw / 2, cy = (i / 4) * ph + ph / 2;
        double sum[3] = {};
        for (int y = cy - 8; y < cy + 8; ++y)
            for (int x = cx - 8; x < cx + 8; ++x)
                for (int c = 0; c < 3; ++c) sum[c] += uint8_t(rgb[(qsizetype(y) * sw + x) * 3 + c]);
        const uint8_t want[3] = {patches[i].r, patches[i].g, patches[i].b};
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(sum[c] / 256, want[c], 6) << "patch " << i << " channel " << c;
    }
}

} // namespace
