#include "capture/avc_config.h"

namespace velocast::capture {

namespace {

// Reads "count" length-prefixed sets at offset; advances offset. False when one runs past the end.
bool readSets(std::span<const uint8_t> r, size_t &offset, size_t count, std::vector<std::vector<uint8_t>> &out)
{
    for (size_t i = 0; i < count; ++i) {
        if (r.size() - offset < 2) return false;
        const size_t len = size_t(r[offset]) << 8 | r[offset + 1];
        offset += 2;
        if (r.size() - offset < len) return false;
        out.emplace_back(r.begin() + std::ptrdiff_t(offset), r.begin() + std::ptrdiff_t(offset + len));
        offset += len;
    }
    return true;
}

} // namespace

std::optional<AvcDecoderConfig> parseAvcDecoderConfig(std::span<const uint8_t> record)
{
    if (record.size() < 7 || record[0] != 1) return std::nullopt;
    AvcDecoderConfig config;
    config.nalLengthSize = (record[4] & 0x03) + 1;
    size_t offset = 6;
    if (!readSets(record, offset, record[5] & 0x1F, config.sps)) return std::nullopt;
    if (offset >= record.size()) return std::nullopt;
    const size_t ppsCount = record[offset++];
    if (!readSets(record, offset, ppsCount, config.pps)) return std::nullopt;
    return config;
}

std::vector<uint8_t> buildAvcDecoderConfig(std::span<const uint8_t> sps, std::span<const uint8_t> pps)
{
    if (sps.size() < 4 || sps.size() > 0xFFFF || pps.empty() || pps.size() > 0xFFFF) return {};
    std::vector<uint8_t> r{
        1,      // configurationVersion
        sps[1], // profile_idc
        sps[2], // constraint_set flags
        sps[3], // level_idc
        0xFF,   // reserved | lengthSizeMinusOne = 3
        0xE1,   // reserved | one SPS
    };
    r.push_back(uint8_t(sps.size() >> 8));
    r.push_back(uint8_t(sps.size()));
    r.insert(r.end(), sps.begin(), sps.end());
    r.push_back(1); // one PPS
    r.push_back(uint8_t(pps.size() >> 8));
    r.push_back(uint8_t(pps.size()));
    r.insert(r.end(), pps.begin(), pps.end());
    return r;
}

} // namespace velocast::capture
