// The receiver's media sink: video records over TCP and audio datagrams over UDP, both on
// the same port number. Checks every record and datagram, appends the H.264 access units
// to video.h264 and the ADTS frames to audio.aac in the output folder, and keeps a report.
// Main thread only.
#pragma once

#include "event_log.h"
#include "media_checks.h"

#include <QFile>
#include <QJsonArray>
#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>

#include <map>
#include <memory>

namespace velocast::receiver {

struct MediaOptions {
    QString outputDir;        // empty: write no files
    bool logFrames = false;   // one event per video and audio frame
    uint32_t maxRecordPayload = VideoRecordParser::kDefaultMaxPayload;
    int maxConnections = 8;   // further video connections are closed at once
};

class MediaSink : public QObject {
    Q_OBJECT
public:
    MediaSink(const MediaOptions &options, EventLog *log, QObject *parent = nullptr);
    ~MediaSink() override;

    // Listens on TCP and binds UDP to the same port. Port 0 picks a free number that is
    // free for both.
    bool listen(const QHostAddress &address, quint16 port, QString *error);
    quint16 port() const { return server_.serverPort(); }

    // Takes in what has already arrived, then stops listening and receiving, so that the
    // report and the files agree.
    void stop();

    // Video streams so far (one per TCP connection), audio, and every violation.
    QJsonObject report() const;
    // Writes report.json into the output folder; returns its path (empty when none).
    QString writeReport();
    int violationCount() const { return tally_.total(); }

signals:
    // For the live view: a checked access unit and an ADTS frame.
    void videoFrame(const QByteArray &accessUnit, bool keyFrame);
    void audioFrame(const QByteArray &adtsFrame);

private:
    struct Stream {
        int number = 0;
        QPointer<QTcpSocket> socket;
        VideoRecordParser parser;
        VideoChecker checker;
        explicit Stream(uint32_t cap) : parser(cap) {}
    };

    void onNewConnection();
    void onVideoData(int number);
    void onVideoClosed(int number);
    void onDatagrams();
    void record(const QString &stream, const Issues &issues);
    bool openOutput(QFile &file, const QString &name);

    MediaOptions options_;
    EventLog *log_;
    QTcpServer server_;
    QUdpSocket udp_;
    std::map<int, std::unique_ptr<Stream>> streams_;
    QJsonArray finishedStreams_;
    // One checker per sending socket: a new cast comes from a new socket whose sequence
    // numbers start again at 0.
    std::map<QString, std::unique_ptr<AudioDatagramChecker>> audio_;
    qint64 audioDatagrams_ = 0, audioFrames_ = 0;
    ViolationTally tally_;
    QFile videoFile_, audioFile_;
    int nextNumber_ = 1;
};

} // namespace velocast::receiver
