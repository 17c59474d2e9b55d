// The cast's sound: on its own sound server (PulseAudio, or PipeWire with WirePlumber and
// pipewire-pulse) tones play into the devices; the receiver's AAC, decoded, says which arrived.
#include "capture/session/mac_screen_capture.h"
#include "control/net_control.h"
#include "sound_server.h"
#include "support/child_process.h"
#include "support/log_recorder.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

using namespace velocast;
using velocast::test::LogRecorder;
using velocast::test::ReferenceReceiver;
using velocast::test::SoundServer;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

constexpr int kRate = 44100;
// What the computer plays (a video's sound), and what the microphone hears.
constexpr double kPlayed = 880, kMicrophone = 440;

// Plays a steady tone into one device of the test's sound server, or into the default output
// (following it when it changes, as a desktop's players do).
std::unique_ptr<QProcess> playTone(double hz, const QString &device = {})
{
    auto p = std::make_unique<QProcess>();
    QStringList args{"-q", "audiotestsrc", "is-live=true", "volume=0.5", QString("freq=%1").arg(hz), "!", "audioconvert", "!", "pulsesink"};
    if (!device.isEmpty()) args << "device=" + device;
    p->start("gst-launch-1.0", args);
    p->waitForStarted();
    return p;
}

double goertzel(const int16_t *x, int n, double hz)
{
    const double k = 2 * std::cos(2 * std::numbers::pi * hz / kRate);
    double s1 = 0, s2 = 0;
    for (int i = 0; i < n; ++i) {
        const double s = x[i] + k * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    return s1 * s1 + s2 * s2 - k * s1 * s2;
}

// The dominant tone of each quarter second of the decoded AAC, as a letter: P for the played
// tone, M for the microphone's, '.' for silence.
QString tonesIn(const QString &aac)
{
    const QStringList args{"-v", "error", "-i", aac, "-ac", "1", "-ar", QString::number(kRate), "-f", "s16le", "-"};
    const QByteArray pcm = velocast::test::ChildProcess::run("ffmpeg", args).value_or(QByteArray());
    const auto *x = reinterpret_cast<const int16_t *>(pcm.constData());
    const int total = int(pcm.size() / 2), window = kRate / 4;
    QString tones;
    for (int at = 0; at + window <= total; at += window) {
        double best = 0, bestPower = 1e3 * double(window) * window; // well above the AAC noise floor
        for (double hz : {kPlayed, kMicrophone}) {
            const double p = goertzel(x + at, window, hz);
            if (p > bestPower) best = hz, bestPower = p;
        }
        tones += best == kPlayed ? 'P' : best == kMicrophone ? 'M' : '.';
    }
    return tones;
}

class CastAudio : public testing::TestWithParam<const char *> { };

// One cast: it carries what the default output plays, never the microphone, and follows a
// switch of the default output; it goes on without sound while the server is away and has
// sound again once it is back.
TEST_P(CastAudio, CarriesTheDefaultOutputFollowsItsSwitchAndOutlivesTheServer)
{
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (DISPLAY is not set; scripts/test.sh starts Xvfb)";
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";
    LogRecorder log;
    SoundServer server(GetParam());
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    std::vector<std::unique_ptr<QProcess>> players;
    players.push_back(playTone(kPlayed));
    players.push_back(playTone(kMicrophone, "vc_room")); // the default input is the room's monitor
    const QString out = velocast::test::freshTempDir();
    ReferenceReceiver receiver({"--output-dir", out, "--log-frames"});
    ASSERT_TRUE(receiver.start()) << receiver.error().toStdString();
    NetControl control;
    control.setControlPort(receiver.controlPort());
    bool connected = false;
    control.connect("127.0.0.1", [&](bool ok) { connected = ok; });
    ASSERT_TRUE(waitUntil([&] { return connected; }, 10s));
    MacScreenCapture capture;
    capture.setIpStr("127.0.0.1");
    capture.setVPort(receiver.mediaPort());
    capture.setAPort(receiver.mediaPort());
    capture.startPut();
    ASSERT_TRUE(waitUntil([&] { return capture.isPutting(); }, 20s));
    ASSERT_TRUE(capture.hasAudioInput());
    receiver.command("audio on");
    const auto moreAudio = [&](int frames) {
        const int target = receiver.count("audio_frame") + frames;
        return waitUntil([&] { return receiver.count("audio_frame") >= target; }, 30s);
    };
    ASSERT_TRUE(moreAudio(130)); // about three seconds
    // Headphones instead of speakers: the player's stream goes along, the speakers fall silent.
    server.pactl({"set-default-sink", "vc_headset"});
    ASSERT_TRUE(waitUntil([&] { return log.lines().contains("cast sound follows the default output: vc_headset.monitor"); }, 10s))
        << log.lines().join('\n').toStdString();
    const QString streams = server.pactl({"list", "short", "sink-inputs"});
    ASSERT_EQ(streams.count(QRegularExpression(QString("^\\d+\\t%1\\t").arg(server.index("sinks", "vc_headset")),
                                               QRegularExpression::MultilineOption)), 1)
        << "the player follows the default output: " << streams.toStdString();
    ASSERT_TRUE(moreAudio(130));

    const int beforeAway = receiver.count("audio_frame");
    players.clear();
    server.stop();
    ASSERT_TRUE(waitUntil([&] { return log.lines().contains("the sound server went away: the cast goes on without sound"); }, 10s));
    const int video = receiver.count("video_frame");
    ASSERT_TRUE(waitUntil([&] { return receiver.count("video_frame") >= video + 30; }, 20s)) << "the picture goes on";
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    ASSERT_TRUE(waitUntil([&] { return log.lines().contains("the sound server is back: the cast has sound again"); }, 20s))
        << log.lines().join('\n').toStdString();
    players.push_back(playTone(kPlayed));
    ASSERT_TRUE(moreAudio(130));
    capture.stopPut();
    waitUntil([&] { return !capture.isPutting(); });
    receiver.command("quit");
    receiver.waitForEvent("media_report", {}, 20s);

    const QString tones = tonesIn(QDir(out).filePath("audio.aac"));
    SCOPED_TRACE(tones.toStdString());
    const int windows = beforeAway * 1024 / (kRate / 4); // AAC frames of 1024 samples
    ASSERT_GE(tones.size(), windows + 2);
    EXPECT_FALSE(tones.contains('M')) << "the microphone is never cast";
    // Sound throughout the switch, at most half a second lost (the edge windows may be cut short).
    EXPECT_LE(tones.mid(1, windows - 2).count('.'), 2);
    EXPECT_TRUE(tones.endsWith("PP")) << "what the computer plays arrives again";
}

INSTANTIATE_TEST_SUITE_P(Servers, CastAudio, testing::Values("pulse", "pipewire"),
                         [](const testing::TestParamInfo<const char *> &info) { return std::string(info.param); });

} // namespace
