// One compressed H.264 sample (AVCC: each NAL unit behind a 4-byte big-endian length, the
// parameter sets kept beside it) turned into a self-contained Annex-B access unit, the form
// the push engine sends as one video frame:
//
//   key frames only:  00 00 00 01 | SPS | 00 00 00 01 | PPS
//   every NAL unit:   00 00 00 01 | NAL unit (its bytes without the length prefix)
//
// When the sample carries both parameter sets, SPS, PPS and access unit delimiters found
// inside it are left out (the ones in front stand for them).
//
// Only four-byte start codes are written, also in front of the parameter sets.
#pragma once

#include "capture/media_sample.h"

#include <cstdint>
#include <span>
#include <vector>

namespace velocast::capture {

class H264Packet {
public:
    H264Packet() = default;
    // Runs packetizeAVC on the sample.
    explicit H264Packet(const MediaSample &sample);

    // Fills packet and keyFrame. A key sample whose parameter sets cannot both be read gets
    // neither; a sample whose bytes cannot be read yields no NAL units. A length field that
    // runs past the end of the sample ends the walk there: what came before is kept, the
    // rest is dropped and a line is logged.
    void packetizeAVC(const MediaSample &sample);

    const std::vector<uint8_t> &packet() const { return packet_; }
    void setPacket(std::vector<uint8_t> packet) { packet_ = std::move(packet); }
    bool keyFrame() const { return keyFrame_; }
    void setKeyFrame(bool keyFrame) { keyFrame_ = keyFrame; }

    // The walk over AVCC bytes on its own: appends each NAL unit behind a start code to out.
    // Returns false when a length field runs past the end (nothing of that unit is appended).
    // Keeps every unit.
    static bool appendAnnexB(std::span<const uint8_t> avcc, std::vector<uint8_t> &out);

private:
    std::vector<uint8_t> packet_;
    bool keyFrame_ = false;
};

} // namespace velocast::capture
