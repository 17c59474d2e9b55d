#include "capture/h264_hw_encoder.h"

#include "capture/h264_packet.h"
#include "common/log.h"

#include <cmath>

namespace velocast::capture {

namespace {

// Largest picture side any of the encoders takes.
constexpr int kMaxSide = 8192;

int evenPixels(double v)
{
    if (!std::isfinite(v) || v < 2 || v > kMaxSide) return 0;
    return int(v) & ~1;
}

} // namespace

H264HWEncoder::H264HWEncoder()
{
    for (const char *name : h264EncoderChain()) chain_.emplace_back(name);
}

H264HWEncoder::~H264HWEncoder() { invalidate(); }

void H264HWEncoder::setOutputSize(OutputSize size)
{
    std::lock_guard lock(mutex_);
    outputSize_ = size;
}

OutputSize H264HWEncoder::outputSize() const
{
    std::lock_guard lock(mutex_);
    return outputSize_;
}

void H264HWEncoder::changeBitrate(int64_t bitrate)
{
    bitrate_.store(bitrate);
    std::lock_guard lock(mutex_);
    if (!session_ || session_->setBitrate(bitrate)) return;
    logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 cannot change its rate while running; a new session takes %2 b/s")
                             .arg(QString::fromStdString(session_->encoderName())).arg(bitrate));
    invalidateLocked();
}

void H264HWEncoder::setUnable(bool unable)
{
    unable_.store(unable);
    if (unable) invalidate();
}

void H264HWEncoder::encode(const MediaSample &picture)
{
    if (unable_.load()) return;
    std::lock_guard lock(mutex_);
    if (unable_.load()) return; // disabled while we waited: the flush runs without the lock
    if (!session_) {
        logLine(lcCapture(), QStringLiteral("VTencode session null"));
        initSessionLocked(picture);
    }
    if (!session_) return;
    H264EncoderSession::EncodeResult result = session_->encodeFrame(picture);
    if (result == H264EncoderSession::EncodeResult::NeedsNewSession) {
        logLine(lcCapture(), QStringLiteral("H264HWEncoder: picture format changed to %1 %2x%3; new session")
                                 .arg(QString::fromStdString(picture.format())).arg(picture.width()).arg(picture.height()));
        invalidateLocked();
        initSessionLocked(picture);
        if (!session_) return;
        result = session_->encodeFrame(picture);
    }
    if (result == H264EncoderSession::EncodeResult::Failed) {
        // The error itself was logged when the encoder reported it; this picture is lost
        // and the next one builds a new session.
        if (!session_->producedOutput()) unusable_.insert(session_->encoderName());
        skippedBefore_ += session_->skippedPictures();
        session_.reset();
    }
}

void H264HWEncoder::initSession(const MediaSample &picture)
{
    std::lock_guard lock(mutex_);
    initSessionLocked(picture);
}

void H264HWEncoder::initSessionLocked(const MediaSample &picture)
{
    logLine(lcCapture(), QStringLiteral("Init VTencode session"));
    H264EncoderSettings settings;
    settings.width = evenPixels(outputSize_.width);
    settings.height = evenPixels(outputSize_.height);
    settings.bitrate = bitrate_.load();
    settings.inputFormat = picture.format();
    settings.inputWidth = picture.width();
    settings.inputHeight = picture.height();
    if (settings.width == 0 || settings.height == 0 || picture.kind() != MediaSample::Kind::RawVideo || picture.width() <= 0
        || picture.height() <= 0 || picture.format().empty()) {
        logLine(lcCapture(), QStringLiteral("VT encode Error"));
        return;
    }

    H264EncoderSetupStatus status;
    for (const std::string &name : chain_) {
        if (unusable_.count(name) || !elementExists(name.c_str())) continue;
        session_ = makeH264EncoderSession(
            name, settings, [this](const MediaSample *s) { didReceiveSampleBuffer(s); },
            // No info flags exist here; 0 stands in their place.
            [](const std::string &message) { logLine(lcCapture(), QStringLiteral("Error %1 : %2").arg(0).arg(QString::fromStdString(message))); },
            &status);
        if (session_) break;
        logLine(lcCapture(), QStringLiteral("H264HWEncoder: %1 did not start").arg(QString::fromStdString(name)));
    }
    if (!session_) {
        logLine(lcCapture(), QStringLiteral("VT encode Error"));
        return;
    }
    logLine(lcCapture(), QStringLiteral("set bitrate   return: %1").arg(status.bitrate));
    logLine(lcCapture(), QStringLiteral("setframeStatus:%1").arg(status.frameRate));
    logLine(lcCapture(), QStringLiteral("start encode  return: %1").arg(status.start));
    logLine(lcCapture(), QStringLiteral("H.264 encoder: %1 (%2), %3x%4")
                             .arg(QString::fromStdString(session_->encoderName()), session_->isHardware() ? "hardware" : "software")
                             .arg(settings.width).arg(settings.height));
    std::lock_guard nameLock(nameMutex_);
    chosenName_ = session_->encoderName();
    chosenHardware_ = session_->isHardware();
}

void H264HWEncoder::invalidate()
{
    // The flush waits for the encoder (up to its time-out) without the lock: the capture
    // thread's encode() must not wait behind it.
    std::unique_ptr<H264EncoderSession> closing;
    {
        std::lock_guard lock(mutex_);
        closing = std::move(session_);
    }
    if (!closing) return;
    closing->completeFrames();
    std::lock_guard lock(mutex_);
    skippedBefore_ += closing->skippedPictures();
}

void H264HWEncoder::invalidateLocked()
{
    if (!session_) return;
    session_->completeFrames();
    skippedBefore_ += session_->skippedPictures();
    session_.reset();
}

uint64_t H264HWEncoder::skippedPictures() const
{
    std::lock_guard lock(mutex_);
    return skippedBefore_ + (session_ ? session_->skippedPictures() : 0);
}

bool H264HWEncoder::hasSession() const
{
    std::lock_guard lock(mutex_);
    return session_ != nullptr;
}

std::string H264HWEncoder::chosenEncoderName() const
{
    std::lock_guard lock(nameMutex_);
    return chosenName_;
}

bool H264HWEncoder::chosenEncoderIsHardware() const
{
    std::lock_guard lock(nameMutex_);
    return chosenHardware_;
}

void H264HWEncoder::setEncoderChain(std::vector<std::string> chain)
{
    std::lock_guard lock(mutex_);
    chain_ = std::move(chain);
    unusable_.clear();
}

void H264HWEncoder::didReceiveSampleBuffer(const MediaSample *sample)
{
    if (!sample) return;
    const H264Packet packet(*sample);
    if (H264HWEncoderDelegate *d = delegate_.load()) d->gotH264EncodedData(packet.packet(), packet.keyFrame(), sample->presentationTime(), nullptr);
    if (H264OutputObserver *o = observer_.load()) o->didDeliver(sample->presentationTime(), packet.packet().size(), packet.keyFrame());
}

} // namespace velocast::capture
