#pragma once

#include "capture/session/capture_source.h"
#include "common/serial_queue.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace velocast::capture {

// A capture pipeline that ends in an appsink named "sink", drained by a serial queue of
// its own. The streaming thread never waits for us: the appsink keeps at most two samples
// and drops the oldest when the queue falls behind. The queue's thread pulls each sample,
// wraps it as a MediaSample and hands it to the handler.
//
// Times: the pipeline runs on the monotonic system clock, and a sample's time is that
// clock's reading when it was captured (base time + running time), so pictures and sound
// from two such pipelines share one time line.
class GstCaptureSource final : public CaptureSource {
public:
    enum class Kind { Video, Audio };

    // Takes ownership of the pipeline (floating reference sunk). queueLabel names the
    // delivering thread ("delegate queue", "Audio Capture Queue").
    GstCaptureSource(GstElement *pipeline, Kind kind, std::string queueLabel, SampleHandler handler);
    ~GstCaptureSource() override;
    GstCaptureSource(const GstCaptureSource &) = delete;
    GstCaptureSource &operator=(const GstCaptureSource &) = delete;

    // Opens the devices (READY): false, with the reason, when the input is not there.
    bool open(QString *error);
    bool startRunning(QString *error) override;
    void stopRunning() override;
    uint64_t deliveredSamples() const override { return delivered_.load(); }

private:
    void drain();
    MediaSample wrap(GstSample *sample) const;
    static GstBusSyncReply onBusMessage(GstBus *bus, GstMessage *message, gpointer self);
    QString takeError();

    const Kind kind_;
    const std::string label_;
    const SampleHandler handler_;
    // Before the pipeline: its bus handler writes here until the pipeline is gone.
    std::mutex errorMutex_;
    QString error_;
    PipelinePtr pipeline_;
    GstElement *sink_ = nullptr; // owned by the pipeline
    std::atomic<bool> running_{false};
    std::atomic<uint64_t> delivered_{0};
    // Last: stopped (and its thread joined) before the pipeline it reads from goes.
    std::unique_ptr<SerialQueue> queue_;
};

} // namespace velocast::capture
