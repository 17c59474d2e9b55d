// Helpers shared by the media tests: synthetic pictures, an Annex-B splitter, a collecting
// encoder delegate, and ffprobe as an independent decoder.
#pragma once

#include "capture/h264_hw_encoder.h"
#include "capture/media_sample.h"

#include "support/log_recorder.h"

#include <QJsonArray>
#include <QJsonObject>

#include <condition_variable>
#include <span>

namespace velocast::test {

// An NV12 gradient moving with index; noisy pictures are expensive to code (rate control limits).
capture::MediaSample makeNv12(int width, int height, int index, bool noisy = false);

struct NalUnit {
    int type = 0;
    size_t offset = 0; // of the NAL header byte
    size_t size = 0;   // without the start code
};
// Splits at four-byte start codes; the bytes before the first one, if any, are ignored.
std::vector<NalUnit> splitAnnexB(std::span<const uint8_t> bytes);

// Items handed over by another thread, waited for with a time-out.
template <typename T>
class Collector {
public:
    void add(T item)
    {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
        arrived_.notify_all();
    }
    size_t count() const
    {
        std::lock_guard lock(mutex_);
        return items_.size();
    }
    std::vector<T> items() const
    {
        std::lock_guard lock(mutex_);
        return items_;
    }
    bool waitFor(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const
    {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return items_.size() >= n; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<T> items_;
};

struct EncodedPacket {
    std::vector<uint8_t> bytes;
    bool key = false;
    capture::MediaTime timestamp;
};

// Collects what an H264HWEncoder delivers (on its streaming thread).
class PacketCollector final : public capture::H264HWEncoderDelegate, public Collector<EncodedPacket> {
public:
    void gotH264EncodedData(const std::vector<uint8_t> &data, bool keyFrame, capture::MediaTime timestamp, const capture::MediaError *) override
    {
        add({data, keyFrame, timestamp});
    }
};

// Feeds pictures one at a time, each once the last came out (the queue drops none); false on a time-out.
bool encodePaced(capture::H264HWEncoder &encoder, PacketCollector &out, int width, int height, int count, int firstIndex = 0,
                 bool noisy = false);

// Writes the packets one after the other.
bool writePackets(const QString &path, const std::vector<EncodedPacket> &packets);

bool haveFfprobe();
// The first stream's entries, or {"error": text}.
QJsonObject ffprobeStream(const QString &file, const QString &entries);

} // namespace velocast::test
