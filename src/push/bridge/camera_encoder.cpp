#include "push/bridge/camera_encoder.h"

#include "common/log.h"

#include <cmath>

namespace velocast::push {

namespace {

// The push engine's connection events are not acted on here.
int32_t ignorePushEvent(int32_t, int32_t, int32_t, void *) { return 0; }

char kCallbackUserData[] = "123";

} // namespace

CameraEncoder &CameraEncoder::encoder()
{
    static CameraEncoder instance;
    return instance;
}

CameraEncoder::CameraEncoder() { initEv(); }

CameraEncoder::~CameraEncoder() { destroyEv(); }

void CameraEncoder::initEv()
{
    _foreEnable.store(true);
    h264Encoder_ = std::make_unique<capture::H264HWEncoder>();
    h264Encoder_->setDelegate(this);
    aacEncoder_ = std::make_unique<capture::AACEncoder>();
    aacEncoder_->setDelegate(this);
    running_.store(false);
}

void CameraEncoder::destroyEv()
{
    logLine(lcCapture(), QStringLiteral("-[CameraEncoder destroyEv]"));
    if (h264Encoder_) {
        h264Encoder_->setUnable(true);
        h264Encoder_->invalidate();
        h264Encoder_.reset();
    }
    // Joins the callback queue: no AAC frame reaches this object afterwards.
    aacEncoder_.reset();
    running_.store(false);
    if (PushHandle h = handle_.load()) PushClose(h);
    // This object observes no notifications, so there is nothing to remove from the centre.
}

void CameraEncoder::startLiving(const QString &ip, long videoPort, long audioPort)
{
    if (running_.load()) return;
    if (h264Encoder_) h264Encoder_->setUnable(false);
    logLine(lcCapture(), QStringLiteral("start Living : %1 %2 %3 ").arg(ip).arg(videoPort).arg(audioPort));
    running_.store(true);
    if (StateBlock block = stateBlock()) block(kStateLiving);

    const QByteArray address = ip.toUtf8();
    PushHandle h = PushCreate();
    handle_.store(h);
    PushSetCallback(h, &ignorePushEvent, 1, kCallbackUserData);
    // The result is not acted on: a failed connect leaves running set, and every later
    // push is refused inside the push API. Audio goes by UDP to the video port number.
    PushInit(h, address.constData(), int32_t(uint16_t(videoPort)));
}

void CameraEncoder::stopCamera()
{
    logLine(lcCapture(), QStringLiteral("-[CameraEncoder stopCamera]"));
    running_.store(false);
    // The handle keeps its value; a null handle is not the push context's and closes nothing.
    PushClose(handle_.load());
    if (StateBlock block = stateBlock()) block(kStateStopped);
}

void CameraEncoder::changeBitrate(int64_t bitrate)
{
    if (h264Encoder_) h264Encoder_->changeBitrate(bitrate);
}

void CameraEncoder::changeOutputSize(capture::OutputSize size)
{
    if (!h264Encoder_) return;
    // Disable, resize, enable: the next picture builds a session at the new size.
    h264Encoder_->setUnable(true);
    h264Encoder_->setOutputSize(size);
    h264Encoder_->setUnable(false);
}

bool CameraEncoder::pushBuffer(const capture::MediaSample &picture)
{
    const bool running = running_.load();
    if (running && _foreEnable.load() && h264Encoder_) h264Encoder_->encode(picture);
    return running;
}

void CameraEncoder::pushAudioBuffer(const capture::MediaSample &audio)
{
    if (running_.load() && _foreEnable.load() && aacEncoder_) aacEncoder_->encode(audio);
}

void CameraEncoder::backgroundHandle()
{
    _foreEnable.store(false);
    running_.store(false);
    if (h264Encoder_) h264Encoder_->setUnable(true);
    PushClose(handle_.load());
    handle_.store(nullptr);
}

void CameraEncoder::foregroundHandle() { _foreEnable.store(true); }

void CameraEncoder::setStateBlock(StateBlock block)
{
    std::lock_guard lock(stateBlockMutex_);
    _stateBlock = std::move(block);
}

CameraEncoder::StateBlock CameraEncoder::stateBlock() const
{
    std::lock_guard lock(stateBlockMutex_);
    return _stateBlock;
}

void CameraEncoder::splitAudioTimestamp(capture::MediaTime time, uint32_t *seconds, uint32_t *micros)
{
    *seconds = 0;
    *micros = 0;
    const double s = time.seconds();
    // Converting a negative, huge or NaN double to an unsigned integer is undefined.
    if (!std::isfinite(s) || s < 0 || s >= 4294967296.0) return;
    const double whole = std::trunc(s);
    *seconds = uint32_t(whole);
    *micros = uint32_t((s - whole) * 1000 * 1000);
}

void CameraEncoder::gotH264EncodedData(const std::vector<uint8_t> &data, bool keyFrame, capture::MediaTime, const capture::MediaError *)
{
    PushHandle h = handle_.load();
    if (!h) {
        logLine(lcCapture(), QStringLiteral("handle null"));
        return;
    }
    if (data.size() > UINT32_MAX) return;
    PushFrame frame;
    frame.type = kFrameTypeVideo;
    frame.length = uint32_t(data.size());
    frame.flag = keyFrame ? kFrameFlagKey : kFrameFlagOther;
    frame.data = data.data();
    if (running_.load()) PushSendFrame(h, &frame);
}

void CameraEncoder::gotAACEncodedData(const std::vector<uint8_t> &data, capture::MediaTime timestamp, const capture::MediaError *)
{
    PushHandle h = handle_.load();
    if (!h) {
        logLine(lcCapture(), QStringLiteral("handle null"));
        return;
    }
    PushFrame frame;
    frame.type = kFrameTypeAudio;
    frame.length = uint32_t(data.size()); // an ADTS frame is at most 8191 bytes
    frame.flag = kFrameFlagAac;
    frame.data = data.data();
    splitAudioTimestamp(timestamp, &frame.timestampSeconds, &frame.timestampMicros);
    if (running_.load()) PushSendFrame(h, &frame);
}

} // namespace velocast::push
