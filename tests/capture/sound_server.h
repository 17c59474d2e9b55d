// A private sound server for one test (scripts/sound-server.sh): PulseAudio, or PipeWire with
// WirePlumber and pipewire-pulse. While it runs, PULSE_SERVER points this process at it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <utility>

namespace velocast::test {

class SoundServer {
public:
    // "pulse" or "pipewire".
    explicit SoundServer(QString kind) : kind_(std::move(kind)) { }
    ~SoundServer();
    SoundServer(const SoundServer &) = delete;
    SoundServer &operator=(const SoundServer &) = delete;

    bool start();
    void stop();
    QString error() const { return error_; }

    // Runs pactl against the server; its standard output, trimmed.
    QString pactl(const QStringList &arguments) const;
    // The index of a sink or source, from `pactl list short sinks|sources`; -1 when absent.
    int index(const QString &what, const QString &name) const;

private:
    QString kind_;
    QString dir_;
    QByteArray savedPulseServer_ = qgetenv("PULSE_SERVER"); // null when it was not set
    QString error_;
};

} // namespace velocast::test
