// The reference receiver as a whole: control server, media sink, event log, and the
// command queue fed by standard input and a scenario file. Main thread only.
#pragma once

#include "commands.h"
#include "control_server.h"
#include "event_log.h"
#include "media_sink.h"

#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QSocketNotifier>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>

namespace velocast::receiver {

struct ReceiverOptions {
    QHostAddress bind = QHostAddress(QHostAddress::AnyIPv4);
    quint16 controlPort = 15623;
    quint16 mediaPort = 15630;
    QHostAddress shownAddress; // the address the connect code is for; null: pick one
    int safeCode = 1;
    bool checkSafeCode = true;
    ControlPolicy control;
    MediaOptions media;
    CommandDefaults commands;
    QString eventLogPath;      // "-" standard output, empty: none
    bool echo = true;          // human-readable event lines on standard error
    QString scenarioPath;
    bool readStdin = true;
};

class Receiver : public QObject {
    Q_OBJECT
public:
    explicit Receiver(const ReceiverOptions &options, QObject *parent = nullptr);
    ~Receiver() override;

    // Opens the log, listens, prints the connect code, starts the scenario and standard
    // input. Returns false with *error when a port cannot be opened.
    bool start(QString *error);

    // Appends command lines to the queue (run in order; sleep and await hold the queue).
    void enqueue(const QStringList &lines);

    ControlServer *control() { return control_.get(); }
    MediaSink *media() { return media_.get(); }
    EventLog *eventLog() { return log_.get(); }
    QString connectCodeText() const { return code_; }

    // What the snapshot command calls (the live view, when there is one); it returns
    // false when the picture cannot be saved.
    void setSnapshotHandler(std::function<bool(const QString &)> handler) { snapshot_ = std::move(handler); }

    // Writes the media report file and logs it.
    void report();

signals:
    void quitRequested();

private:
    void runQueue();
    void execute(const Command &c);
    void onEvent(const QString &event, const QJsonObject &fields);
    void onStdin();

    ReceiverOptions options_;
    std::unique_ptr<EventLog> log_;
    std::unique_ptr<ControlServer> control_;
    std::unique_ptr<MediaSink> media_;
    QStringList queue_;
    bool holding_ = false;     // a sleep or await is in progress
    bool quitting_ = false;
    QString awaiting_;
    QTimer holdTimer_;
    QHash<QString, int> unconsumed_; // events seen and not yet awaited
    std::unique_ptr<QSocketNotifier> stdinNotifier_;
    QByteArray stdinBuffer_;
    QString code_;
    std::function<bool(const QString &)> snapshot_;
};

} // namespace velocast::receiver
