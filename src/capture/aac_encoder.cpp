#include "capture/aac_encoder.h"

#include "capture/aac_pcm_encoder.h"
#include "common/log.h"

namespace velocast::capture {

AACEncoder::AACEncoder() = default;

AACEncoder::~AACEncoder()
{
    // Stop the streaming thread before the queue it posts to goes away (member order also
    // says so; this makes it explicit and independent of later edits).
    std::lock_guard lock(pcmMutex_);
    pcmEncoder_.reset();
}

std::vector<uint8_t> AACEncoder::adtsDataForPacketLength(uint32_t length)
{
    const uint64_t fl = uint64_t(length) + 7;
    return {
        0xFF,                              // syncword
        0xF9,                              // syncword | MPEG-2 | layer 0 | no CRC
        0x50,                              // AAC LC | 44100 Hz | private 0 | channels bit 2
        uint8_t(0x80 ^ (fl >> 11)),        // stereo | FL bits 12..11
        uint8_t(fl >> 3),                  // FL bits 10..3
        uint8_t((fl << 5) | 0x1F),         // FL bits 2..0 | fullness high bits
        0xFC,                              // fullness low bits | one raw data block
    };
}

void AACEncoder::encode(const MediaSample &sample)
{
    if (sample.kind() == MediaSample::Kind::RawAudio) {
        encodePcm(sample);
        return;
    }
    const MediaTime timestamp = sample.presentationTime();
    std::shared_ptr<MediaError> error;
    {
        MappedBuffer data(sample.buffer());
        if (data.ok()) {
            pcmBuffer_.assign(data.bytes().begin(), data.bytes().end());
        } else {
            error = std::make_shared<MediaError>(MediaError{"GstBufferMap", -1});
            logLine(lcCapture(), QStringLiteral("err:%1").arg(QString::fromStdString(error->description())));
            // Goes on with what is held: the previous payload, or nothing.
        }
    }
    frameAndPost(pcmBuffer_, timestamp, std::move(error));
}

void AACEncoder::frameAndPost(std::span<const uint8_t> payload, MediaTime timestamp, std::shared_ptr<MediaError> error)
{
    if (payload.size() > kMaxPayload) {
        logLine(lcCapture(), QStringLiteral("AACEncoder: payload of %1 bytes does not fit an ADTS frame; dropped").arg(payload.size()));
        return;
    }
    if (!delegate_.load()) return;
    std::vector<uint8_t> frame = adtsDataForPacketLength(uint32_t(payload.size()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    callbackQueue_.post([this, frame = std::move(frame), timestamp, error = std::move(error)] {
        // Read again here: the delegate may have been cleared since the frame was posted.
        if (AACEncoderDelegate *d = delegate_.load()) d->gotAACEncodedData(frame, timestamp, error.get());
    });
}

void AACEncoder::encodePcm(const MediaSample &sample)
{
    std::lock_guard lock(pcmMutex_);
    if (pcmEncoder_ && !pcmEncoder_->accepts(sample)) {
        logLine(lcCapture(), QStringLiteral("AACEncoder: PCM format changed; rebuilding the AAC encoder"));
        pcmEncoder_.reset();
    }
    if (!pcmEncoder_) {
        // The access units come back on the encoder's streaming thread.
        pcmEncoder_ = makeAacPcmEncoder(sample, [this](std::span<const uint8_t> au, MediaTime pts) { frameAndPost(au, pts, nullptr); });
        if (!pcmEncoder_) return;
        logLine(lcCapture(), QStringLiteral("AAC encoder: %1").arg(QString::fromStdString(pcmEncoder_->encoderName())));
    }
    if (!pcmEncoder_->push(sample)) {
        logLine(lcCapture(), QStringLiteral("AACEncoder: the AAC encoder failed; it is rebuilt with the next samples"));
        pcmEncoder_.reset();
    }
}

std::string AACEncoder::chosenEncoderName() const
{
    std::lock_guard lock(pcmMutex_);
    return pcmEncoder_ ? pcmEncoder_->encoderName() : std::string();
}

} // namespace velocast::capture
