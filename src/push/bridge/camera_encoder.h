// CameraEncoder: joins capture to the push engine. It owns the H.264 and AAC encoders,
// feeds them the captured samples, and hands every encoded frame to the push API as a
// frame descriptor. It also opens and closes the push context when casting starts and stops.
//
// Threads: startLiving() and stopCamera() on the casting session's "cast queue";
// pushBuffer() and pushAudioBuffer() on the capture threads; the two delegate operations on
// the encoders' threads (the H.264 encoder's streaming thread, the "AAC Encoder Callback
// Queue"), from where they call PushSendFrame directly. The push API waits for sends in
// progress when it closes, so a frame racing with stopCamera() is refused, never sent
// through a freed transport.
#pragma once

#include "capture/aac_encoder.h"
#include "capture/h264_hw_encoder.h"
#include "push/push_api.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace velocast::push {

class CameraEncoder final : public capture::H264HWEncoderDelegate, public capture::AACEncoderDelegate {
public:
    // State codes given to the state block.
    static constexpr int32_t kStateLiving = 2;
    static constexpr int32_t kStateStopped = 3;

    using StateBlock = std::function<void(int32_t state)>;

    // A shared instance, made once on first use.
    static CameraEncoder &encoder();

    CameraEncoder();
    ~CameraEncoder() override;
    CameraEncoder(const CameraEncoder &) = delete;
    CameraEncoder &operator=(const CameraEncoder &) = delete;

    // Creates both encoders with this object as their delegate; foreEnable on, not running.
    void initEv();
    // Tears the encoders down for good and closes the push context. No samples may be fed
    // while it runs (the destructor calls it).
    void destroyEv();

    // Starts pushing to ip: video over TCP and audio over UDP, both to videoPort (the audio
    // port is only logged). Does nothing while already running. Blocks for the TCP connect.
    void startLiving(const QString &ip, long videoPort, long audioPort);
    void stopCamera();

    void changeBitrate(int64_t bitrate);
    void changeOutputSize(capture::OutputSize size);

    // Encodes the picture when running and foreground; returns running.
    bool pushBuffer(const capture::MediaSample &picture);
    void pushAudioBuffer(const capture::MediaSample &audio);

    void backgroundHandle();
    void foregroundHandle();

    void setStateBlock(StateBlock block);
    bool isRunning() const { return running_.load(); }
    bool foreEnable() const { return _foreEnable.load(); }
    PushHandle handle() const { return handle_.load(); }
    // Null after destroyEv.
    capture::H264HWEncoder *h264Encoder() const { return h264Encoder_.get(); }
    capture::AACEncoder *aacEncoder() const { return aacEncoder_.get(); }

    // Whole seconds and microseconds (both truncated) of a presentation time, as the audio
    // frame descriptor carries them. Times before 0, beyond 32 bits of seconds or invalid
    // give 0 and 0.
    static void splitAudioTimestamp(capture::MediaTime time, uint32_t *seconds, uint32_t *micros);

    // H264HWEncoderDelegate, AACEncoderDelegate.
    void gotH264EncodedData(const std::vector<uint8_t> &data, bool keyFrame, capture::MediaTime timestamp,
                            const capture::MediaError *error) override;
    void gotAACEncodedData(const std::vector<uint8_t> &frame, capture::MediaTime timestamp, const capture::MediaError *error) override;

private:
    StateBlock stateBlock() const;

    std::atomic<bool> running_{false};
    std::unique_ptr<capture::H264HWEncoder> h264Encoder_;
    std::unique_ptr<capture::AACEncoder> aacEncoder_;
    std::atomic<PushHandle> handle_{nullptr};
    std::atomic<bool> _foreEnable{false};
    mutable std::mutex stateBlockMutex_;
    StateBlock _stateBlock;
};

} // namespace velocast::push
