// A private sound server for one test (scripts/sound-server.sh): PulseAudio, or PipeWire with
// WirePlumber and pipewire-pulse. While it runs, PULSE_SERVER points this process at it.
#pragma once

#include "support/test_support.h"

#include <QProcess>
#include <QStringList>

namespace velocast::test {

class SoundServer {
public:
    // "pulse" or "pipewire".
    explicit SoundServer(QString kind) : kind_(std::move(kind)) { }
    ~SoundServer()
    {
        stop();
        savedPulseServer_.isNull() ? qunsetenv("PULSE_SERVER") : qputenv("PULSE_SERVER", savedPulseServer_);
    }
    SoundServer(const SoundServer &) = delete;
    SoundServer &operator=(const SoundServer &) = delete;

    bool start()
    {
        if (dir_.isEmpty()) dir_ = freshTempDir();
        QProcess p;
        p.start("bash", {script(), "start", kind_, dir_});
        if (!p.waitForFinished(60000) || p.exitCode() != 0) {
            error_ = QString("%1 did not start: %2").arg(kind_, QString::fromLocal8Bit(p.readAllStandardError()));
            stop();
            return false;
        }
        const QString socket = kind_ == "pipewire" ? dir_ + "/run/pulse/native" : dir_ + "/run/pulse-native";
        qputenv("PULSE_SERVER", ("unix:" + socket).toLocal8Bit());
        return true;
    }
    void stop()
    {
        if (!dir_.isEmpty()) QProcess::execute("bash", {script(), "stop", dir_});
    }
    QString error() const { return error_; }

    // Runs pactl against the server; its standard output, trimmed.
    QString pactl(const QStringList &arguments) const
    {
        QProcess p;
        p.start("pactl", arguments);
        p.waitForFinished(10000);
        return QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed();
    }
    // The index of a sink or source, from `pactl list short sinks|sources`; -1 when absent.
    int index(const QString &what, const QString &name) const
    {
        for (const QString &line : pactl({"list", "short", what}).split('\n')) {
            const QStringList fields = line.split('\t');
            if (fields.size() > 1 && fields[1] == name) return fields[0].toInt();
        }
        return -1;
    }

private:
    static QString script() { return VELOCAST_SOURCE_DIR "/scripts/sound-server.sh"; }
    QString kind_;
    QString dir_;
    QByteArray savedPulseServer_ = qgetenv("PULSE_SERVER"); // null when it was not set
    QString error_;
};

} // namespace velocast::test
