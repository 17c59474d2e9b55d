// Remote input on X11 on a private Xvfb (injected input reaches no other test's windows): the
// receiver's action codes as the server delivers them, the captured output's origin, the casting
// session's mapping and cast gate, and the receiver's pointer and typed text during a real cast.
#include "capture/input/input_event.h"
#include "capture/input/linux/xtest_input_injector.h"
#include "capture/input/mouse_event.h"
#include "capture/session/mac_screen_capture.h"
#include "common/main_thread.h"
#include "control/net_control.h"
#include "support/child_process.h"
#include "support/log_recorder.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"
#include "x_session.h"

#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>

using namespace velocast;
using namespace velocast::input;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Lets everything already queued on the main thread (and what that queues in turn) run.
void drainMainThread()
{
    for (int round = 0; round < 3; ++round) {
        bool ran = false;
        runOnMainThread([&ran] { ran = true; });
        waitUntil([&] { return ran; }, 10s);
    }
}

// Xvfb on a display it picks itself (-displayfd writes its number) with the XTest backend on it
// (the captured area at origin unless given), and a connection of its own that records the button
// presses and releases the server delivers (XInput2 raw events: "p1", "r1", ...).
struct XRig {
    explicit XRig(QSize screen = {1280, 800}, QRect area = {})
    {
        // -displayfd complains about each taken display number: that goes to a log file.
        const QString command = QStringLiteral("exec Xvfb -displayfd 1 -screen 0 %1x%2x24 -nolisten tcp 2>'%3/xvfb.log'")
                                    .arg(screen.width()).arg(screen.height()).arg(test::freshTempDir());
        if (!xvfb.start("/bin/sh", {"-c", command}, [this](const QByteArray &b) { display += QString::fromLatin1(b); }, &error))
            return;
        if (!waitUntil([&] { return display.endsWith('\n'); }, 20s)) {
            error = QStringLiteral("Xvfb did not come up");
            return;
        }
        display = ':' + display.trimmed();
        auto injector = makeXTestInputInjector(display, &error);
        if (!injector) return;
        InputEvent::setInjector(std::move(injector));
        InputEvent::setCaptureStream({display, 0, area.isNull() ? QRect(QPoint(0, 0), screen) : area, {}, 0});
        MouseEvent::castEnded(); // nothing held from an earlier test in this process
        drainMainThread();
        int event = 0, xerror = 0, major = 2, minor = 2;
        dpy = XOpenDisplay(display.toLocal8Bit().constData());
        if (!dpy || !XQueryExtension(dpy, "XInputExtension", &xiOpcode, &event, &xerror)) return;
        XIQueryVersion(dpy, &major, &minor);
        unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
        XIEventMask mask{XIAllMasterDevices, int(sizeof bits), bits};
        XISetMask(bits, XI_RawButtonPress);
        XISetMask(bits, XI_RawButtonRelease);
        XISelectEvents(dpy, DefaultRootWindow(dpy), &mask, 1);
        take();
    }
    ~XRig()
    {
        InputEvent::setInjector(nullptr);
        drainMainThread();
        if (dpy) XCloseDisplay(dpy);
    }
    bool ok() const { return xiOpcode != 0; }
    // Everything delivered since the last call, space-separated (a round trip brings all of it in).
    QString take()
    {
        QStringList out;
        for (XSync(dpy, False); XPending(dpy);) {
            XEvent ev;
            XNextEvent(dpy, &ev);
            if (ev.xcookie.type != GenericEvent || ev.xcookie.extension != xiOpcode || !XGetEventData(dpy, &ev.xcookie)) continue;
            const int button = static_cast<const XIRawEvent *>(ev.xcookie.data)->detail;
            out << QStringLiteral("%1%2").arg(ev.xcookie.evtype == XI_RawButtonPress ? 'p' : 'r').arg(button);
            XFreeEventData(dpy, &ev.xcookie);
        }
        return out.join(' ');
    }
    // The pointer, and the buttons the server holds down now.
    std::pair<QPoint, unsigned> query() const
    {
        Window root = 0, child = 0;
        int rx = 0, ry = 0, wx = 0, wy = 0;
        unsigned mask = 0;
        XQueryPointer(dpy, DefaultRootWindow(dpy), &root, &child, &rx, &ry, &wx, &wy, &mask);
        return {{rx, ry}, mask & (Button1Mask | Button2Mask | Button3Mask | Button4Mask | Button5Mask)};
    }
    QPoint pointer() const { return query().first; }
    test::ChildProcess xvfb;
    QString display, error;
    Display *dpy = nullptr;
    int xiOpcode = 0;
};

#define REQUIRE_X(rig) \
    if (!(rig).ok()) GTEST_SKIP() << "no private X server: " << (rig).error.toStdString()

struct Action {
    int type;
    QPointF at;
    QPointF wheel;
};

// Each row: the receiver's actions, the raw button events, the held value and the pointer
// ((-1,-1): not moved) after them, and what ending the cast lets go (no button stays down).
TEST(MouseEvent, ActionCodesDeliverWhatTheHeldButtonAllows)
{
    XRig rig;
    REQUIRE_X(rig);
    const std::string hostileWheel = QStringList(InputEvent::kMaxWheelClicks, "p4 r4").join(' ').toStdString();
    const struct {
        const char *name;
        std::vector<Action> actions;
        const char *delivered;
        int32_t heldAfter;
        QPoint pointer;
        const char *atCastEnd;
    } cases[] = {
        {"right down while left held", {{1, {10, 10}, {}}, {3, {50, 50}, {}}, {4, {50, 50}, {}}}, "p1", 0, {10, 10}, "r1"},
        {"unmatched up", {{2, {5, 5}, {}}, {4, {5, 5}, {}}, {6, {5, 5}, {}}}, "", -1, {-1, -1}, ""},
        // The centre "up" is a second centre down: the button stays down on the desktop while
        // the held value is free; the end of the cast lets the button go.
        {"centre up", {{5, {60, 70}, {}}, {6, {61, 71}, {}}}, "p2 p2", -1, {61, 71}, "r2"},
        {"left drag", {{1, {10, 10}, {}}, {8, {200, 100}, {}}, {8, {210, 110}, {}}}, "p1", 0, {210, 110}, "r1"},
        {"right drag", {{3, {10, 10}, {}}, {8, {20, 30}, {}}, {4, {20, 30}, {}}}, "p3 r3", -1, {20, 30}, ""},
        {"drag with nothing held", {{8, {200, 100}, {}}}, "", -1, {-1, -1}, ""},
        {"double left while right held", {{3, {1, 1}, {}}, {7, {40, 50}, {}}}, "p3 p1 r1 p1 r1", 1, {40, 50}, "r3"},
        {"unknown codes", {{0, {1, 1}, {}}, {10, {1, 1}, {}}, {-1, {1, 1}, {}}, {25, {1, 1}, {}}}, "", -1, {-1, -1}, ""},
        {"wheel down and left", {{9, {999, 999}, {2, -3}}}, "p5 r5 p5 r5 p5 r5 p6 r6 p6 r6", -1, {-1, -1}, ""},
        {"wheel up and right", {{9, {}, {-1, 1}}}, "p4 r4 p7 r7", -1, {-1, -1}, ""},
        {"hostile wheel is capped", {{9, {}, {0, 2000000000}}}, hostileWheel.c_str(), -1, {-1, -1}, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QPoint start = rig.pointer();
        for (const Action &a : c.actions) MouseEvent::eventWithType(a.type, a.at, a.wheel);
        drainMainThread();
        EXPECT_EQ(rig.take(), QString::fromLatin1(c.delivered));
        EXPECT_EQ(MouseEvent::heldButton(), c.heldAfter);
        EXPECT_EQ(rig.pointer(), c.pointer == QPoint(-1, -1) ? start : c.pointer);
        MouseEvent::castEnded();
        drainMainThread();
        EXPECT_EQ(rig.take(), QString::fromLatin1(c.atCastEnd));
        EXPECT_EQ(MouseEvent::heldButton(), MouseEvent::kNone);
        EXPECT_EQ(rig.query().second, 0u) << "a button stays down after the cast";
    }
}

// Positions are captured-picture pixels: the capture's origin is added, positions off the
// picture are handed on (the server clamps them) and never wrap around. The casting session maps
// the receiver's area onto the screen and acts only during a cast.
TEST(MacScreenCaptureInput, MapsTheReceiversAreaOntoTheCapturedOutputDuringACast)
{
    XRig rig({2880, 1800}, QRect(400, 100, 2880, 1800));
    REQUIRE_X(rig);
    const struct {
        QRect area;
        QPointF at;
        QPoint root;
    } pixels[] = {
        {{300, 200, 640, 400}, {10.9, 20.2}, {310, 220}},
        {{0, 0, 2880, 1800}, {1e9, 1e9}, {2879, 1799}},
        {{0, 0, 2880, 1800}, {-1e12, 7}, {0, 7}},
    };
    for (const auto &c : pixels) {
        InputEvent::setCaptureStream({rig.display, 0, c.area, {}, 0});
        MouseEvent::leftDown(c.at);
        MouseEvent::leftUp(c.at);
        drainMainThread();
        EXPECT_EQ(rig.take(), "p1 r1");
        EXPECT_EQ(rig.pointer(), c.root) << c.at.x() << "," << c.at.y();
    }

    InputEvent::setCaptureStream({rig.display, 0, QRect(400, 100, 2880, 1800), {}, 0});
    MacScreenCapture capture([] { return std::unique_ptr<capture::CaptureBackend>(); });
    capture.setScreenSize({2880, 1800});
    MouseEvent::castStarted();
    const struct {
        int x, y, width, height;
        QPoint root; // picture pixel + the origin (400, 100)
    } cases[] = {
        {64, 0, 1280, 720, {400, 100}},     // the picture's corner
        {640, 360, 1280, 720, {1840, 1000}}, // the centre
        {0, 0, 1280, 720, {240, 100}},      // in the black bar: off the picture, (-160, 0)
        {123, 456, 2880, 1800, {523, 556}}, // the screen's own size: as it is
    };
    for (const auto &c : cases) {
        capture.mouseEventWithType(1, c.x, c.y, c.width, c.height, 0, 0);
        capture.mouseEventWithType(2, c.x, c.y, c.width, c.height, 0, 0);
        drainMainThread();
        EXPECT_EQ(rig.take(), "p1 r1");
        EXPECT_EQ(rig.pointer(), c.root) << c.x << "," << c.y << " in " << c.width << "x" << c.height;
    }
    // A degenerate area has no position, but the wheel needs none.
    capture.mouseEventWithType(1, 5, 5, 0, 0, 0, 0);
    capture.mouseEventWithType(9, 5, 5, 0, 0, 0, 1);
    drainMainThread();
    EXPECT_EQ(rig.take(), "p4 r4");

    test::LogRecorder log;
    MouseEvent::castEnded();
    capture.mouseEventWithType(1, 64, 0, 1280, 720, 0, 0);
    capture.mouseEventWithType(9, 0, 0, 1280, 720, 0, 1);
    drainMainThread();
    EXPECT_EQ(rig.take(), "") << "injected outside a cast";
    EXPECT_TRUE(log.lines().join('\n').contains("dropped: no cast is running"));
}

// End to end: the reference receiver's pointer commands during a real cast of the private
// display land where the receiver's picture says, and a Qt window there sees a double click as
// one; then typed Unicode text and key chords reach the window.
TEST(MacScreenCaptureInput, ReceiverPointerDuringARealCastAndTextInAQtWindow)
{
    if (!test::ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";
    XRig rig;
    REQUIRE_X(rig);
    test::ScopedEnv display("DISPLAY", rig.display.toLocal8Bit());
    test::ProbeWindow probe(rig.display);
    ASSERT_TRUE(probe.start()) << probe.log().toStdString();

    // The receiver's picture is 1280 x 720: the 1280 x 800 screen sits in it at (64, 0),
    // 1152 x 720, so receiver (640, 360) is screen (640, 400).
    test::ReferenceReceiver receiver({"--headless", "--area", "1280x720"});
    ASSERT_TRUE(receiver.start()) << receiver.error().toStdString();
    NetControl control;
    control.setControlPort(receiver.controlPort());
    bool connected = false, done = false;
    control.connect("127.0.0.1", [&](bool ok) { connected = ok, done = true; });
    ASSERT_TRUE(waitUntil([&] { return done; }, 10s) && connected);

    MacScreenCapture capture;
    capture.setIpStr("127.0.0.1");
    capture.setVPort(receiver.mediaPort());
    capture.setAPort(receiver.mediaPort());
    capture.startPut();
    // The receiver's pointer acts once the cast is running, which is a moment after capture
    // starts (the push connects first).
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting() && MouseEvent::isCastRunning(); }, 20s));

    QString seen;
    const auto delivered = [&](const QString &events) {
        return waitUntil([&] { return (seen += QStringLiteral(" ") + rig.take()).simplified().endsWith(events); }, 10s);
    };
    const struct {
        const char *command;
        const char *events;
        QPoint pointer;
    } steps[] = {
        {"click 640 360", "p1 r1", {640, 400}},
        {"dblclick 352 180", "p1 r1 p1 r1", {320, 200}},
        {"rclick 1216 720", "p3 r3", {1279, 799}},
        {"wheel -2 1", "p4 r4 p7 r7 p7 r7", {1279, 799}},
        {"mouse 1 100 90", "p1", {40, 100}},
    };
    for (const auto &s : steps) {
        receiver.command(s.command);
        EXPECT_TRUE(delivered(s.events)) << s.command << ": " << seen.simplified().toStdString();
        EXPECT_EQ(rig.pointer(), s.pointer) << s.command;
    }
    receiver.command("mouse 8 190 180");
    EXPECT_TRUE(waitUntil([&] { return rig.pointer() == QPoint(140, 200); }, 10s)) << "the drag did not move the pointer";
    EXPECT_NE(rig.query().second, 0u) << "the left button is held during the drag";
    // The receiver ends the cast while it holds the left button: the button is let go.
    receiver.command("stop");
    EXPECT_TRUE(delivered("r1")) << seen.simplified().toStdString();
    EXPECT_TRUE(waitUntil([&] { return !capture.isPutting(); }, 10s));
    EXPECT_EQ(MouseEvent::heldButton(), MouseEvent::kNone);
    EXPECT_TRUE(probe.waitForLine("dblclick 1 320 200")) << probe.log().toStdString();

    QString many; // more distinct characters than the backend has keycodes to lend at once
    for (char16_t c = 0x4e00; c < 0x4e00 + 40; ++c) many += QChar(c);
    const struct {
        QString typed;
        int modifiers;
        QString line;
    } keys[] = {
        {QStringLiteral("客厅 Ab#é😀!"), 0, QStringLiteral("text 客厅 Ab#é😀!")},
        // A lone surrogate is no character: skipped, the rest arrives.
        {QString(QChar(0xd83d)) + "z", 0, QStringLiteral("text 客厅 Ab#é😀!z")},
        {many, 0, QStringLiteral("text 客厅 Ab#é😀!z") + many},
        {"B", modifier::kShift, "key Shift+B"},
        {"q", modifier::kControl | modifier::kAlternate, "key Ctrl+Alt+Q"},
    };
    for (const auto &k : keys) {
        if (k.modifiers)
            InputEvent::writeString(k.typed, k.modifiers);
        else
            InputEvent::inputString(k.typed);
        EXPECT_TRUE(probe.waitForLine(k.line)) << k.line.toStdString() << "\n" << probe.log().toStdString();
    }
}

} // namespace
