// A steady picture stream from a screen that changes when it changes.
//
// A capture source hands BGRx pictures to submitBgrx() whenever it has a new one (from any
// thread); each is converted at once into a pooled NV12 picture (BT.709, video range). The
// pacer's own thread ticks at the frame rate and hands the newest picture to the handler at
// every tick, again when nothing new came: an unchanged screen costs neither a capture nor
// a conversion, and the stream keeps its rate (and the encoder its key-frame rhythm). A
// picture handed out again is marked as a repeat (MediaSample::isRepeat), so that the
// encoder can send a coded copy instead of encoding it.
//
// A source that pulls instead (X11) does its capture in the refresh callback, which runs on
// the pacer's thread at the start of every tick, before the picture goes out.
//
// Times: each picture handed out carries the CLOCK_MONOTONIC reading of its tick, the time
// line the GStreamer audio capture uses too.
#pragma once

#include "capture/media_sample.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velocast::capture {

// Writable NV12 buffers in GStreamer's default layout for one size, reused once nobody
// holds them any more (the encoder lets go of a picture when it has encoded it).
class Nv12PicturePool {
public:
    explicit Nv12PicturePool(size_t capacity = 6) : capacity_(capacity) {}
    ~Nv12PicturePool();
    Nv12PicturePool(const Nv12PicturePool &) = delete;
    Nv12PicturePool &operator=(const Nv12PicturePool &) = delete;

    // A buffer nobody else holds, for width x height; null when all are in use (or the
    // size is not a sensible picture). The caller gets its own reference.
    GstBufferPtr acquire(int width, int height);
    size_t allocated() const { return buffers_.size(); }

private:
    void clear();

    const size_t capacity_;
    int width_ = 0;
    int height_ = 0;
    std::vector<GstBuffer *> buffers_; // one reference each
};

class PicturePacer {
public:
    using Handler = std::function<void(const MediaSample &picture)>;
    using Refresh = std::function<void()>;

    struct Stats {
        uint64_t ticks = 0;      // pictures handed out
        uint64_t converted = 0;  // new pictures taken in
        uint64_t repeated = 0;   // ticks that handed out the previous picture again
        uint64_t late = 0;       // ticks skipped because the thread came too late
        uint64_t refused = 0;    // pictures refused (no free buffer, bad size)
    };

    PicturePacer(std::string threadName, int framesPerSecond, Handler handler, Refresh refresh = {});
    ~PicturePacer(); // stops
    PicturePacer(const PicturePacer &) = delete;
    PicturePacer &operator=(const PicturePacer &) = delete;

    void start();
    // When it returns, neither the handler nor the refresh callback runs or will run again.
    void stop();
    bool running() const { return thread_.joinable(); }

    // Converts one picture; it is what the following ticks hand out. False when it was
    // refused (sizes or strides that do not hold the picture, no free buffer).
    bool submitBgrx(const uint8_t *bgrx, int stride, int width, int height);

    Stats stats() const;

    // CLOCK_MONOTONIC in nanoseconds.
    static uint64_t monotonicNow();

private:
    void run(std::stop_token stop);

    const std::string threadName_;
    const int64_t periodNs_;
    const Handler handler_;
    const Refresh refresh_;

    mutable std::mutex mutex_; // the pool, the latest picture, the counters
    Nv12PicturePool pool_;
    GstBuffer *latest_ = nullptr; // one reference
    int latestWidth_ = 0;
    int latestHeight_ = 0;
    bool fresh_ = false;
    Stats stats_;
    std::jthread thread_;
};

} // namespace velocast::capture
