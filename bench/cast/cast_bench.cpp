// Whole-process CPU per cast frame: the casting session (real X11 capture, the software
// H.264 encoder, PulseAudio, the push engine) sending to the reference receiver, beside the
// ffmpeg command line doing the same job (x11grab + pulse in, libx264 ultrafast, zerolatency,
// Baseline, 4 Mb/s, GOP 30, AAC, MPEG-TS out to a null sink), on the same X screen with the
// same content. Turns alternate (ours, ffmpeg, ours, ...) so that both see the same load.
//
//   cast_bench [--seconds N] [--turns N] [--content moving|still|both]
//
// Needs DISPLAY and PULSE_SERVER (bench/cast/run.sh starts both). The content comes from a
// child process (this program with --animate), so its drawing is not charged to either side.
//   moving: the whole screen scrolls every frame;
//   still:  a text field whose cursor blinks twice a second and a clock that changes once a
//           second, on a quiet desktop.
//
// Latency, all on CLOCK_MONOTONIC (one machine, one clock):
//   capture -> written: a picture's capture tick to the moment the last byte of its record
//     went to the socket (the push engine's record hook);
//   end to end: the content process reports the time each change was on the screen (after
//     XSync); the receiver (--log-frames) reports when it read each record; the first record
//     whose picture was captured after the change is the first one holding it.
#include "capture/session/mac_screen_capture.h"
#include "control/net_control.h"
#include "push/bridge/camera_encoder.h"
#include "push/record_observer.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QThread>

#include <X11/Xlib.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <time.h>
#include <vector>

using namespace velocast;
using namespace std::chrono_literals;

namespace {

uint64_t monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1'000'000'000u + uint64_t(ts.tv_nsec);
}

// --- Content -------------------------------------------------------------------------------

int animate(const QString &mode)
{
    Display *d = XOpenDisplay(nullptr);
    if (!d) return 1;
    const int screen = DefaultScreen(d);
    const int w = DisplayWidth(d, screen), h = DisplayHeight(d, screen);
    XSetWindowAttributes a{};
    a.override_redirect = True;
    a.background_pixel = 0x303840;
    const Window win = XCreateWindow(d, DefaultRootWindow(d), 0, 0, unsigned(w), unsigned(h), 0, CopyFromParent, InputOutput, CopyFromParent,
                                     CWOverrideRedirect | CWBackPixel, &a);
    XMapRaised(d, win);
    GC gc = XCreateGC(d, win, 0, nullptr);
    // A picture twice as wide as the screen (stripes, gradients, small text) to scroll.
    const Pixmap art = XCreatePixmap(d, win, unsigned(2 * w), unsigned(h), unsigned(DefaultDepth(d, screen)));
    for (int x = 0; x < 2 * w; x += 16)
        for (int y = 0; y < h; y += 16) {
            XSetForeground(d, gc, (unsigned long)((x * 7 + y * 3) & 0xFF) << 16 | (unsigned long)((x + y * 5) & 0xFF) << 8 | ((x * 3 ^ y) & 0xFF));
            XFillRectangle(d, art, gc, x, y, 16, 16);
        }
    XSetForeground(d, gc, 0xFFFFFF);
    for (int y = 12; y < h; y += 24)
        for (int x = 0; x < 2 * w; x += 300) XDrawString(d, art, gc, x + 4, y, "The quick brown fox 0123456789", 30);
    XSync(d, False);
    const uint64_t period = 1'000'000'000u / 30;
    std::mt19937_64 rng(monotonicNs());
    std::uniform_int_distribution<uint64_t> jitter(0, period - 1);
    uint64_t next = monotonicNs();
    for (uint64_t n = 0;; ++n) {
        bool changed = true;
        if (mode == "moving") {
            XCopyArea(d, art, win, gc, int((n * 12) % uint64_t(w)), 0, unsigned(w), unsigned(h), 0, 0);
        } else {
            changed = n % 15 == 0;
            // At a random point of the frame period: the capture ticks at the same rate, and
            // a fixed phase between the two would fix the wait for the next tick.
            if (changed) {
                const uint64_t at = monotonicNs() + jitter(rng);
                const timespec until{time_t(at / 1'000'000'000u), long(at % 1'000'000'000u)};
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
            }
            // A text field with a blinking cursor and a clock, on a plain background; like a
            // real desktop, each is drawn only when it changes.
            if (n == 0) {
                XSetForeground(d, gc, 0xFFFFFF);
                XFillRectangle(d, win, gc, w / 2 - 200, h / 2 - 15, 400, 30);
                XSetForeground(d, gc, 0x000000);
                XDrawString(d, win, gc, w / 2 - 190, h / 2 + 5, "Connect code", 12);
            }
            if (n % 15 == 0) {
                XSetForeground(d, gc, (n / 15) % 2 == 0 ? 0x000000 : 0xFFFFFF);
                XFillRectangle(d, win, gc, w / 2 - 110, h / 2 - 10, 2, 20);
            }
            if (n % 30 == 0) {
                char clock[32];
                const int len = std::snprintf(clock, sizeof clock, "%02d:%02d:%02d", int(n / 30 / 3600 % 24), int(n / 30 / 60 % 60), int(n / 30 % 60));
                XSetForeground(d, gc, 0x303840);
                XFillRectangle(d, win, gc, w - 120, h - 30, 110, 24);
                XSetForeground(d, gc, 0xFFFFFF);
                XDrawString(d, win, gc, w - 110, h - 12, clock, len);
            }
        }
        if (changed) {
            // On the screen once the server answered: the time a change is there to capture.
            XSync(d, False);
            std::printf("change %llu\n", (unsigned long long)monotonicNs());
            std::fflush(stdout);
        }
        next += period;
        const timespec until{time_t(next / 1'000'000'000u), long(next % 1'000'000'000u)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }
}

// --- Measurements ------------------------------------------------------------------------

double processCpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double childCpuSeconds(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    const QByteArray line = f.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13) return 0;
    return double(fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK)); // utime, stime
}

struct Turn {
    double cpuPerFrameMs = 0;
    double fps = 0;
    double droppedPercent = 0;
    std::vector<double> latencyMs;    // capture -> last byte of the record written to the socket
    std::vector<double> endToEndMs;   // change on the screen -> first record holding it read by the receiver
};

// Follows every video record of a cast: the capture time of its picture (the encoder's
// observer runs right after the record was queued, on the same thread) and when it was
// written. Installed once for the whole program (the push engine's hook must outlive it).
class RecordTimes final : public capture::H264OutputObserver, public push::RecordObserver {
public:
    struct Record {
        uint64_t capturedNs = 0;
        uint64_t writtenNs = 0;
    };

    void queued(uint32_t record) override { pending_.store(int64_t(record)); }
    void didDeliver(capture::MediaTime timestamp, size_t, bool) override
    {
        const int64_t record = pending_.exchange(-1);
        const uint64_t ns = timestamp.toNanoseconds();
        if (record < 0 || ns == GST_CLOCK_TIME_NONE) return;
        std::lock_guard lock(mutex_);
        if (size_t(record) >= captured_.size()) captured_.resize(size_t(record) + 1, 0);
        captured_[size_t(record)] = ns;
    }
    void written(uint32_t record) override
    {
        const uint64_t now = monotonicNs();
        std::lock_guard lock(mutex_);
        written_.push_back({record, now});
    }
    // A new cast numbers its records from 0 again.
    void reset()
    {
        std::lock_guard lock(mutex_);
        captured_.clear();
        written_.clear();
        pending_.store(-1);
    }
    // The records in the order they were written (and read by the receiver), with times;
    // a record whose capture time is unknown has 0.
    std::vector<Record> inWriteOrder() const
    {
        std::lock_guard lock(mutex_);
        std::vector<Record> out;
        out.reserve(written_.size());
        for (const auto &[record, at] : written_) out.push_back({record < captured_.size() ? captured_[record] : 0, at});
        return out;
    }

private:
    mutable std::mutex mutex_;
    std::atomic<int64_t> pending_{-1};
    std::vector<uint64_t> captured_;                    // by record number
    std::vector<std::pair<uint32_t, uint64_t>> written_; // record number, time
};

RecordTimes &recordTimes()
{
    static RecordTimes *times = [] {
        auto *t = new RecordTimes; // never freed: the push engine may call it until exit
        push::SetRecordObserver(t);
        return t;
    }();
    return *times;
}

// Change times the content process printed ("change NS" lines) since the last call; a line
// not complete yet waits in rest.
std::vector<uint64_t> changeTimes(QProcess &animator, QByteArray &rest)
{
    rest += animator.readAllStandardOutput();
    std::vector<uint64_t> out;
    qsizetype end = 0;
    for (qsizetype nl; (nl = rest.indexOf('\n', end)) >= 0; end = nl + 1) {
        const QByteArray line = rest.mid(end, nl - end);
        if (line.startsWith("change ")) out.push_back(line.mid(7).toULongLong());
    }
    rest.remove(0, end);
    return out;
}

void pump(std::chrono::milliseconds d)
{
    const auto end = std::chrono::steady_clock::now() + d;
    while (std::chrono::steady_clock::now() < end) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        QThread::msleep(20);
    }
}

bool ourTurn(int seconds, Turn &out, QProcess &animator)
{
    test::ReferenceReceiver receiver({"--log-frames"});
    if (!receiver.start()) {
        std::fprintf(stderr, "receiver: %s\n", qPrintable(receiver.error()));
        return false;
    }
    NetControl control;
    control.setControlPort(receiver.controlPort());
    bool done = false, connected = false;
    control.connect("127.0.0.1", [&](bool ok) {
        connected = ok;
        done = true;
    });
    test::waitUntil([&] { return done; }, 10s);
    if (!connected) return false;
    RecordTimes &times = recordTimes();
    times.reset();
    MacScreenCapture capture;
    capture.setIpStr("127.0.0.1");
    capture.setVPort(receiver.mediaPort());
    capture.setAPort(receiver.mediaPort());
    capture.startPut();
    if (!test::waitUntil([&] { return capture.isPutting(); }, 20s) || !receiver.waitForEvent("media_connected", {}, 20s)) return false;
    receiver.command("audio on");
    capture.cameraEncoder()->h264Encoder()->setOutputObserver(&times);
    pump(2s); // the encoder settles, the first key frame is out
    QByteArray rest;
    changeTimes(animator, rest);
    const double cpu0 = processCpuSeconds();
    const uint64_t f0 = capture.sampleCounts().videoForwarded;
    const uint64_t t0 = monotonicNs();
    pump(std::chrono::seconds(seconds));
    const double cpu1 = processCpuSeconds();
    const uint64_t f1 = capture.sampleCounts().videoForwarded;
    const uint64_t t1 = monotonicNs();
    const double elapsed = double(t1 - t0) / 1e9;
    std::vector<uint64_t> changes = changeTimes(animator, rest);
    std::erase_if(changes, [&](uint64_t c) { return c < t0 || c >= t1; });
    pump(500ms); // the receiver reads and reports the last records of the window
    capture.cameraEncoder()->h264Encoder()->setOutputObserver(nullptr);
    capture.stopPut();
    test::waitUntil([&] { return !capture.isPutting(); }, 10s);
    receiver.command("quit");
    receiver.waitForEvent("media_report", {}, 20s);
    const double frames = double(f1 - f0);
    out.cpuPerFrameMs = frames > 0 ? (cpu1 - cpu0) * 1000 / frames : 0;
    out.fps = frames / elapsed;
    out.droppedPercent = std::max(0.0, 100.0 * (30 * elapsed - frames) / (30 * elapsed));
    const std::vector<RecordTimes::Record> records = times.inWriteOrder();
    for (const RecordTimes::Record &r : records)
        if (r.capturedNs >= t0 && r.capturedNs < t1 && r.writtenNs >= r.capturedNs) out.latencyMs.push_back(double(r.writtenNs - r.capturedNs) / 1e6);
    // The receiver's n-th record (from 1) is the n-th one written.
    std::vector<uint64_t> readNs(records.size(), 0);
    for (const QJsonObject &e : receiver.events("video_frame")) {
        const qint64 n = e.value("n").toInteger();
        if (n >= 1 && size_t(n) <= readNs.size()) readNs[size_t(n - 1)] = uint64_t(e.value("read_us").toInteger()) * 1000;
    }
    size_t first = 0;
    for (const uint64_t change : changes) {
        while (first < records.size() && records[first].capturedNs < change) ++first;
        if (first == records.size()) break;
        if (readNs[first] > change) out.endToEndMs.push_back(double(readNs[first] - change) / 1e6);
    }
    const QJsonObject report = receiver.events("media_report").value(0);
    if (report.value("violation_count").toInt() != 0)
        std::fprintf(stderr, "receiver saw violations: %s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
    return frames > 0;
}

bool ffmpegTurn(int seconds, Turn &out, const QSize &screen)
{
    const QString progress = QDir(test::freshTempDir()).filePath("progress");
    QProcess ffmpeg;
    ffmpeg.setStandardOutputFile(QProcess::nullDevice());
    ffmpeg.setStandardErrorFile(QProcess::nullDevice());
    ffmpeg.start("ffmpeg", {"-nostdin", "-hide_banner", "-loglevel", "error", "-progress", progress, "-f", "x11grab", "-framerate", "30",
                            "-video_size", QStringLiteral("%1x%2").arg(screen.width()).arg(screen.height()), "-draw_mouse", "1", "-i",
                            qEnvironmentVariable("DISPLAY"), "-f", "pulse", "-i", "default", "-c:v", "libx264", "-preset", "ultrafast",
                            "-tune", "zerolatency", "-profile:v", "baseline", "-pix_fmt", "yuv420p", "-b:v", "4M", "-maxrate", "4M",
                            "-bufsize", "4M", "-g", "30", "-c:a", "aac", "-f", "mpegts", "-"});
    if (!ffmpeg.waitForStarted()) return false;
    auto frame = [&] {
        QFile f(progress);
        if (!f.open(QIODevice::ReadOnly)) return int64_t(-1);
        const QList<QByteArray> lines = f.readAll().split('\n');
        for (auto it = lines.rbegin(); it != lines.rend(); ++it)
            if (it->startsWith("frame=")) return int64_t(it->mid(6).trimmed().toLongLong());
        return int64_t(-1);
    };
    pump(2s);
    const double cpu0 = childCpuSeconds(ffmpeg.processId());
    const int64_t f0 = frame();
    const uint64_t t0 = monotonicNs();
    pump(std::chrono::seconds(seconds));
    const double cpu1 = childCpuSeconds(ffmpeg.processId());
    pump(600ms); // -progress writes twice a second: the count at the end of the window
    const int64_t f1 = frame();
    const double elapsed = double(monotonicNs() - t0) / 1e9 + 0.6;
    ffmpeg.terminate();
    ffmpeg.waitForFinished(5000);
    if (f0 < 0 || f1 <= f0) return false;
    const double frames = double(f1 - f0);
    out.cpuPerFrameMs = (cpu1 - cpu0) * 1000 / (frames * (elapsed - 0.6) / elapsed);
    out.fps = frames / elapsed;
    out.droppedPercent = std::max(0.0, 100.0 * (30 * elapsed - frames) / (30 * elapsed));
    return true;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int animateAt = int(args.indexOf("--animate"));
    if (animateAt > 0) return animate(args.value(animateAt + 1));
    auto option = [&](const char *name, const QString &fallback) {
        const int at = int(args.indexOf(name));
        return at > 0 ? args.value(at + 1) : fallback;
    };
    const int seconds = option("--seconds", "10").toInt();
    const int turns = option("--turns", "2").toInt();
    const QString content = option("--content", "both");
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qEnvironmentVariableIsEmpty("PULSE_SERVER")) {
        std::fprintf(stderr, "needs DISPLAY and PULSE_SERVER: run bench/cast/run.sh\n");
        return 2;
    }
    Display *d = XOpenDisplay(nullptr);
    if (!d) return 2;
    const QSize screen(DisplayWidth(d, DefaultScreen(d)), DisplayHeight(d, DefaultScreen(d)));
    XCloseDisplay(d);

    std::printf("screen %dx%d, %d s per turn, %d turns each, turns interleaved\n", screen.width(), screen.height(), seconds, turns);
    for (const QString &mode : {QStringLiteral("moving"), QStringLiteral("still")}) {
        if (content != "both" && content != mode) continue;
        QProcess animator;
        animator.start(QCoreApplication::applicationFilePath(), {"--animate", mode});
        animator.waitForStarted();
        pump(1s);
        std::vector<Turn> ours, theirs;
        std::vector<double> latency, endToEnd;
        for (int t = 0; t < turns; ++t) {
            Turn a, b;
            if (ourTurn(seconds, a, animator)) {
                ours.push_back(a);
                latency.insert(latency.end(), a.latencyMs.begin(), a.latencyMs.end());
                endToEnd.insert(endToEnd.end(), a.endToEndMs.begin(), a.endToEndMs.end());
            }
            if (ffmpegTurn(seconds, b, screen)) theirs.push_back(b);
            std::printf("  %-6s turn %d: velocast %.2f ms/frame %.1f fps %.1f%% dropped | ffmpeg %.2f ms/frame %.1f fps %.1f%% dropped\n",
                        qPrintable(mode), t + 1, a.cpuPerFrameMs, a.fps, a.droppedPercent, b.cpuPerFrameMs, b.fps, b.droppedPercent);
            std::fflush(stdout);
        }
        animator.kill();
        animator.waitForFinished(3000);
        auto mean = [](const std::vector<Turn> &v, double Turn::*field) {
            double s = 0;
            for (const Turn &t : v) s += t.*field;
            return v.empty() ? 0 : s / double(v.size());
        };
        const double us = mean(ours, &Turn::cpuPerFrameMs), them = mean(theirs, &Turn::cpuPerFrameMs);
        std::printf("%-6s velocast %.2f ms/frame (%.1f fps, %.2f%% dropped), ffmpeg %.2f ms/frame (%.1f fps), ratio %.2f; "
                    "capture->written to the socket p50 %.2f ms p95 %.2f ms (%zu frames); "
                    "screen change->read by the receiver p50 %.2f ms p95 %.2f ms (%zu changes)\n",
                    qPrintable(mode), us, mean(ours, &Turn::fps), mean(ours, &Turn::droppedPercent), them, mean(theirs, &Turn::fps),
                    them > 0 ? us / them : 0, percentile(latency, 0.5), percentile(latency, 0.95), latency.size(),
                    percentile(endToEnd, 0.5), percentile(endToEnd, 0.95), endToEnd.size());
        std::fflush(stdout);
    }
    return 0;
}
