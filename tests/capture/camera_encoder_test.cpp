// The live encoder bridge: its states and flags against the push API, the audio time
// split, and one cast end to end: pictures and PCM -> CameraEncoder -> push API -> the
// reference receiver over loopback -> files that ffprobe decodes.
#include "push/bridge/camera_encoder.h"
#include "media_test_support.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>

#include <gtest/gtest.h>


#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velocast::capture;
using namespace velocast::test;
using velocast::push::CameraEncoder;

namespace {

using StateRecorder = Collector<int32_t>;

// A loopback port with nothing listening on it.
uint16_t closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    // Bound but never listening, then closed: connects to it are refused at once.
    if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 && ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}

// The receiver's JSON-lines event log, read again on every question.
struct EventLog {
    QString path;
    QList<QJsonObject> all(const QString &event) const
    {
        QFile f(path);
        QList<QJsonObject> found;
        if (!f.open(QIODevice::ReadOnly)) return found;
        for (const QByteArray &line : f.readAll().split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object(); // a partial last line parses as empty
            if (o.value("event").toString() == event) found << o;
        }
        return found;
    }
    int count(const QString &event) const { return int(all(event).size()); }
    QJsonObject last(const QString &event) const
    {
        const auto found = all(event);
        return found.isEmpty() ? QJsonObject() : found.last();
    }
};

} // namespace

TEST(CameraEncoder, SplitsAudioTimesIntoSecondsAndMicroseconds)
{
    uint32_t s = 0, us = 0;
    CameraEncoder::splitAudioTimestamp(MediaTime::make(12345678, 1000000), &s, &us);
    EXPECT_EQ(s, 12u);
    EXPECT_TRUE(us == 345677u || us == 345678u) << us;
    CameraEncoder::splitAudioTimestamp(MediaTime::make(1024 * 441, 44100), &s, &us);
    EXPECT_EQ(s, 10u);
    EXPECT_EQ(us, 240000u);
    // Times that do not fit the unsigned fields give zeros rather than undefined conversions.
    for (const MediaTime t : {MediaTime::make(-1, 44100), MediaTime(), MediaTime::make(int64_t(1) << 40, 1)}) {
        CameraEncoder::splitAudioTimestamp(t, &s, &us);
        EXPECT_EQ(s, 0u);
        EXPECT_EQ(us, 0u);
    }
}

TEST(CameraEncoder, StatesAndFlagsFollowStartStopAndBackground)
{
    LogRecorder log;
    StateRecorder states;
    auto camera = std::make_unique<CameraEncoder>();
    camera->setStateBlock([&](int32_t s) { states.add(s); });
    EXPECT_TRUE(camera->foreEnable());
    EXPECT_FALSE(camera->isRunning());
    EXPECT_FALSE(camera->pushBuffer(makeNv12(64, 48, 0))) << "not running";

    // Stop without a start: closes nothing (null handle) and still reports "stopped".
    camera->stopCamera();
    EXPECT_EQ(states.items(), std::vector<int32_t>{CameraEncoder::kStateStopped});

    // A frame with no push handle is dropped with a log line.
    camera->gotH264EncodedData({0, 0, 0, 1, 0x65}, true, MediaTime(), nullptr);
    EXPECT_TRUE(log.lines().contains("handle null"));

    // Nothing listens: the connect fails inside the push API, but the bridge is living.
    const uint16_t port = closedPort();
    ASSERT_NE(port, 0);
    camera->startLiving("127.0.0.1", port, port + 1);
    EXPECT_TRUE(camera->isRunning());
    EXPECT_NE(camera->handle(), nullptr);
    EXPECT_EQ(states.items(), (std::vector<int32_t>{CameraEncoder::kStateStopped, CameraEncoder::kStateLiving}));
    const QString started = QString("start Living : 127.0.0.1 %1 %2 ").arg(port).arg(port + 1);
    EXPECT_EQ(log.lines().count(started), 1) << log.lines().join('\n').toStdString();
    // A second start while living changes nothing and logs nothing.
    camera->startLiving("127.0.0.1", port, port + 1);
    EXPECT_EQ(log.lines().count(started), 1);
    EXPECT_EQ(states.items().size(), 2u);

    // Background: not running, frames refused, handle cleared.
    camera->backgroundHandle();
    EXPECT_FALSE(camera->isRunning());
    EXPECT_FALSE(camera->foreEnable());
    EXPECT_EQ(camera->handle(), nullptr);
    EXPECT_TRUE(camera->h264Encoder()->unable());
    // Living again but still in the background: pushBuffer says "running" without encoding.
    camera->startLiving("127.0.0.1", port, port);
    EXPECT_TRUE(camera->pushBuffer(makeNv12(64, 48, 1)));
    EXPECT_FALSE(camera->h264Encoder()->hasSession());
    camera->foregroundHandle();
    EXPECT_TRUE(camera->foreEnable());
    camera->stopCamera();
    EXPECT_EQ(states.items().back(), CameraEncoder::kStateStopped);

    camera->destroyEv();
    EXPECT_EQ(camera->h264Encoder(), nullptr);
    EXPECT_FALSE(camera->pushBuffer(makeNv12(64, 48, 2)));
    camera.reset();
    EXPECT_EQ(log.lines().count("-[CameraEncoder destroyEv]"), 2) << "once by hand, once by the destructor";
    EXPECT_EQ(log.lines().count("-[CameraEncoder stopCamera]"), 2);
}

#ifdef VELOCAST_RECEIVER_BINARY
TEST(CameraEncoder, CastReachesTheReferenceReceiverAndDecodes)
{
    if (!haveFfprobe()) GTEST_SKIP() << "ffprobe (Debian package ffmpeg) is not installed";
    const QString dir = freshTempDir();
    const QString logPath = QDir(dir).filePath("events.jsonl");
    const QString outDir = QDir(dir).filePath("out");
    QProcess receiver;
    receiver.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    receiver.start(VELOCAST_RECEIVER_BINARY, {"--bind", "127.0.0.1", "--control-port", "0", "--media-port", "0", "--address", "127.0.0.1",
                                              "--event-log", logPath, "--output-dir", outDir, "--log-frames", "--quiet", "--headless"});
    ASSERT_TRUE(receiver.waitForStarted());
    const EventLog events{logPath};
    ASSERT_TRUE(waitUntil([&] { return events.count("listening") == 1; }, std::chrono::seconds(10)));
    const int mediaPort = events.last("listening").value("media_port").toInt();
    ASSERT_GT(mediaPort, 0);

    StateRecorder states;
    CameraEncoder camera;
    camera.setStateBlock([&](int32_t s) { states.add(s); });
    camera.changeOutputSize({320, 240});
    camera.changeBitrate(1000000);
    camera.startLiving("127.0.0.1", mediaPort, mediaPort);
    ASSERT_TRUE(waitUntil([&] { return events.count("media_connected") >= 1; }));

    // Two seconds: 60 pictures and 1470 PCM samples (1/30 s) with each. Each picture waits
    // for the previous one to arrive, so no queue on the way drops one.
    constexpr int kFrames = 60;
    constexpr int kPcmPerFrame = 44100 / 30;
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_TRUE(camera.pushBuffer(makeNv12(640, 480, i)));
        camera.pushAudioBuffer(makePcm(44100, kPcmPerFrame, int64_t(i) * kPcmPerFrame));
        ASSERT_TRUE(waitUntil([&] { return events.count("video_frame") == i + 1; })) << "picture " << i;
    }
    // 88200 samples make 86 access units; the encoder may hold back the last one or two.
    ASSERT_TRUE(waitUntil([&] { return events.count("audio_frame") >= 84; })) << events.count("audio_frame") << " audio frames";
    camera.stopCamera();
    EXPECT_EQ(states.items(), (std::vector<int32_t>{CameraEncoder::kStateLiving, CameraEncoder::kStateStopped}));
    ASSERT_TRUE(waitUntil([&] { return events.count("media_closed") >= 1; }));

    receiver.write("quit\n");
    ASSERT_TRUE(receiver.waitForFinished(10000));
    const QJsonObject report = events.last("media_report");
    EXPECT_EQ(report.value("violation_count").toInt(), 0) << QJsonDocument(report).toJson().constData();
    const QJsonObject video = report.value("video").toArray().first().toObject();
    EXPECT_EQ(video.value("frames").toInt(), kFrames);
    EXPECT_EQ(video.value("key_frames").toInt(), 2) << "a key frame every 30 frames";
    EXPECT_EQ(video.value("width").toInt(), 320);
    EXPECT_EQ(video.value("height").toInt(), 240);
    // One more access unit may still have been on its way when the count above was reached.
    const int audioFrames = report.value("audio").toObject().value("frames").toInt();
    EXPECT_GE(audioFrames, 84);
    EXPECT_LE(audioFrames, 86);
    EXPECT_EQ(audioFrames, events.count("audio_frame"));

    const QJsonObject vs = ffprobeStream(QDir(outDir).filePath("video.h264"), "codec_name,profile,width,height,nb_read_frames");
    EXPECT_EQ(vs.value("codec_name").toString(), "h264") << QJsonDocument(vs).toJson().constData();
    EXPECT_EQ(vs.value("profile").toString(), "Constrained Baseline");
    EXPECT_EQ(vs.value("width").toInt(), 320);
    EXPECT_EQ(vs.value("nb_read_frames").toString(), QString::number(kFrames));
    const QJsonObject as = ffprobeStream(QDir(outDir).filePath("audio.aac"), "codec_name,profile,sample_rate,channels,nb_read_frames");
    EXPECT_EQ(as.value("codec_name").toString(), "aac") << QJsonDocument(as).toJson().constData();
    EXPECT_EQ(as.value("profile").toString(), "LC");
    EXPECT_EQ(as.value("sample_rate").toString(), "44100");
    EXPECT_EQ(as.value("channels").toInt(), 2);
    EXPECT_EQ(as.value("nb_read_frames").toString(), QString::number(audioFrames));
}
#endif
