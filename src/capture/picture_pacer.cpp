#include "capture/picture_pacer.h"

#include "capture/nv12_converter.h"
#include "common/log.h"

#include <gst/video/video.h>

#include <pthread.h>
#include <time.h>

namespace velocast::capture {

namespace {

// Larger than any screen we cast; keeps the buffer sizes within int arithmetic.
constexpr int kMaxSide = 16384;

bool nv12Layout(int width, int height, GstVideoInfo *info)
{
    if (width < 2 || height < 2 || width > kMaxSide || height > kMaxSide) return false;
    return gst_video_info_set_format(info, GST_VIDEO_FORMAT_NV12, guint(width), guint(height));
}

} // namespace

Nv12PicturePool::~Nv12PicturePool() { clear(); }

void Nv12PicturePool::clear()
{
    for (GstBuffer *b : buffers_) gst_buffer_unref(b);
    buffers_.clear();
}

GstBufferPtr Nv12PicturePool::acquire(int width, int height)
{
    if (width != width_ || height != height_) {
        // Buffers still held elsewhere live on with their holders.
        clear();
        width_ = width;
        height_ = height;
    }
    for (GstBuffer *b : buffers_) {
        // Only our reference left, and no shallow copy (an encoder's queued picture) shares
        // the memory: nobody reads it any more.
        if (GST_MINI_OBJECT_REFCOUNT_VALUE(b) == 1 && gst_buffer_is_all_memory_writable(b)) return GstBufferPtr(gst_buffer_ref(b));
    }
    if (buffers_.size() >= capacity_) return nullptr;
    GstVideoInfo info;
    if (!nv12Layout(width, height, &info)) return nullptr;
    GstBuffer *fresh = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    if (!fresh) return nullptr;
    buffers_.push_back(fresh);
    return GstBufferPtr(gst_buffer_ref(fresh));
}

PicturePacer::PicturePacer(std::string threadName, int framesPerSecond, Handler handler, Refresh refresh)
    : threadName_(std::move(threadName)), periodNs_(1'000'000'000 / std::max(1, framesPerSecond)), handler_(std::move(handler)),
      refresh_(std::move(refresh))
{
}

PicturePacer::~PicturePacer()
{
    stop();
    if (latest_) gst_buffer_unref(latest_);
}

void PicturePacer::start()
{
    if (thread_.joinable()) return;
    thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
}

void PicturePacer::stop()
{
    if (!thread_.joinable()) return;
    thread_.request_stop();
    thread_.join();
}

uint64_t PicturePacer::monotonicNow()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1'000'000'000u + uint64_t(ts.tv_nsec);
}

bool PicturePacer::submitBgrx(const uint8_t *bgrx, int stride, int width, int height)
{
    GstVideoInfo info;
    GstBufferPtr buffer;
    {
        std::lock_guard lock(mutex_);
        if (nv12Layout(width, height, &info)) buffer = pool_.acquire(width, height);
        if (!buffer) {
            ++stats_.refused;
            return false;
        }
    }
    // Converted outside the lock: the ticks go on handing out the previous picture.
    // The pool keeps its own reference, so the buffer is not writable as a whole; its one
    // memory is (no other buffer shares it), and that is what is written.
    GstMemory *memory = gst_buffer_peek_memory(buffer.get(), 0);
    GstMapInfo map;
    if (!memory || !gst_memory_map(memory, &map, GST_MAP_WRITE)) {
        std::lock_guard lock(mutex_);
        ++stats_.refused;
        return false;
    }
    const Nv12Planes planes{map.data + GST_VIDEO_INFO_PLANE_OFFSET(&info, 0), GST_VIDEO_INFO_PLANE_STRIDE(&info, 0),
                            map.data + GST_VIDEO_INFO_PLANE_OFFSET(&info, 1), GST_VIDEO_INFO_PLANE_STRIDE(&info, 1)};
    const bool ok = convertBgrxToNv12(bgrx, stride, width, height, planes);
    gst_memory_unmap(memory, &map);
    std::lock_guard lock(mutex_);
    if (!ok) {
        ++stats_.refused;
        return false;
    }
    if (latest_) gst_buffer_unref(latest_);
    latest_ = buffer.release();
    latestWidth_ = width;
    latestHeight_ = height;
    fresh_ = true;
    ++stats_.converted;
    return true;
}

PicturePacer::Stats PicturePacer::stats() const
{
    std::lock_guard lock(mutex_);
    return stats_;
}

void PicturePacer::run(std::stop_token stop)
{
    pthread_setname_np(pthread_self(), threadName_.substr(0, 15).c_str());
    uint64_t next = monotonicNow();
    while (!stop.stop_requested()) {
        const uint64_t now = monotonicNow();
        if (now < next) {
            const timespec until{time_t(next / 1'000'000'000u), long(next % 1'000'000'000u)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
            continue; // the stop flag is looked at again after every sleep
        }
        // More than one period behind: those ticks are gone; the stream goes on from now.
        if (now - next >= uint64_t(periodNs_)) {
            const uint64_t missed = (now - next) / uint64_t(periodNs_);
            std::lock_guard lock(mutex_);
            stats_.late += missed;
            next += missed * uint64_t(periodNs_);
        }
        next += uint64_t(periodNs_);
        const uint64_t tick = monotonicNow();
        if (refresh_) refresh_();
        MediaSample picture;
        {
            std::lock_guard lock(mutex_);
            if (!latest_) continue; // nothing captured yet
            picture = MediaSample::rawVideo(GstBufferPtr(gst_buffer_ref(latest_)), "NV12", latestWidth_, latestHeight_,
                                            MediaTime::fromNanoseconds(tick));
            ++stats_.ticks;
            if (!std::exchange(fresh_, false)) {
                ++stats_.repeated;
                picture.setRepeat(true);
            }
        }
        handler_(picture);
    }
}

} // namespace velocast::capture
