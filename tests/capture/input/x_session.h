// Test support for remote input: a private Xvfb per test (so injected input reaches no
// other test's windows), a recorder of the button events the X server delivers (XInput2
// raw events), and a probe window (a child Qt program) that reports what a toolkit sees.
#pragma once

#include <QPoint>
#include <QProcess>
#include <QSize>
#include <QString>
#include <QStringList>

#include <memory>

struct _XDisplay;

namespace velocast::test {

// Xvfb on a display it picks itself, stopped when this goes.
class PrivateXServer {
public:
    PrivateXServer() = default;
    ~PrivateXServer();
    // False (with the reason in error()) when Xvfb is not installed or does not come up.
    bool start(QSize screen);
    QString display() const { return display_; }
    QString error() const { return error_; }

private:
    std::unique_ptr<QProcess> process_;
    QString dir_;
    QString display_;
    QString error_;
};

// Button presses and releases as the server delivers them ("p1", "r1", ...), read through
// its own connection.
class XButtonLog {
public:
    explicit XButtonLog(const QString &display);
    ~XButtonLog();
    bool ok() const { return dpy_ != nullptr; }
    // Everything delivered since the last call (a round trip makes sure all of it is in).
    QStringList take();
    QPoint pointer();
    // Buttons the server holds down now (X button mask bits: 1 << (7 + n)).
    unsigned buttonMask();

private:
    _XDisplay *dpy_ = nullptr;
    int xiOpcode_ = 0;
};

// Lets everything already queued on the main thread (and what that queues in turn) run.
void drainMainThread();

// The probe window: a frameless window over the whole screen with a line edit at its top
// left; prints one line per event ("press 1 X Y", "dblclick 1 X Y", "wheel DX DY",
// "text ...", "key MODS TEXT").
class ProbeWindow {
public:
    explicit ProbeWindow(const QString &display);
    ~ProbeWindow();
    bool start();
    // Waits for a line that starts with prefix; the lines so far otherwise.
    bool waitForLine(const QString &line);
    QStringList lines() const { return lines_; }

private:
    QProcess process_;
    QByteArray pending_;
    QStringList lines_;
};

} // namespace velocast::test
