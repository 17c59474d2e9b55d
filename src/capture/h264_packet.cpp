#include "capture/h264_packet.h"

#include "common/log.h"

namespace velocast::capture {

namespace {

constexpr uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};

void appendUnit(std::vector<uint8_t> &out, const uint8_t *data, size_t length)
{
    out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
    out.insert(out.end(), data, data + length);
}

} // namespace

H264Packet::H264Packet(const MediaSample &sample) { packetizeAVC(sample); }

bool H264Packet::appendAnnexB(std::span<const uint8_t> avcc, std::vector<uint8_t> &out)
{
    const size_t total = avcc.size();
    // An empty sample, or one of exactly one length field, carries no NAL unit.
    if (total == 0 || total == 4) return true;
    size_t offset = 0;
    do {
        if (total - offset < 4) {
            logLine(lcCapture(), QStringLiteral("H264Packet: %1 stray bytes at offset %2 of a %3-byte sample; dropped")
                                     .arg(total - offset).arg(offset).arg(total));
            return false;
        }
        const uint32_t length = uint32_t(avcc[offset]) << 24 | uint32_t(avcc[offset + 1]) << 16
                                | uint32_t(avcc[offset + 2]) << 8 | uint32_t(avcc[offset + 3]);
        if (length > total - offset - 4) {
            logLine(lcCapture(), QStringLiteral("H264Packet: NAL length %1 at offset %2 runs past the end of a %3-byte sample; rest dropped")
                                     .arg(length).arg(offset).arg(total));
            return false;
        }
        appendUnit(out, avcc.data() + offset + 4, length);
        offset += 4 + size_t(length);
        // Up to four trailing bytes (at most an empty length field) end the walk.
    } while (offset + 4 < total);
    return true;
}

void H264Packet::packetizeAVC(const MediaSample &sample)
{
    packet_.clear();
    // A sample counts as a key frame unless it is marked as depending on others.
    const bool key = sample.isSync();
    if (key) {
        const ByteVector *sps = sample.parameterSet(0);
        const ByteVector *pps = sample.parameterSet(1);
        if (sps && pps && !sps->empty() && !pps->empty()) {
            appendUnit(packet_, sps->data(), sps->size());
            appendUnit(packet_, pps->data(), pps->size());
        }
    }
    MappedBuffer data(sample.buffer());
    if (data.ok()) appendAnnexB(data.bytes(), packet_);
    keyFrame_ = key;
}

} // namespace velocast::capture
