// Casting on Wayland: the session-type choice, and casts through the portal on a private desktop
// (scripts/wayland-services.sh: headless mutter at 1280x800, PipeWire, the real portal frontend,
// a test backend without dialogs); the receiver's pointer there and on headless wlroots.
#include "capture/input/input_event.h"
#include "capture/input/linux/virtual_pointer_injector.h"
#include "capture/session/capture_source.h"
#include "capture/session/linux/portal_input_injector.h"
#include "capture/session/mac_screen_capture.h"

#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "media_test_support.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"
#include "x_session.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <functional>

using namespace velocast;
using velocast::test::LogRecorder;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

TEST(SessionKind, ChosenFromTheSessionTypeThenTheWaylandDisplay)
{
    using capture::SessionKind;
    struct Case {
        const char *type, *wayland;
        SessionKind kind;
    };
    const Case cases[] = {
        {"wayland", "", SessionKind::Wayland},     // the session says so, even without a socket name
        {"Wayland ", "", SessionKind::Wayland},    // read leniently
        {"x11", "wayland-0", SessionKind::X11},    // an X session with a nested compositor
        {"tty", "wayland-0", SessionKind::Wayland}, // started by hand from a console
        {"", "wayland-1", SessionKind::Wayland},
        {"", "", SessionKind::X11},
        {"mir", "", SessionKind::X11},
    };
    for (const Case &c : cases)
        EXPECT_EQ(capture::sessionKind(c.type, c.wayland), c.kind) << "'" << c.type << "' '" << c.wayland << "'";
}

// Pointer events reach a client only once its pointer entered the window: clicks in a corner
// until the window reports one (a new input device's first events can take seconds).
bool warmUp(test::ProbeWindow &probe, const std::function<void(int)> &click)
{
    for (int i = 0; i < 3; ++i) {
        click(i);
        if (waitUntil([&] { return probe.log().contains("release 1"); }, 8s)) {
            probe.clear();
            return true;
        }
    }
    return false;
}

TEST(PortalKeysyms, TypedCharactersBecomeKeysyms)
{
    const struct {
        char32_t cp;
        uint32_t keysym;
    } cases[] = {
        {U'a', 0x61}, {U'~', 0x7e}, {U'\u00e9', 0xe9},     // Latin-1: the code point
        {U'\u20ac', 0x10020ac}, {U'\U0001F600', 0x101f600}, // the rest of Unicode
        {U'\n', 0xff0d}, {U'\t', 0xff09}, {U'\b', 0xff08},  // keys with names
        {U'\x01', 0}, {U'\x7f', 0}, {U'\x9b', 0}, {char32_t(0xd800), 0}, {char32_t(0x110000), 0}, // no key
    };
    for (const auto &c : cases) EXPECT_EQ(capture::keysymForCodePoint(c.cp), c.keysym) << std::hex << uint32_t(c.cp);
}

// The private desktop, one per test program.
class WaylandDesktop : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        rt_ = velocast::test::freshTempDir();
        QProcess start;
        start.start("bash", {QStringLiteral(VELOCAST_SOURCE_DIR "/scripts/wayland-services.sh"), "start", rt_});
        if (!start.waitForFinished(60000) || start.exitCode() != 0) {
            skipWhy_ = "the Wayland test desktop did not start: " + QString::fromLocal8Bit(start.readAllStandardError()).trimmed();
            return;
        }
        QFile env(QDir(rt_).filePath("env"));
        env.open(QIODevice::ReadOnly);
        static const QRegularExpression pair(R"((\w+)=(?:'([^']*)'|(\S+)))");
        for (auto it = pair.globalMatch(QString::fromUtf8(env.readAll())); it.hasNext();) {
            const auto m = it.next();
            qputenv(m.captured(1).toUtf8(), (m.captured(2) + m.captured(3)).toUtf8()); // one of them is empty
        }
        up_ = true;
    }
    static void TearDownTestSuite()
    {
        if (rt_.isEmpty()) return;
        QProcess::execute("bash", {QStringLiteral(VELOCAST_SOURCE_DIR "/scripts/wayland-services.sh"), "stop", rt_});
    }
    void SetUp() override
    {
        if (!up_) GTEST_SKIP() << skipWhy_.toStdString();
        if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";
        setControl("");
    }
    static void setControl(const QByteArray &words)
    {
        QFile f(qEnvironmentVariable("VC_PORTAL_CONTROL"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(words);
    }
    // The portal backend's record of the calls it got.
    static QList<QJsonObject> portalCalls(const QString &call)
    {
        QList<QJsonObject> out;
        QFile f(qEnvironmentVariable("VC_PORTAL_LOG"));
        f.open(QIODevice::ReadOnly);
        for (const QByteArray &line : f.readAll().split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            if (o.value("call").toString() == call) out << o;
        }
        return out;
    }
    static inline QString rt_, skipWhy_;
    static inline bool up_ = false;
};

// A cast to a reference receiver on loopback, with the portal backend.
struct Cast {
    explicit Cast(bool pointerInput = true, QStringList receiverArgs = {})
        : receiver(QStringList{"--output-dir", out = velocast::test::freshTempDir(), "--log-frames"} + receiverArgs),
          capture([pointerInput] { return capture::makePortalCaptureBackend(pointerInput); })
    {
        if (!receiver.start()) return;
        control.setControlPort(receiver.controlPort());
        control.connect("127.0.0.1", [this](bool ok) { connected = ok; });
        waitUntil([this] { return connected; }, 10s);
        capture.setIpStr("127.0.0.1");
        capture.setVPort(receiver.mediaPort());
        capture.setAPort(receiver.mediaPort());
    }
    int frames() const { return receiver.count("video_frame"); }
    QString out;
    ReferenceReceiver receiver;
    NetControl control;
    bool connected = false;
    // What the window would show: the panel's stop notices and the toasts.
    int stops = 0;
    QStringList toasts;
    Observation stopTap = NotificationCenter::defaultCenter().addObserver(notice::NOTICE_BESTOPSCREENCAPTURE, [this](const QVariant &) { ++stops; });
    Observation toastTap = NotificationCenter::defaultCenter().addObserver(notice::NOTICE_SCREENCAPTURESTATE, [this](const QVariant &v) {
        if (v.toList().size() >= 2 && !v.toList().at(0).toBool()) toasts << v.toList().at(1).toString();
    });
    MacScreenCapture capture;
};

const char *kToken = prefkey::ScreenCastRestoreToken;

TEST_F(WaylandDesktop, CastShowsTheSharedMonitorAndTheSecondCastSkipsTheChooser)
{
    // A plain screen-cast session: this desktop's remote-desktop portal (v1) cannot keep the choice.
    Preferences::remove(kToken);
    LogRecorder log;
    Cast cast(false);
    ASSERT_TRUE(cast.connected) << cast.receiver.error().toStdString();
    cast.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s));
    // Neither a remote-desktop session nor a virtual pointer: nothing to inject with, said at once.
    EXPECT_TRUE(log.lines().contains("casting with the portal capture backend")) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(waitUntil([&] { return log.lines().join('\n').contains(QRegularExpression(
                                    "remote input: none \\(this desktop offers neither the remote-desktop portal nor a virtual pointer .*zwlr_virtual_pointer_manager_v1")); }))
        << log.lines().join('\n').toStdString();
    EXPECT_TRUE(portalCalls("RemoteDesktop.CreateSession").isEmpty());
    // Nothing moves on the virtual monitor: the pictures still come at the cast's own rate.
    ASSERT_TRUE(waitUntil([&] { return cast.frames() >= 30; }, 20s)) << cast.frames();
    EXPECT_FALSE(Preferences::value(kToken).toString().isEmpty()) << "the person's choice is remembered";
    ASSERT_EQ(portalCalls("ScreenCast.SelectSources").size(), 1);
    const QJsonObject first = portalCalls("ScreenCast.SelectSources").first();
    EXPECT_EQ(first.value("options").toObject().value("persist_mode").toInt(), 2);
    EXPECT_EQ(first.value("options").toObject().value("cursor_mode").toInt(), 2) << "the pointer is in the picture";
    EXPECT_FALSE(first.value("restore").toBool());

    cast.capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
    ASSERT_TRUE(cast.receiver.waitForEvent("media_closed"));
    ASSERT_TRUE(waitUntil([&] { return portalCalls("Session.Close").size() == 1; }, 10s)) << "the sharing session ends with the cast";

    // The chooser cannot be shown now: only the remembered choice starts the cast.
    setControl("chooser-fails");
    cast.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s)) << cast.toasts.join('\n').toStdString();
    ASSERT_TRUE(waitUntil([&] { return cast.receiver.count("media_connected") == 2; }, 20s));
    const int before = cast.frames();
    ASSERT_TRUE(waitUntil([&] { return cast.frames() >= before + 10; }, 20s));
    EXPECT_TRUE(portalCalls("ScreenCast.SelectSources").value(1).value("restore").toBool());
    cast.capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
    EXPECT_EQ(cast.stops, 0);
    EXPECT_TRUE(cast.toasts.isEmpty());

    cast.receiver.command("quit");
    ASSERT_TRUE(cast.receiver.waitForEvent("media_report", {}, 20s));
    EXPECT_EQ(cast.receiver.events("media_report").last().value("violation_count").toInt(), 0);
    const QJsonObject vs = velocast::test::ffprobeStream(QDir(cast.out).filePath("video.h264"), "codec_name,width,height");
    EXPECT_EQ(QJsonDocument(vs).toJson(QJsonDocument::Compact), R"({"codec_name":"h264","height":800,"width":1280})");
}

// The receiver's clicks, drag, double click and wheel during a real cast arrive at the
// pixels it pointed at, through the remote-desktop session the cast was shared with. Sharing
// stopped from the desktop, or a cancelled dialog, ends the cast as if stopped: the receiver
// is told, the panel goes back, a toast says why; a later cast works again.
TEST_F(WaylandDesktop, ReceiverPointerReachesAWindowThroughThePortalAndSharingCanEnd)
{
    test::ProbeWindow probe;
    ASSERT_TRUE(probe.start()) << probe.log().toStdString();
    Preferences::remove(kToken);
    LogRecorder log;
    Cast cast(true, {"--area", "1280x800"});
    ASSERT_TRUE(cast.connected) << cast.receiver.error().toStdString();
    cast.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s));
    EXPECT_TRUE(waitUntil([&] { return log.lines().contains("remote input with the portal backend"); }))
        << log.lines().join('\n').toStdString();
    ASSERT_TRUE(warmUp(probe, [&](int i) { cast.receiver.command(QStringLiteral("click %1 790").arg(1270 - i)); })) << probe.log().toStdString();

    const struct {
        QStringList commands;
        QStringList lines;
    } steps[] = {
        {{"click 640 400"}, {"press 1 640 400", "release 1 640 400"}},
        {{"rclick 1279 0"}, {"press 2 1279 0", "release 2 1279 0"}},
        {{"mouse 1 200 300", "mouse 8 420 330", "mouse 2 420 330"}, {"press 1 200 300", "release 1 420 330"}},
        {{"dblclick 100 50"}, {"dblclick 1 100 50"}},
        {{"wheel 0 1"}, {"wheel 0 120"}},
        {{"wheel 0 -1"}, {"wheel 0 -120"}},
        {{"wheel 1 0"}, {"wheel 120 0"}},
    };
    for (const auto &step : steps) {
        for (const QString &c : step.commands) cast.receiver.command(c);
        for (const QString &line : step.lines)
            EXPECT_TRUE(probe.waitForLine(line)) << line.toStdString() << "\n" << probe.log().toStdString();
    }
    EXPECT_FALSE(portalCalls("RemoteDesktop.NotifyPointerButton").isEmpty());
    EXPECT_FALSE(portalCalls("RemoteDesktop.CreateSession").isEmpty()) << "one session for the screen and the pointer";

    const struct {
        const char *control, *toast;
    } endings[] = {{"", "已在桌面上停止共享屏幕"}, {"cancel", "已取消共享屏幕"}};
    for (const auto &e : endings) {
        SCOPED_TRACE(e.toast);
        const int stops = cast.stops, told = int(cast.receiver.received("id_permission_disconnect").size());
        if (*e.control) {
            Preferences::remove(kToken);
            setControl(e.control);
            cast.capture.startPut();
        } else {
            const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
                "org.freedesktop.impl.portal.desktop.test", "/org/freedesktop/portal/desktop", "org.velocast.PortalTest", "CloseSessions"));
            ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        }
        ASSERT_TRUE(waitUntil([&] { return cast.stops == stops + 1; }, 20s));
        ASSERT_TRUE(waitUntil([&] { return cast.receiver.received("id_permission_disconnect").size() > told; }, 10s));
        EXPECT_EQ(cast.receiver.received("id_permission_disconnect").last().value("property").toObject().value("type").toInt(), 2);
        ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
        EXPECT_EQ(cast.capture.listeningCount(), 0);
        ASSERT_EQ(cast.toasts.size(), stops + 1);
        EXPECT_TRUE(cast.toasts.last().contains(e.toast)) << cast.toasts.last().toStdString();
    }
    ASSERT_TRUE(cast.receiver.waitForEvent("media_closed"));
    setControl("");
    cast.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s));
    cast.capture.stopPut();
    ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
}

// The virtual pointer on a headless wlroots compositor (sway) with one 1280x800 output, in a
// runtime directory of its own; skips where it cannot start.
TEST(WlrootsDesktop, VirtualPointerMovesClicksAndScrollsOverTheOutput)
{
    const QString sway = QStandardPaths::findExecutable("sway"), dir = velocast::test::freshTempDir(), run = dir + "/run";
    if (sway.isEmpty()) GTEST_SKIP() << "sway is not installed";
    QDir(dir).mkdir("run");
    QFile::setPermissions(run, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QFile config(dir + "/config");
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write("xwayland disable\noutput HEADLESS-1 mode 1280x800\n");
    config.close();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_RUNTIME_DIR", run);
    env.insert("WLR_BACKENDS", "headless");
    env.insert("WLR_RENDERER", "pixman");
    env.insert("WLR_LIBINPUT_NO_DEVICES", "1");
    env.insert("LD_PRELOAD", VELOCAST_NOSETUID_SHIM);
    env.remove("WAYLAND_DISPLAY");
    env.remove("DISPLAY");
    QProcess compositor;
    compositor.setProcessEnvironment(env);
    compositor.setStandardOutputFile(dir + "/sway.log");
    compositor.setStandardErrorFile(dir + "/sway.log");
    compositor.start(sway, {"-c", dir + "/config"});
    QString socket;
    waitUntil([&] {
        socket = QDir(run).entryList({"wayland-*"}, QDir::System).filter(QRegularExpression("^wayland-\\d+$")).value(0);
        return !socket.isEmpty() || compositor.state() == QProcess::NotRunning;
    }, 15s);
    QFile log(dir + "/sway.log");
    if (socket.isEmpty() && log.open(QIODevice::ReadOnly)) GTEST_SKIP() << "sway did not start: " << log.readAll().right(300).toStdString();
    ASSERT_FALSE(socket.isEmpty());
    // This compositor for the injector and the probe window.
    test::ScopedEnv runtimeDir("XDG_RUNTIME_DIR", run.toLocal8Bit()), display("WAYLAND_DISPLAY", socket.toLocal8Bit());
    test::ProbeWindow probe;
    ASSERT_TRUE(probe.start()) << probe.log().toStdString();
    QString why;
    std::unique_ptr<input::InputInjector> pointer = input::makeVirtualPointerInjector(&why);
    ASSERT_TRUE(pointer) << why.toStdString();
    EXPECT_EQ(pointer->name(), "wlroots");
    // The cast of the whole output, as the casting session hands it over.
    pointer->setCaptureStream({{}, 0, QRect(0, 0, 1280, 800), {}, 0});
    using input::MouseButton;
    ASSERT_TRUE(warmUp(probe, [&](int i) {
        pointer->moveTo(QPointF(1270 - i, 790));
        pointer->click(MouseButton::Left, 1);
    })) << probe.log().toStdString();

    const struct {
        std::function<void(input::InputInjector &)> act;
        QStringList lines;
    } steps[] = {
        {[](auto &p) { p.moveTo({640, 400}); p.click(MouseButton::Left, 1); }, {"press 1 640 400", "release 1 640 400"}},
        {[](auto &p) { p.moveTo({1279.4, 799}); p.setButton(MouseButton::Right, true); p.setButton(MouseButton::Right, false); },
         {"press 2 1279 799", "release 2 1279 799"}},
        // Beyond the picture: on its edge.
        {[](auto &p) { p.moveTo({2000, -30}); p.click(MouseButton::Center, 1); }, {"press 4 1279 0", "release 4 1279 0"}},
        {[](auto &p) { p.moveTo({200, 300}); p.setButton(MouseButton::Left, true); p.moveTo({420, 330}); p.setButton(MouseButton::Left, false); },
         {"press 1 200 300", "release 1 420 330"}},
        {[](auto &p) { p.moveTo({100, 50}); p.click(MouseButton::Left, 2); }, {"dblclick 1 100 50"}},
        {[](auto &p) { p.scroll(1, 0); }, {"wheel 0 120"}},
        {[](auto &p) { p.scroll(-1, 0); }, {"wheel 0 -120"}},
        {[](auto &p) { p.scroll(0, 1); }, {"wheel 120 0"}},
        // A cast that ends in the middle of a drag lets the button go.
        {[](auto &p) { p.moveTo({50, 60}); p.setButton(MouseButton::Right, true); p.releaseButtons(); }, {"press 2 50 60", "release 2 50 60"}},
    };
    for (const auto &step : steps) {
        step.act(*pointer);
        for (const QString &line : step.lines)
            EXPECT_TRUE(probe.waitForLine(line)) << line.toStdString() << "\n" << probe.log().toStdString();
    }
    compositor.terminate();
    compositor.waitForFinished(5000);
}

} // namespace
