// The probe window for the remote input tests, and a scoped environment variable.
#pragma once

#include "support/test_support.h"

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace velocast::test {

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

// A child Qt program (input_probe.cpp) that reports what a toolkit sees, one line per event
// ("press 1 X Y", "dblclick 1 X Y", "wheel DX DY", "text ...", "key MODS+KEY"). On that X
// display, or without one a client of the Wayland compositor the environment names.
class ProbeWindow {
public:
    explicit ProbeWindow(const QString &display = {});
    ~ProbeWindow()
    {
        process_.kill();
        process_.waitForFinished(5000);
    }
    bool start()
    {
        process_.start(QStringLiteral(VELOCAST_INPUT_PROBE), {});
        return waitForLine(QStringLiteral("ready"));
    }
    bool waitForLine(const QString &line) { return waitUntil([&] { return lines_.contains(line); }, std::chrono::seconds(20)); }
    QString log() const { return lines_.join('\n'); }
    void clear() { lines_.clear(); }

private:
    QProcess process_;
    QByteArray pending_;
    QStringList lines_;
};

} // namespace velocast::test
