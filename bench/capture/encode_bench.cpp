// 1920x1080 NV12 at 30 fps through the software H.264 fallback, paced like a live capture,
// side by side with the ffmpeg CLI encoding the same pictures with libx264 (ultrafast,
// zerolatency, Baseline, 4 Mb/s, GOP 30).
//
// Reported per run: sustained fps (pictures delivered / wall time), pictures dropped,
// encode latency p50/p95 in ms (ours: picture handed in -> Annex-B packet at the delegate;
// ffmpeg: its own -benchmark_all send+receive time per picture), and process CPU time per
// picture in ms (ours: this process; ffmpeg: the child's rusage).
//
// VELOCAST_BENCH_FRAMES sets the number of pictures (default 300, ten seconds).
#include "capture/h264_hw_encoder.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace velocast::capture;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFps = 30;
constexpr int kDistinctPictures = 30;

int framesToRun()
{
    const char *v = std::getenv("VELOCAST_BENCH_FRAMES");
    const int n = v ? std::atoi(v) : 0;
    return n > 0 ? n : 300;
}

// Desktop-like content: a fixed background of dense "text" blocks, a panel that scrolls by
// 4 rows per picture, and a box that moves across it.
const std::vector<std::vector<uint8_t>> &pictures()
{
    static const std::vector<std::vector<uint8_t>> all = [] {
        std::mt19937 rng(42);
        const size_t lumaSize = size_t(kWidth) * kHeight;
        std::vector<uint8_t> background(lumaSize * 3 / 2);
        for (int by = 0; by < kHeight / 16; ++by)
            for (int bx = 0; bx < kWidth / 8; ++bx) {
                const bool glyph = rng() % 3 != 0;
                const uint32_t bits = rng();
                for (int y = 0; y < 16; ++y)
                    for (int x = 0; x < 8; ++x)
                        background[size_t(by * 16 + y) * kWidth + size_t(bx * 8 + x)] =
                            glyph && ((bits >> ((y * 8 + x) % 32)) & 1) ? 30 : 225;
            }
        for (size_t i = lumaSize; i < background.size(); ++i) background[i] = uint8_t(128 + (i / 97) % 20);
        std::vector<uint8_t> panelTexture(size_t(800) * 2000);
        for (auto &b : panelTexture) b = rng() % 4 == 0 ? 40 : 210;

        std::vector<std::vector<uint8_t>> out;
        for (int n = 0; n < kDistinctPictures; ++n) {
            std::vector<uint8_t> p = background;
            for (int y = 0; y < 500; ++y)
                std::memcpy(&p[size_t(200 + y) * kWidth + 300], &panelTexture[size_t((y + n * 4) % 2000) * 800], 800);
            const int bx = 100 + n * 50, by = 600;
            for (int y = 0; y < 200; ++y) std::memset(&p[size_t(by + y) * kWidth + size_t(bx)], 90 + n, 200);
            out.push_back(std::move(p));
        }
        return out;
    }();
    return all;
}

double cpuSeconds(const rusage &r)
{
    return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5))];
}

class LatencyDelegate final : public H264HWEncoderDelegate {
public:
    void pushed(uint64_t ptsNs)
    {
        std::lock_guard lock(mutex_);
        pushedAt_[ptsNs] = Clock::now();
    }
    void gotH264EncodedData(const std::vector<uint8_t> &data, bool, MediaTime timestamp, const MediaError *) override
    {
        const auto now = Clock::now();
        std::lock_guard lock(mutex_);
        const auto it = pushedAt_.find(timestamp.toNanoseconds());
        if (it != pushedAt_.end()) latenciesMs_.push_back(std::chrono::duration<double, std::milli>(now - it->second).count());
        bytes_ += data.size();
        ++delivered_;
        lastDelivery_ = now;
    }
    std::vector<double> latencies() const
    {
        std::lock_guard lock(mutex_);
        return latenciesMs_;
    }
    size_t delivered() const
    {
        std::lock_guard lock(mutex_);
        return delivered_;
    }
    size_t bytes() const
    {
        std::lock_guard lock(mutex_);
        return bytes_;
    }
    Clock::time_point lastDelivery() const
    {
        std::lock_guard lock(mutex_);
        return lastDelivery_;
    }

private:
    mutable std::mutex mutex_;
    std::map<uint64_t, Clock::time_point> pushedAt_;
    std::vector<double> latenciesMs_;
    size_t delivered_ = 0;
    size_t bytes_ = 0;
    Clock::time_point lastDelivery_;
};

void BM_SoftwareEncode1080p30(benchmark::State &state)
{
    const int frames = framesToRun();
    std::vector<MediaSample> samples;
    for (const auto &p : pictures()) samples.push_back(MediaSample::rawVideo(bufferFromBytes(p), "NV12", kWidth, kHeight, MediaTime()));
    for (auto _ : state) {
        LatencyDelegate delegate;
        H264HWEncoder encoder;
        encoder.setDelegate(&delegate);
        encoder.setOutputSize({kWidth, kHeight});
        encoder.changeBitrate(4000000);
        // Build the session outside the measured run, as a cast does before its first second.
        encoder.initSession(samples[0]);

        rusage before{};
        getrusage(RUSAGE_SELF, &before);
        const auto start = Clock::now();
        for (int i = 0; i < frames; ++i) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t(i) * 1000000 / kFps));
            const MediaTime pts = MediaTime::make(i, kFps);
            const MediaSample &src = samples[size_t(i % kDistinctPictures)];
            // The same planes with this picture's time stamp.
            MediaSample picture = MediaSample::rawVideo(GstBufferPtr(gst_buffer_ref(src.buffer())), "NV12", kWidth, kHeight, pts);
            delegate.pushed(pts.toNanoseconds());
            encoder.encode(picture);
        }
        encoder.invalidate();
        const auto end = delegate.lastDelivery();
        rusage after{};
        getrusage(RUSAGE_SELF, &after);

        const double wall = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(wall);
        const size_t delivered = delegate.delivered();
        const auto latencies = delegate.latencies();
        state.counters["fps"] = double(delivered) / wall;
        state.counters["dropped"] = double(frames) - double(delivered);
        state.counters["p50_ms"] = percentile(latencies, 0.50);
        state.counters["p95_ms"] = percentile(latencies, 0.95);
        state.counters["cpu_ms_per_frame"] = (cpuSeconds(after) - cpuSeconds(before)) * 1000 / double(std::max<size_t>(1, delivered));
        state.counters["kbps"] = double(delegate.bytes()) * 8 / 1000 / (double(frames) / kFps);
        state.SetLabel(encoder.chosenEncoderName());
    }
}

// ffmpeg reading the same pictures from a pipe at 30 fps.
void BM_FfmpegLibx264Baseline1080p30(benchmark::State &state)
{
    const int frames = framesToRun();
    if (access("/usr/bin/ffmpeg", X_OK) != 0) {
        state.SkipWithError("ffmpeg is not installed");
        return;
    }
    std::signal(SIGPIPE, SIG_IGN);
    for (auto _ : state) {
        int in[2], err[2];
        if (pipe(in) != 0 || pipe(err) != 0) {
            state.SkipWithError("pipe failed");
            return;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(in[0], 0);
            dup2(err[1], 2);
            close(in[1]);
            close(err[0]);
            const std::string size = std::to_string(kWidth) + "x" + std::to_string(kHeight);
            execl("/usr/bin/ffmpeg", "ffmpeg", "-hide_banner", "-nostats", "-benchmark_all", "-f", "rawvideo", "-pix_fmt", "nv12", "-s",
                  size.c_str(), "-r", "30", "-i", "pipe:0", "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-profile:v",
                  "baseline", "-b:v", "4M", "-maxrate", "4M", "-bufsize", "4M", "-g", "30", "-bf", "0", "-f", "null", "-", nullptr);
            _exit(127);
        }
        close(in[0]);
        close(err[1]);
        // Collect the per-task timing lines while the pictures go in.
        std::string log;
        std::thread reader([&] {
            char buf[4096];
            ssize_t n;
            while ((n = read(err[0], buf, sizeof buf)) > 0) log.append(buf, size_t(n));
        });
        const size_t pictureBytes = size_t(kWidth) * kHeight * 3 / 2;
        const auto start = Clock::now();
        for (int i = 0; i < frames; ++i) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t(i) * 1000000 / kFps));
            const uint8_t *p = pictures()[size_t(i % kDistinctPictures)].data();
            for (size_t off = 0; off < pictureBytes;) {
                const ssize_t n = write(in[1], p + off, pictureBytes - off);
                if (n <= 0) break;
                off += size_t(n);
            }
        }
        close(in[1]);
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        const auto end = Clock::now();
        reader.join();
        close(err[0]);

        // Each picture gives two "encode_video" lines (send, then receive); their real times
        // in microseconds add up to the encode latency.
        std::vector<double> latencies;
        std::vector<double> pair;
        for (size_t pos = 0; (pos = log.find("bench:", pos)) != std::string::npos; ++pos) {
            const size_t eol = log.find('\n', pos);
            const std::string line = log.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
            if (line.find("encode_video") == std::string::npos) continue;
            unsigned long long user = 0, sys = 0, real = 0;
            if (std::sscanf(line.c_str(), "bench: %llu user %llu sys %llu real", &user, &sys, &real) != 3) continue;
            pair.push_back(double(real) / 1000);
            if (pair.size() == 2) {
                latencies.push_back(pair[0] + pair[1]);
                pair.clear();
            }
        }
        const double wall = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(wall);
        state.counters["fps"] = double(frames) / wall;
        state.counters["p50_ms"] = percentile(latencies, 0.50);
        state.counters["p95_ms"] = percentile(latencies, 0.95);
        state.counters["cpu_ms_per_frame"] = cpuSeconds(usage) * 1000 / double(frames);
        state.SetLabel(WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "ffmpeg libx264" : "ffmpeg failed");
    }
}

} // namespace

BENCHMARK(BM_SoftwareEncode1080p30)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FfmpegLibx264Baseline1080p30)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
