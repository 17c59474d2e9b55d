#include "media_sink.h"

#include "accept.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkDatagram>

#include <time.h>

namespace velocast::receiver {

namespace {
constexpr qint64 kReadChunk = 256 * 1024;
constexpr qint64 kMaxDatagram = 65536;
// Violations of one kind logged one by one; beyond that the report only counts them.
constexpr int kViolationsLoggedPerKind = 200;
// Audio sources tracked at once; a new one beyond this replaces an old one.
constexpr size_t kMaxAudioSources = 16;
} // namespace

MediaSink::MediaSink(const MediaOptions &options, EventLog *log, QObject *parent)
    : QObject(parent), options_(options), log_(log)
{
    connect(&server_, &QTcpServer::newConnection, this, &MediaSink::onNewConnection);
    connect(&udp_, &QUdpSocket::readyRead, this, &MediaSink::onDatagrams);
}

MediaSink::~MediaSink()
{
    for (auto &[n, s] : streams_)
        if (s->socket) s->socket->disconnect(this);
}

bool MediaSink::listen(const QHostAddress &address, quint16 port, QString *error)
{
    // With port 0 the TCP port is picked first and UDP must get the same number; retry a
    // few times in the rare case that number is taken for UDP.
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (!server_.listen(address, port)) {
            if (error) *error = QStringLiteral("TCP: ") + server_.errorString();
            return false;
        }
        if (udp_.bind(address, server_.serverPort())) {
            // A burst of audio must not be lost in the kernel while the event loop is busy.
            udp_.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 1 << 20);
            return true;
        }
        if (error) *error = QStringLiteral("UDP: ") + udp_.errorString();
        server_.close();
        if (port != 0) return false;
    }
    return false;
}

bool MediaSink::openOutput(QFile &file, const QString &name)
{
    if (options_.outputDir.isEmpty()) return false;
    if (file.isOpen()) return true;
    QDir().mkpath(options_.outputDir);
    file.setFileName(QDir(options_.outputDir).filePath(name));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        log_->log(QStringLiteral("output_failed"), {{QStringLiteral("file"), file.fileName()}, {QStringLiteral("error"), file.errorString()}});
        options_.outputDir.clear(); // do not try again for every frame
        return false;
    }
    log_->log(QStringLiteral("output_opened"), {{QStringLiteral("file"), file.fileName()}});
    return true;
}

void MediaSink::record(const QString &stream, const Issues &issues)
{
    for (const Issue &issue : issues) {
        tally_.add(issue);
        if (tally_.count(issue.kind) > kViolationsLoggedPerKind) continue;
        log_->log(QStringLiteral("violation"), {{QStringLiteral("stream"), stream},
                                                {QStringLiteral("kind"), QLatin1String(violationName(issue.kind))},
                                                {QStringLiteral("detail"), issue.detail}});
    }
}

void MediaSink::onNewConnection()
{
    while (QTcpSocket *socket = server_.nextPendingConnection()) {
        if (!admitConnection(socket, this, streams_.size(), options_.maxConnections, kReadChunk, *log_,
                             QStringLiteral("media_rejected")))
            continue;
        const int number = nextNumber_++;
        auto s = std::make_unique<Stream>(options_.maxRecordPayload);
        s->number = number;
        s->socket = socket;
        connect(socket, &QTcpSocket::readyRead, this, [this, number] { onVideoData(number); });
        connect(socket, &QTcpSocket::disconnected, this, [this, number] { onVideoClosed(number); });
        log_->log(QStringLiteral("media_connected"),
                  {{QStringLiteral("stream"), number},
                   {QStringLiteral("peer"), peerText(socket)}});
        streams_[number] = std::move(s);
        if (socket->bytesAvailable() > 0) onVideoData(number);
    }
}

void MediaSink::onVideoData(int number)
{
    auto it = streams_.find(number);
    if (it == streams_.end()) return;
    Stream &s = *it->second;
    const QString name = QStringLiteral("video");
    while (s.socket && s.socket->bytesAvailable() > 0) {
        const QByteArray bytes = s.socket->read(kReadChunk);
        if (bytes.isEmpty()) break;
        // When the records completed by these bytes were read, on the system's monotonic
        // clock (a sender on the same machine measures its latency against it).
        timespec readAt{};
        if (options_.logFrames) clock_gettime(CLOCK_MONOTONIC, &readAt);
        QList<VideoRecordParser::Record> records;
        Issues issues;
        s.parser.feed(bytes.constData(), bytes.size(), &records, &issues);
        record(name, issues);
        for (const auto &r : records) {
            Issues frameIssues;
            const bool key = r.header.keyFlag == 1;
            s.checker.check(r.payload, key, log_->elapsedMs(), &frameIssues);
            record(name, frameIssues);
            if (options_.logFrames)
                log_->log(QStringLiteral("video_frame"), {{QStringLiteral("stream"), number},
                                                          {QStringLiteral("n"), s.checker.frames()},
                                                          {QStringLiteral("key"), key},
                                                          {QStringLiteral("bytes"), qint64(r.payload.size())},
                                                          {QStringLiteral("read_us"), qint64(readAt.tv_sec) * 1'000'000 + readAt.tv_nsec / 1000}});
            if (openOutput(videoFile_, QStringLiteral("video.h264"))) videoFile_.write(r.payload);
            emit videoFrame(r.payload, key);
        }
    }
}

void MediaSink::onVideoClosed(int number)
{
    onVideoData(number);
    auto it = streams_.find(number);
    if (it == streams_.end()) return;
    Stream &s = *it->second;
    Issues issues;
    s.parser.finish(&issues);
    record(QStringLiteral("video"), issues);
    QJsonObject r = s.checker.report();
    r[QStringLiteral("stream")] = number;
    r[QStringLiteral("skipped_bytes")] = s.parser.skippedBytes();
    finishedStreams_.append(r);
    log_->log(QStringLiteral("media_closed"), r);
    if (videoFile_.isOpen()) videoFile_.flush();
    if (s.socket) s.socket->deleteLater();
    streams_.erase(it);
}

void MediaSink::onDatagrams()
{
    while (udp_.hasPendingDatagrams()) {
        const QNetworkDatagram d = udp_.receiveDatagram(kMaxDatagram);
        if (!d.isValid()) break;
        const QByteArray data = d.data();
        const QString source = QStringLiteral("%1:%2").arg(d.senderAddress().toString()).arg(d.senderPort());
        auto it = audio_.find(source);
        if (it == audio_.end()) {
            if (audio_.size() >= kMaxAudioSources) audio_.erase(audio_.begin());
            it = audio_.emplace(source, std::make_unique<AudioDatagramChecker>()).first;
            log_->log(QStringLiteral("audio_source"), {{QStringLiteral("source"), source}});
        }
        QList<QByteArray> frames;
        Issues issues;
        ++audioDatagrams_;
        it->second->feed(data.constData(), data.size(), &frames, &issues);
        record(QStringLiteral("audio"), issues);
        for (const QByteArray &f : frames) {
            ++audioFrames_;
            if (options_.logFrames)
                log_->log(QStringLiteral("audio_frame"), {{QStringLiteral("n"), audioFrames_}, {QStringLiteral("bytes"), qint64(f.size())}});
            if (openOutput(audioFile_, QStringLiteral("audio.aac"))) audioFile_.write(f);
            emit audioFrame(f);
        }
    }
}

void MediaSink::stop()
{
    server_.close();
    onDatagrams();
    udp_.close();
    for (auto &[number, s] : streams_) {
        onVideoData(number);
        if (s->socket) {
            s->socket->disconnect(this);
            s->socket->abort();
        }
    }
}

QJsonObject MediaSink::report() const
{
    QJsonArray video = finishedStreams_;
    for (const auto &[number, s] : streams_) {
        QJsonObject r = s->checker.report();
        r[QStringLiteral("stream")] = number;
        r[QStringLiteral("skipped_bytes")] = s->parser.skippedBytes();
        r[QStringLiteral("open")] = true;
        video.append(r);
    }
    QJsonObject o;
    o[QStringLiteral("video")] = video;
    QJsonArray sources;
    qint64 bytes = 0, missing = 0;
    for (const auto &[source, checker] : audio_) {
        QJsonObject a = checker->report();
        a[QStringLiteral("source")] = source;
        sources.append(a);
        bytes += checker->bytes();
        missing += checker->missingDatagrams();
    }
    o[QStringLiteral("audio")] = QJsonObject{{QStringLiteral("datagrams"), audioDatagrams_},
                                             {QStringLiteral("frames"), audioFrames_},
                                             {QStringLiteral("bytes"), bytes},
                                             {QStringLiteral("missing_datagrams"), missing},
                                             {QStringLiteral("sources"), sources}};
    o[QStringLiteral("violations")] = tally_.report();
    o[QStringLiteral("violation_count")] = tally_.total();
    if (videoFile_.isOpen()) o[QStringLiteral("video_file")] = videoFile_.fileName();
    if (audioFile_.isOpen()) o[QStringLiteral("audio_file")] = audioFile_.fileName();
    return o;
}

QString MediaSink::writeReport()
{
    if (videoFile_.isOpen()) videoFile_.flush();
    if (audioFile_.isOpen()) audioFile_.flush();
    if (options_.outputDir.isEmpty()) return {};
    QDir().mkpath(options_.outputDir);
    QFile f(QDir(options_.outputDir).filePath(QStringLiteral("report.json")));
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) return {};
    f.write(QJsonDocument(report()).toJson(QJsonDocument::Indented));
    return f.fileName();
}

} // namespace velocast::receiver
