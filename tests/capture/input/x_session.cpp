#include "x_session.h"

#include "common/main_thread.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>

using namespace std::chrono_literals;

namespace velocast::test {

PrivateXServer::~PrivateXServer()
{
    if (!process_) return;
    process_->terminate();
    process_->waitForFinished(5000); // the QProcess kills it if it is still there
}

bool PrivateXServer::start(QSize screen)
{
    const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (xvfb.isEmpty()) {
        error_ = QStringLiteral("Xvfb is not installed");
        return false;
    }
    dir_ = freshTempDir();
    const QString displayFile = dir_ + QStringLiteral("/display");
    process_ = std::make_unique<QProcess>();
    // -displayfd tries display numbers until one is free and complains about each taken one.
    process_->setStandardErrorFile(dir_ + QStringLiteral("/xvfb.log"));
    // -displayfd writes the display number it took to descriptor 3, here a file.
    process_->start(QStringLiteral("/bin/sh"),
                    {QStringLiteral("-c"), QStringLiteral("exec \"$0\" -displayfd 3 -screen 0 %1x%2x24 -nolisten tcp 3>\"$1\"")
                                               .arg(screen.width()).arg(screen.height()),
                     xvfb, displayFile});
    waitUntil([&] {
        QFile f(displayFile);
        display_ = f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll().trimmed()) : QString();
        return !display_.isEmpty();
    }, 20s);
    if (display_.isEmpty()) {
        error_ = QStringLiteral("Xvfb did not come up");
        return false;
    }
    display_.prepend(QLatin1Char(':'));
    return true;
}

XButtonLog::XButtonLog(const QString &display)
{
    dpy_ = XOpenDisplay(display.toLocal8Bit().constData());
    if (!dpy_) return;
    int event = 0, error = 0;
    if (!XQueryExtension(dpy_, "XInputExtension", &xiOpcode_, &event, &error)) {
        XCloseDisplay(dpy_);
        dpy_ = nullptr;
        return;
    }
    int major = 2, minor = 2;
    XIQueryVersion(dpy_, &major, &minor);
    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    XIEventMask mask{XIAllMasterDevices, int(sizeof bits), bits};
    XISetMask(bits, XI_RawButtonPress);
    XISetMask(bits, XI_RawButtonRelease);
    XISelectEvents(dpy_, DefaultRootWindow(dpy_), &mask, 1);
    XSync(dpy_, False);
}

XButtonLog::~XButtonLog()
{
    if (dpy_) XCloseDisplay(dpy_);
}

QStringList XButtonLog::take()
{
    QStringList out;
    if (!dpy_) return out;
    XSync(dpy_, False);
    while (XPending(dpy_)) {
        XEvent ev;
        XNextEvent(dpy_, &ev);
        if (ev.xcookie.type != GenericEvent || ev.xcookie.extension != xiOpcode_ || !XGetEventData(dpy_, &ev.xcookie)) continue;
        const auto *raw = static_cast<const XIRawEvent *>(ev.xcookie.data);
        if (ev.xcookie.evtype == XI_RawButtonPress) out << QStringLiteral("p%1").arg(raw->detail);
        if (ev.xcookie.evtype == XI_RawButtonRelease) out << QStringLiteral("r%1").arg(raw->detail);
        XFreeEventData(dpy_, &ev.xcookie);
    }
    return out;
}

std::pair<QPoint, unsigned> XButtonLog::query()
{
    Window root = 0, child = 0;
    int rx = 0, ry = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(dpy_, DefaultRootWindow(dpy_), &root, &child, &rx, &ry, &wx, &wy, &mask);
    return {{rx, ry}, mask & (Button1Mask | Button2Mask | Button3Mask | Button4Mask | Button5Mask)};
}

void drainMainThread()
{
    // Each round lets the tasks queued before it run; actions queue their events once more.
    for (int round = 0; round < 3; ++round) {
        bool ran = false;
        runOnMainThread([&ran] { ran = true; });
        waitUntil([&] { return ran; }, 10s);
    }
}

ProbeWindow::ProbeWindow(const QString &display)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), display.isEmpty() ? QStringLiteral("wayland") : QStringLiteral("xcb"));
    env.remove(display.isEmpty() ? QStringLiteral("DISPLAY") : QStringLiteral("WAYLAND_DISPLAY"));
    if (!display.isEmpty()) env.insert(QStringLiteral("DISPLAY"), display);
    process_.setProcessEnvironment(env);
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] {
        pending_ += process_.readAllStandardOutput();
        for (qsizetype nl; (nl = pending_.indexOf('\n')) >= 0; pending_.remove(0, nl + 1)) lines_ << QString::fromUtf8(pending_.left(nl));
    });
}

ProbeWindow::~ProbeWindow()
{
    process_.kill();
    process_.waitForFinished(5000);
}

bool ProbeWindow::start()
{
    process_.start(QStringLiteral(VELOCAST_INPUT_PROBE), {});
    return waitForLine(QStringLiteral("ready"));
}

bool ProbeWindow::waitForLine(const QString &line)
{
    return waitUntil([&] { return lines_.contains(line); }, 20s);
}

} // namespace velocast::test
