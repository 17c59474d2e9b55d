// Casting on a Wayland desktop: the session-type choice, and real casts through the desktop
// portal. The casts run against a private desktop this program starts itself
// (scripts/wayland-services.sh: headless mutter with a 1280x800 virtual monitor, PipeWire,
// the real portal frontend, and a test portal backend that answers without a dialog by
// forwarding to mutter) and the reference receiver on loopback. They skip, saying why, where
// that desktop cannot start.
#include "capture/session/capture_source.h"
#include "capture/session/mac_screen_capture.h"

#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "media_test_support.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdlib>

using namespace velocast;
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
            const QString value = m.captured(2).isEmpty() ? m.captured(3) : m.captured(2);
            setenv(m.captured(1).toUtf8().constData(), value.toUtf8().constData(), 1);
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
        if (!f.open(QIODevice::ReadOnly)) return out;
        for (const QByteArray &line : f.readAll().split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            if (o.value("call").toString() == call) out << o;
        }
        return out;
    }
    static inline QString rt_;
    static inline QString skipWhy_;
    static inline bool up_ = false;
};

// A cast to a reference receiver on loopback, with the portal backend.
struct Cast {
    explicit Cast(bool pointerInput = true)
        : receiver({"--output-dir", out = velocast::test::freshTempDir(), "--log-frames"}),
          capture([pointerInput] { return capture::makePortalCaptureBackend(pointerInput); })
    {
        if (!receiver.start()) return;
        control.setControlPort(receiver.controlPort());
        control.connect("127.0.0.1", [this](bool ok) {
            connected = ok;
            done = true;
        });
        waitUntil([this] { return done; }, 10s);
        capture.setIpStr("127.0.0.1");
        capture.setVPort(receiver.mediaPort());
        capture.setAPort(receiver.mediaPort());
    }
    int frames() const { return receiver.count("video_frame"); }
    QString out;
    ReferenceReceiver receiver;
    NetControl control;
    bool connected = false;
    bool done = false;
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
    // A plain screen-cast session: this desktop's remote-desktop portal (version 1) cannot
    // keep the choice.
    Preferences::remove(kToken);
    Cast cast(false);
    ASSERT_TRUE(cast.connected) << cast.receiver.error().toStdString();
    cast.capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s));
    EXPECT_TRUE(portalCalls("RemoteDesktop.CreateSession").isEmpty());
    EXPECT_EQ(cast.capture.screenSize(), QSizeF(1280, 800));
    // Nothing moves on the virtual monitor: the pictures still come at the cast's own rate.
    ASSERT_TRUE(waitUntil([&] { return cast.frames() >= 30; }, 20s)) << cast.frames();
    const QString token = Preferences::value(kToken).toString();
    EXPECT_FALSE(token.isEmpty()) << "the person's choice is remembered";
    ASSERT_EQ(portalCalls("ScreenCast.SelectSources").size(), 1);
    EXPECT_EQ(portalCalls("ScreenCast.SelectSources").first().value("options").toObject().value("persist_mode").toInt(), 2);
    const QJsonObject first = portalCalls("ScreenCast.SelectSources").first();
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
    if (velocast::test::haveFfprobe()) {
        const QJsonObject vs = velocast::test::ffprobeStream(QDir(cast.out).filePath("video.h264"), "codec_name,width,height");
        EXPECT_EQ(vs.value("codec_name").toString(), "h264");
        EXPECT_EQ(vs.value("width").toInt(), 1280);
        EXPECT_EQ(vs.value("height").toInt(), 800);
    }
}

// The cast ends as if stopped: the receiver is told, the panel goes back, a toast says why,
// and nothing of the cast is left running.
TEST_F(WaylandDesktop, RefusedOrStoppedSharingEndsTheCastCleanly)
{
    struct Case {
        const char *name;
        QByteArray control;
        bool stopFromDesktop;
        const char *toast;
    };
    const Case cases[] = {
        {"cancelled dialog", "cancel", false, "cancelled"},
        {"stopped from the desktop", "", true, "stopped from the desktop"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Preferences::remove(kToken);
        setControl(c.control);
        Cast cast;
        ASSERT_TRUE(cast.connected) << cast.receiver.error().toStdString();
        cast.capture.startPut();
        if (c.stopFromDesktop) {
            ASSERT_TRUE(waitUntil([&] { return cast.frames() >= 5; }, 20s));
            const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
                "org.freedesktop.impl.portal.desktop.test", "/org/freedesktop/portal/desktop", "org.velocast.PortalTest", "CloseSessions"));
            ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        }
        ASSERT_TRUE(waitUntil([&] { return cast.stops == 1; }, 20s));
        EXPECT_FALSE(portalCalls("RemoteDesktop.CreateSession").isEmpty()) << "one session for the screen and the pointer";
        ASSERT_TRUE(waitUntil([&] { return !cast.receiver.received("id_permission_disconnect").isEmpty(); }, 10s));
        EXPECT_EQ(cast.receiver.received("id_permission_disconnect").first().value("property").toObject().value("type").toInt(), 2);
        ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
        EXPECT_EQ(cast.capture.listeningCount(), 0);
        ASSERT_EQ(cast.toasts.size(), 1);
        EXPECT_TRUE(cast.toasts.first().contains(c.toast)) << cast.toasts.first().toStdString();
        if (c.stopFromDesktop) ASSERT_TRUE(cast.receiver.waitForEvent("media_closed"));
        // A later cast works again.
        setControl("");
        cast.capture.startPut();
        ASSERT_TRUE(waitUntil([&] { return cast.capture.isPutting(); }, 20s)) << c.name;
        cast.capture.stopPut();
        ASSERT_TRUE(waitUntil([&] { return !cast.capture.isPutting(); }));
    }
}

} // namespace
