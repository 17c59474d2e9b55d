// End to end over loopback: the velocast-receiver program against a small client that
// plays the sender's part with real H.264 and AAC made by GStreamer; the written files
// are then checked with ffprobe. A second test drives the receiver in-process with
// hostile input.
#include "control_framing.h"
#include "push/media_wire_format.h"
#include "receiver.h"

#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QUdpSocket>

#include "test_media.h"

#include <gtest/gtest.h>

using namespace velocast::receiver;
using velocast::test::waitUntil;
namespace wire = velocast::wire;

namespace {

// ---------------------------------------------------------------------------------------
// The client's side of the control channel.

class ControlClient {
public:
    bool connectTo(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        return waitUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; });
    }
    void send(const QString &id, const QJsonObject &property)
    {
        const QJsonObject o{{"id", id}, {"property", property}, {"from", 2}, {"to", 5}, {"uuid", "5C0FFEE0-0000-4000-8000-000000000001"}};
        socket.write(QJsonDocument(o).toJson(QJsonDocument::Indented) + "#");
    }
    // The next message from the receiver (reassembled across reads), or an empty id.
    ControlMessage next()
    {
        waitUntil([&] {
            if (socket.bytesAvailable() > 0)
                for (const QByteArray &p : framer.feed(socket.readAll())) received.append(p);
            return !received.isEmpty();
        });
        if (received.isEmpty()) return {};
        const QByteArray piece = received.takeFirst();
        EXPECT_LT(piece.size() + 1, 1024);
        const ParseResult r = parseMessage(piece);
        EXPECT_TRUE(r.ok()) << piece.constData();
        return r.message;
    }
    QTcpSocket socket;
    MessageFramer framer;
    QList<QByteArray> received;
};

// Follows a JSON-lines event log file.
class EventFollower {
public:
    explicit EventFollower(QString path) : path_(std::move(path)) {}
    void poll()
    {
        QFile f(path_);
        if (!f.open(QIODevice::ReadOnly)) return;
        f.seek(offset_);
        const QByteArray data = f.readAll();
        // Only whole lines; a line being written is read on the next poll.
        const qsizetype end = data.lastIndexOf('\n') + 1;
        offset_ += end;
        for (const QByteArray &line : data.left(end).split('\n'))
            if (!line.isEmpty()) events.append(QJsonDocument::fromJson(line).object());
    }
    int count(const QString &event, const QString &id = {})
    {
        poll();
        int n = 0;
        for (const QJsonObject &e : events)
            if (e.value("event").toString() == event && (id.isEmpty() || e.value("id").toString() == id)) ++n;
        return n;
    }
    QJsonObject last(const QString &event)
    {
        poll();
        for (auto it = events.crbegin(); it != events.crend(); ++it)
            if (it->value("event").toString() == event) return *it;
        return {};
    }
    QList<QJsonObject> events;

private:
    QString path_;
    qint64 offset_ = 0;
};

QJsonObject ffprobe(const QString &file, const QString &streamEntries)
{
    QProcess p;
    p.start("ffprobe", {"-v", "error", "-count_frames", "-show_entries", "stream=" + streamEntries, "-of", "json", file});
    if (!p.waitForFinished(60000) || p.exitCode() != 0) return {{"error", QString::fromUtf8(p.readAllStandardError())}};
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object().value("streams").toArray().first().toObject();
}

} // namespace

TEST(ReceiverLoopback, AdmitsPermitsSteersAndWritesDecodableFiles)
{
    if (QStandardPaths::findExecutable("ffprobe").isEmpty()) GTEST_SKIP() << "ffprobe (Debian package ffmpeg) is not installed";
    const EncodedVideo video = encodeVideo(45, 320, 240);
    const QList<QByteArray> audio = encodeAudio(60);
    ASSERT_EQ(video.units.size(), 45) << "GStreamer x264enc did not produce the test stream";
    ASSERT_EQ(audio.size(), 60) << "GStreamer voaacenc did not produce the test audio";

    const QString dir = velocast::test::freshTempDir();
    const QString logPath = QDir(dir).filePath("events.jsonl");
    const QString outDir = QDir(dir).filePath("out");
    QProcess receiver;
    receiver.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    receiver.start(VELOCAST_RECEIVER_BINARY,
                   {"--bind", "127.0.0.1", "--control-port", "0", "--media-port", "0", "--address", "127.0.0.1", "--safe-code", "3",
                    "--name", "Test Screen", "--permission-wait", "50", "--event-log", logPath, "--output-dir", outDir, "--log-frames",
                    "--quiet", "--area", "1280x720"});
    ASSERT_TRUE(receiver.waitForStarted());
    EventFollower log(logPath);
    ASSERT_TRUE(waitUntil([&] { return log.count("listening") == 1; }, std::chrono::seconds(10)));
    const QJsonObject listening = log.last("listening");
    EXPECT_EQ(listening.value("code").toString(), "196609"); // 3 * 65536 + 0 * 256 + 1
    const auto controlPort = quint16(listening.value("control_port").toInt());
    const auto mediaPort = quint16(listening.value("media_port").toInt());
    ASSERT_NE(controlPort, 0);
    ASSERT_NE(mediaPort, 0);

    // Admission, heartbeat, permission with a wait first.
    ControlClient client;
    ASSERT_TRUE(client.connectTo(controlPort));
    client.send("id_connect_request", {{"name", "Test PC"}, {"safe_code", "3"}, {"ip", "127.0.0.1"}});
    ControlMessage m = client.next();
    EXPECT_EQ(m.id, "id_connect_allow");
    EXPECT_EQ(m.property.value("name").toString(), "Test Screen");
    client.send("id_heartbeat", {{"timestamp", 1700000001}});
    m = client.next();
    EXPECT_EQ(m.id, "id_heartbeat");
    client.send("id_permission_request", {{"type", 2}});
    EXPECT_EQ(client.next().id, "id_permission_wait");
    EXPECT_EQ(client.next().id, "id_permission_allow");

    // The cast: video records over TCP, audio datagrams over UDP to the same port.
    QTcpSocket media;
    media.connectToHost(QHostAddress::LocalHost, mediaPort);
    ASSERT_TRUE(waitUntil([&] { return media.state() == QAbstractSocket::ConnectedState; }));
    QUdpSocket udp;
    uint16_t seq = 0;
    for (int i = 0; i < 60; ++i) {
        if (i < video.units.size()) media.write(videoRecord(video.units[i], video.keys[i]));
        const QByteArray &frame = audio[i];
        for (qsizetype off = 0; off < frame.size(); off += qsizetype(wire::kMaxDatagramPayload)) {
            wire::DatagramHeader h;
            h.type = wire::kDatagramTypeAudio;
            h.firstPiece = h.lastPiece = true;
            h.sequence = seq++;
            QByteArray d(4, 0);
            wire::writeDatagramHeader(reinterpret_cast<uint8_t *>(d.data()), h);
            ASSERT_GT(udp.writeDatagram(d + frame.mid(off, qsizetype(wire::kMaxDatagramPayload)), QHostAddress::LocalHost, mediaPort), 0);
        }
        // Let the receiver keep up so that no datagram is lost in the socket buffer.
        ASSERT_TRUE(waitUntil([&] { return log.count("audio_frame") == i + 1; })) << "audio frame " << i;
    }
    ASSERT_TRUE(waitUntil([&] { return log.count("video_frame") == 45; }));
    media.disconnectFromHost();
    ASSERT_TRUE(waitUntil([&] { return log.count("media_closed") == 1; }));

    // Steering on command, through standard input.
    receiver.write("resize 4\npause\nresume\naudio on\nmouse 1 10 20\nwheel 0 -3\nrename Big Screen\n"
                   "airplay-config 7100\nairplay-succeed\nstop\n");
    const QStringList steering{"id_codec_resize", "id_video_pause", "id_video_pause", "id_audio_ctrl", "id_pc_mk_event",
                               "id_pc_mk_event",  "id_rename",      "id_airplay_config", "id_airplay_screen_succeed",
                               "id_permission_disconnect"};
    QList<ControlMessage> got;
    for (int i = 0; i < steering.size(); ++i) got.append(client.next());
    QStringList ids;
    for (const auto &g : got) ids << g.id;
    EXPECT_EQ(ids, steering);
    EXPECT_EQ(got[0].property, (QJsonObject{{"type", 2}, {"count", 4}}));
    EXPECT_TRUE(got[1].property.value("pause").toBool());
    EXPECT_FALSE(got[2].property.value("pause").toBool());
    EXPECT_EQ(got[3].property.value("type").toInt(), 1);
    EXPECT_EQ(got[4].property, (QJsonObject{{"type", 1}, {"x", 10}, {"y", 20}, {"width", 1280}, {"height", 720}, {"wheel_x", 0}, {"wheel_y", 0}}));
    EXPECT_EQ(got[5].property.value("wheel_y").toInt(), -3);
    EXPECT_EQ(got[6].property.value("name").toString(), "Big Screen");
    EXPECT_EQ(got[7].property.value("port").toInt(), 7100);
    EXPECT_EQ(got[9].property.value("type").toInt(), 2);

    // Heartbeats can be left unanswered; then the receiver closes on command.
    receiver.write("heartbeat off\n");
    ASSERT_TRUE(waitUntil([&] { return log.count("command") >= 11; }));
    client.send("id_heartbeat", {{"timestamp", 1700000003}});
    ASSERT_TRUE(waitUntil([&] { return log.count("heartbeat") == 2; }));
    EXPECT_FALSE(log.last("heartbeat").value("answered").toBool());
    receiver.write("close\n");
    ASSERT_TRUE(waitUntil([&] { return client.socket.state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_TRUE(client.received.isEmpty() && client.socket.bytesAvailable() == 0) << "nothing after the steering messages";

    receiver.write("quit\n");
    ASSERT_TRUE(receiver.waitForFinished(10000));
    EXPECT_EQ(receiver.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(receiver.exitCode(), 0);

    // The receiver's own report.
    const QJsonObject report = log.last("media_report");
    EXPECT_EQ(report.value("violation_count").toInt(), 0) << QJsonDocument(report).toJson().constData();
    const QJsonObject v = report.value("video").toArray().first().toObject();
    EXPECT_EQ(v.value("frames").toInt(), 45);
    EXPECT_EQ(v.value("key_frames").toInt(), 5);
    EXPECT_EQ(v.value("longest_gop").toInt(), 10);
    EXPECT_EQ(v.value("width").toInt(), 320);
    EXPECT_EQ(v.value("height").toInt(), 240);
    EXPECT_EQ(report.value("audio").toObject().value("frames").toInt(), 60);
    EXPECT_TRUE(QFile::exists(QDir(outDir).filePath("report.json")));

    // A real decoder accepts what was written.
    const QJsonObject vs = ffprobe(QDir(outDir).filePath("video.h264"), "codec_name,profile,width,height,nb_read_frames");
    EXPECT_EQ(vs.value("codec_name").toString(), "h264") << QJsonDocument(vs).toJson().constData();
    EXPECT_EQ(vs.value("width").toInt(), 320);
    EXPECT_EQ(vs.value("height").toInt(), 240);
    EXPECT_EQ(vs.value("nb_read_frames").toString(), "45");
    const QJsonObject as = ffprobe(QDir(outDir).filePath("audio.aac"), "codec_name,sample_rate,channels,nb_read_frames");
    EXPECT_EQ(as.value("codec_name").toString(), "aac") << QJsonDocument(as).toJson().constData();
    EXPECT_EQ(as.value("sample_rate").toString(), "44100");
    EXPECT_EQ(as.value("channels").toInt(), 2);
    EXPECT_EQ(as.value("nb_read_frames").toString(), "60");
}

TEST(ReceiverLoopback, SurvivesHostileInputAndCountsEachFault)
{
    ReceiverOptions o;
    o.bind = QHostAddress(QHostAddress::LocalHost);
    o.controlPort = 0;
    o.mediaPort = 0;
    o.shownAddress = QHostAddress(QHostAddress::LocalHost);
    o.control.maxMessageBytes = 512;
    o.control.admission = ControlPolicy::Answer::Manual;
    o.echo = false;
    o.readStdin = false;
    Receiver r(o);
    QStringList events;
    QObject::connect(r.eventLog(), &EventLog::logged, [&](const QString &e, const QJsonObject &f) {
        events << (e == "bad_message" ? e + ":" + f.value("reason").toString() : e);
    });
    QString error;
    ASSERT_TRUE(r.start(&error)) << error.toStdString();

    // A client that sends garbage, an oversized message, bad UTF-8 and a cut message, then vanishes.
    {
        QTcpSocket rogue;
        rogue.connectToHost(QHostAddress::LocalHost, r.control()->port());
        ASSERT_TRUE(waitUntil([&] { return rogue.state() == QAbstractSocket::ConnectedState; }));
        rogue.write(QByteArray("\x00\x01{{{#", 6));
        rogue.write(QByteArray(5000, '{'));
        rogue.write("#\xf0\x28\x8c\x28#");
        rogue.write(R"({"id":"id_connect_req)");
        ASSERT_TRUE(waitUntil([&] { return events.contains("bad_message:bad_utf8"); }));
        rogue.abort();
    }
    ASSERT_TRUE(waitUntil([&] { return events.contains("control_closed"); }));
    EXPECT_EQ(events.count("bad_message:bad_json"), 1);
    EXPECT_EQ(events.count("bad_message:oversized"), 1);
    EXPECT_EQ(events.count("bad_message:bad_utf8"), 1);
    EXPECT_EQ(events.count("bad_message:unterminated"), 1);

    // A media client that sends a record with a bad magic, one good record, then half a record.
    {
        QTcpSocket m;
        m.connectToHost(QHostAddress::LocalHost, r.media()->port());
        ASSERT_TRUE(waitUntil([&] { return m.state() == QAbstractSocket::ConnectedState; }));
        const QByteArray au = QByteArray::fromHex("00000001419a0000");
        QByteArray bad = videoRecord(au, false);
        bad[0] = 'X';
        m.write(bad + videoRecord(au, false) + videoRecord(au, false).left(30));
        ASSERT_TRUE(waitUntil([&] { return m.bytesToWrite() == 0; }));
        m.disconnectFromHost();
    }
    ASSERT_TRUE(waitUntil([&] { return events.contains("media_closed"); }));
    // Garbage datagrams.
    QUdpSocket udp;
    udp.writeDatagram(QByteArray("\x01", 1), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return r.media()->report().value("audio").toObject().value("datagrams").toInt() == 1; }));

    // A new cast sends from a new socket whose sequence starts again at 0: not a fault.
    QUdpSocket castOne, castTwo;
    const auto audioDatagram = [](uint16_t seq) {
        wire::DatagramHeader h;
        h.type = wire::kDatagramTypeAudio;
        h.firstPiece = h.lastPiece = true;
        h.sequence = seq;
        QByteArray d(4, 0);
        wire::writeDatagramHeader(reinterpret_cast<uint8_t *>(d.data()), h);
        return d + QByteArray::fromHex("fff95080019ffc") + QByteArray(5, 0x21); // a 12-byte ADTS frame
    };
    castOne.writeDatagram(audioDatagram(700), QHostAddress::LocalHost, r.media()->port());
    castOne.writeDatagram(audioDatagram(701), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return r.media()->report().value("audio").toObject().value("frames").toInt() == 2; }));
    castTwo.writeDatagram(audioDatagram(0), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return r.media()->report().value("audio").toObject().value("frames").toInt() == 3; }));

    const QJsonObject v = r.media()->report().value("violations").toObject();
    EXPECT_EQ(v.value("bad_magic").toObject().value("count").toInt(), 1);
    EXPECT_EQ(v.value("truncated_record").toObject().value("count").toInt(), 1);
    EXPECT_EQ(v.value("frame_before_key_frame").toObject().value("count").toInt(), 1);
    EXPECT_EQ(v.value("short_datagram").toObject().value("count").toInt(), 1);
    EXPECT_EQ(r.media()->violationCount(), 4);

    // The receiver still serves a well-behaved client, here with manual admission.
    ControlClient good;
    ASSERT_TRUE(good.connectTo(r.control()->port()));
    good.send("id_connect_request", {{"name", "ok"}, {"safe_code", 1}, {"ip", "127.0.0.1"}});
    ASSERT_TRUE(waitUntil([&] { return events.contains("message_received"); }));
    r.enqueue({"refuse 1"});
    const ControlMessage m = good.next();
    EXPECT_EQ(m.id, "id_connect_refuse");
    EXPECT_EQ(m.property.value("msg").toInt(), 1);
}

TEST(ReceiverLoopback, ScenarioWaitsForEventsAndChecksTheSafeCode)
{
    const QString dir = velocast::test::freshTempDir();
    QFile scenario(QDir(dir).filePath("steer.txt"));
    ASSERT_TRUE(scenario.open(QIODevice::WriteOnly));
    scenario.write("# steer once the cast is asked for\n"
                   "await id_permission_request\n"
                   "resize 2\n"
                   "await id_never_sent 50\n"
                   "stop\n");
    scenario.close();

    ReceiverOptions o;
    o.bind = QHostAddress(QHostAddress::LocalHost);
    o.controlPort = 0;
    o.mediaPort = 0;
    o.safeCode = 9;
    o.control.permission = ControlPolicy::Answer::Manual;
    o.scenarioPath = scenario.fileName();
    o.echo = false;
    o.readStdin = false;
    Receiver r(o);
    QStringList events;
    QObject::connect(r.eventLog(), &EventLog::logged, [&](const QString &e, const QJsonObject &f) {
        events << (e == "message_sent" ? e + ":" + f.value("id").toString() : e);
    });
    QString error;
    ASSERT_TRUE(r.start(&error)) << error.toStdString();

    // A code typed for another receiver carries another safe code: refused with msg 2.
    ControlClient stranger;
    ASSERT_TRUE(stranger.connectTo(r.control()->port()));
    stranger.send("id_connect_request", {{"name", "pc"}, {"safe_code", "4"}, {"ip", "127.0.0.1"}});
    const ControlMessage refusal = stranger.next();
    EXPECT_EQ(refusal.id, "id_connect_refuse");
    EXPECT_EQ(refusal.property.value("msg").toInt(), 2);
    EXPECT_TRUE(events.contains("safe_code_mismatch"));

    ControlClient client;
    ASSERT_TRUE(client.connectTo(r.control()->port()));
    client.send("id_connect_request", {{"name", "pc"}, {"safe_code", 9}, {"ip", "127.0.0.1"}});
    EXPECT_EQ(client.next().id, "id_connect_allow");
    // Nothing of the scenario yet: it waits for the permission request.
    EXPECT_FALSE(events.contains("message_sent:id_codec_resize"));
    EXPECT_FALSE(events.contains("command_error"));
    client.send("id_permission_request", {{"type", 2}});
    const ControlMessage resize = client.next();
    EXPECT_EQ(resize.id, "id_codec_resize");
    EXPECT_EQ(resize.property.value("count").toInt(), 2);
    // The second await times out and the scenario goes on.
    EXPECT_EQ(client.next().id, "id_permission_disconnect");
    EXPECT_EQ(events.count("await_timeout"), 1);
    // Manual permission: the receiver itself sent no answer.
    EXPECT_TRUE(client.received.isEmpty());
}
