// PCM in, raw AAC LC access units out (1024 samples each, 44100 Hz, stereo). The backend of
// AACEncoder for captures that deliver PCM.
#pragma once

#include "capture/media_sample.h"

#include <functional>
#include <memory>
#include <span>
#include <string>

namespace velocast::capture {

class AacPcmEncoder {
public:
    // Runs on the encoder's streaming thread, once per access unit, in order. Must not block
    // and must not call back into the encoder.
    using AccessUnitFn = std::function<void(std::span<const uint8_t> accessUnit, MediaTime pts)>;

    virtual ~AacPcmEncoder() = default;
    // True when the sample has the format this encoder was built for.
    virtual bool accepts(const MediaSample &pcm) const = 0;
    // Queues the samples; false when the encoder has failed and must be rebuilt.
    virtual bool push(const MediaSample &pcm) = 0;
    virtual const std::string &encoderName() const = 0;
};

// Tries "voaacenc", then "avenc_aac". Null (with a log line) when the sample's format is not
// usable (1 or 2 channels, 8000..192000 Hz) or no encoder opens.
std::unique_ptr<AacPcmEncoder> makeAacPcmEncoder(const MediaSample &firstPcm, AacPcmEncoder::AccessUnitFn onAccessUnit);

} // namespace velocast::capture
