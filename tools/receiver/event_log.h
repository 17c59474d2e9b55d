// Machine-readable event log of the receiver: one JSON object per line,
//   {"t": <ms since start>, "event": "<name>", ...fields}
// written to a file or standard output and flushed after each line, so that a test or a
// script can follow it while the receiver runs. Main thread only.
#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <memory>

namespace velocast::receiver {

class EventLog : public QObject {
    Q_OBJECT
public:
    explicit EventLog(QObject *parent = nullptr);
    ~EventLog() override;

    // path "-" writes to standard output; an empty path keeps events in memory only
    // (they are still signalled). Returns false with *error when the file cannot be opened.
    bool open(const QString &path, QString *error);
    // Also print a short human-readable line per event on standard error.
    void setEcho(bool echo) { echo_ = echo; }

    void log(const QString &event, QJsonObject fields = {});
    qint64 elapsedMs() const { return clock_.elapsed(); }

signals:
    void logged(const QString &event, const QJsonObject &fields);

private:
    QElapsedTimer clock_;
    std::unique_ptr<QFile> file_;
    bool echo_ = false;
};

} // namespace velocast::receiver
