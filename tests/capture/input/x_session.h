// Test support for remote input: a private Xvfb per test (so injected input reaches no
// other test's windows), a recorder of the button events the X server delivers (XInput2
// raw events), and a probe window (a child Qt program) that reports what a toolkit sees,
// on X11 or on Wayland.
#pragma once

#include <QByteArray>
#include <QPoint>
#include <QProcess>
#include <QSize>
#include <QString>
#include <QStringList>

#include <memory>
#include <utility>

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
    QPoint pointer() { return query().first; }
    // Buttons the server holds down now (X button mask bits: 1 << (7 + n)).
    unsigned buttonMask() { return query().second; }

private:
    std::pair<QPoint, unsigned> query();
    _XDisplay *dpy_ = nullptr;
    int xiOpcode_ = 0;
};

// Sets an environment variable (a null value unsets it) until the end of the scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const QByteArray &value) : name_(name), saved_(qgetenv(name)) { set(value); }
    ~ScopedEnv() { set(saved_); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    void set(const QByteArray &value) const { value.isNull() ? qunsetenv(name_) : qputenv(name_, value); }
    const char *name_;
    QByteArray saved_;
};

// Lets everything already queued on the main thread (and what that queues in turn) run.
void drainMainThread();

// The probe window: a frameless window over the whole screen with a line edit at its top
// left; prints one line per event ("press 1 X Y", "dblclick 1 X Y", "wheel DX DY",
// "text ...", "key MODS TEXT"). On that X display, or without one a client of the Wayland
// compositor the environment names.
class ProbeWindow {
public:
    explicit ProbeWindow(const QString &display = {});
    ~ProbeWindow();
    bool start();
    bool waitForLine(const QString &line);
    QStringList lines() const { return lines_; }
    QString log() const { return lines_.join('\n'); }
    void clear() { lines_.clear(); }

private:
    QProcess process_;
    QByteArray pending_;
    QStringList lines_;
};

} // namespace velocast::test
