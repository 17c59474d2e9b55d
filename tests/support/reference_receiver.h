#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>

namespace velocast::test {

class ChildProcess;

// Runs the reference receiver (tools/receiver) as a child process on 127.0.0.1 with ports
// it picks itself, follows its JSON-lines event log and sends it commands on standard input.
// Events are read while the Qt event loop runs (waitForEvent pumps it). The program is started
// with posix_spawn (ChildProcess), which ThreadSanitizer builds can follow.
class ReferenceReceiver {
public:
    // True when the test executable knows where the receiver program is.
    static bool available();

    explicit ReferenceReceiver(QStringList extraArguments = {});
    ~ReferenceReceiver();

    // Starts the program and waits for it to listen; false (with the reason in error()) otherwise.
    bool start();
    QString error() const { return error_; }
    quint16 controlPort() const { return controlPort_; }
    quint16 mediaPort() const { return mediaPort_; }
    QString code() const { return code_; }

    void command(const QString &line);
    // Waits (running the event loop) for an event of that name for which pred holds.
    bool waitForEvent(const QString &event, const std::function<bool(const QJsonObject &)> &pred = {},
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    QList<QJsonObject> events(const QString &event) const;
    // Counted since the start, forgotten events included.
    int count(const QString &event) const { return counts_.value(event); }
    // Lets go of the events read so far (a long run would keep them all); counts stay.
    void forgetEvents() { events_.clear(); }
    // message_received events with that message id.
    QList<QJsonObject> received(const QString &id) const;

private:
    void readEvents(const QByteArray &bytes);

    QStringList arguments_;
    std::unique_ptr<ChildProcess> process_;
    QByteArray pending_;
    QList<QJsonObject> events_;
    QHash<QString, int> counts_;
    QString error_;
    quint16 controlPort_ = 0;
    quint16 mediaPort_ = 0;
    QString code_;
};

} // namespace velocast::test
