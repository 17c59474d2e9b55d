#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>

namespace velocast::test {

class ChildProcess;

// The reference receiver (tools/receiver) as a child on 127.0.0.1, ports of its choosing: its event
// log is read while the Qt event loop runs, commands go to its standard input.
class ReferenceReceiver {
public:
    static bool available(); // the test executable knows where the program is

    explicit ReferenceReceiver(QStringList extraArguments = {});
    ~ReferenceReceiver();

    bool start(); // waits for it to listen; the reason in error() otherwise
    QString error() const { return error_; }
    quint16 controlPort() const { return controlPort_; }
    quint16 mediaPort() const { return mediaPort_; }
    QString code() const { return code_; }

    void command(const QString &line);
    // Runs the event loop until an event of that name for which pred holds.
    bool waitForEvent(const QString &event, const std::function<bool(const QJsonObject &)> &pred = {},
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    QList<QJsonObject> events(const QString &event) const;
    int count(const QString &event) const { return counts_.value(event); } // forgotten events included
    void forgetEvents() { events_.clear(); } // for long runs; counts stay
    QList<QJsonObject> received(const QString &id) const; // message_received events of that id

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
