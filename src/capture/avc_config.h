// The AVC decoder configuration record ("avcC", the codec_data of stream-format=avc):
//
//   byte 0      configurationVersion (1)
//   byte 1..3   profile_idc, constraint flags, level_idc (copied from the SPS)
//   byte 4      6 bits reserved (1) | lengthSizeMinusOne (2 bits; 3 = 4-byte lengths)
//   byte 5      3 bits reserved (1) | numOfSequenceParameterSets (5 bits)
//               then per SPS: u16 big-endian length, SPS NAL unit
//   next byte   numOfPictureParameterSets
//               then per PPS: u16 big-endian length, PPS NAL unit
//   (High profiles may append chroma/bit-depth fields; they are ignored here.)
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace velocast::capture {

struct AvcDecoderConfig {
    int nalLengthSize = 4;
    std::vector<std::vector<uint8_t>> sps;
    std::vector<std::vector<uint8_t>> pps;
};

// Parses a record; nullopt when it is truncated, has a length that runs past its end, or
// is not version 1.
std::optional<AvcDecoderConfig> parseAvcDecoderConfig(std::span<const uint8_t> record);

// A record for one SPS and one PPS with 4-byte NAL lengths. Empty when the SPS is shorter
// than its four header bytes or a set is longer than a 16-bit length can say.
std::vector<uint8_t> buildAvcDecoderConfig(std::span<const uint8_t> sps, std::span<const uint8_t> pps);

} // namespace velocast::capture
