#include "capture/h264_packet.h"

#include "common/log.h"

#include <cstring>

namespace velocast::capture {

namespace {

constexpr uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};

void appendUnit(std::vector<uint8_t> &out, const uint8_t *data, size_t length)
{
    out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
    out.insert(out.end(), data, data + length);
}

uint32_t lengthAt(std::span<const uint8_t> b, size_t offset)
{
    return uint32_t(b[offset]) << 24 | uint32_t(b[offset + 1]) << 16 | uint32_t(b[offset + 2]) << 8 | uint32_t(b[offset + 3]);
}

bool isInBandHeader(uint8_t nalHeader)
{
    const int type = nalHeader & 0x1F;
    return type == 7 || type == 8 || type == 9; // SPS, PPS, access unit delimiter
}

// The walk shared by both entry points. A 4-byte length and a 4-byte start code have the
// same size, so the units are copied as one run and the length fields overwritten in place;
// a unit that is left out (skipHeaders) ends a run. Returns false when a length runs past
// the end: the units before it are kept.
bool convert(std::span<const uint8_t> avcc, std::vector<uint8_t> &out, bool skipHeaders)
{
    const size_t total = avcc.size();
    // An empty sample, or one of exactly one length field, carries no NAL unit.
    if (total == 0 || total == 4) return true;
    size_t offset = 0;
    size_t runStart = 0; // start of the bytes not yet copied
    bool ok = true;
    auto flush = [&](size_t end) {
        if (end <= runStart) return;
        const size_t at = out.size();
        out.resize(at + (end - runStart));
        std::memcpy(out.data() + at, avcc.data() + runStart, end - runStart);
        // Rewrite each length field of the run as a start code.
        for (size_t o = runStart; o < end;) {
            const size_t len = lengthAt(avcc, o);
            std::memcpy(out.data() + at + (o - runStart), kStartCode, 4);
            o += 4 + len;
        }
    };
    do {
        if (total - offset < 4) {
            logLine(lcCapture(), QStringLiteral("H264Packet: %1 stray bytes at offset %2 of a %3-byte sample; dropped")
                                     .arg(total - offset).arg(offset).arg(total));
            ok = false;
            break;
        }
        const uint32_t length = lengthAt(avcc, offset);
        if (length > total - offset - 4) {
            logLine(lcCapture(), QStringLiteral("H264Packet: NAL length %1 at offset %2 runs past the end of a %3-byte sample; rest dropped")
                                     .arg(length).arg(offset).arg(total));
            ok = false;
            break;
        }
        if (skipHeaders && length > 0 && isInBandHeader(avcc[offset + 4])) {
            flush(offset);
            runStart = offset + 4 + size_t(length);
        }
        offset += 4 + size_t(length);
        // Up to four trailing bytes (at most an empty length field) end the walk.
    } while (offset + 4 < total);
    flush(offset);
    return ok;
}

} // namespace

H264Packet::H264Packet(const MediaSample &sample) { packetizeAVC(sample); }

bool H264Packet::appendAnnexB(std::span<const uint8_t> avcc, std::vector<uint8_t> &out)
{
    out.reserve(out.size() + avcc.size());
    return convert(avcc, out, false);
}

void H264Packet::packetizeAVC(const MediaSample &sample)
{
    packet_.clear();
    // A sample counts as a key frame unless it is marked as depending on others.
    const bool key = sample.isSync();
    const ByteVector *sps = sample.parameterSet(0);
    const ByteVector *pps = sample.parameterSet(1);
    const bool haveSets = sps && pps && !sps->empty() && !pps->empty();
    MappedBuffer data(sample.buffer());
    const size_t body = data.ok() ? data.bytes().size() : 0;
    packet_.reserve(body + (key && haveSets ? 8 + sps->size() + pps->size() : 0));
    if (key && haveSets) {
        appendUnit(packet_, sps->data(), sps->size());
        appendUnit(packet_, pps->data(), pps->size());
    }
    // With the parameter sets beside the sample, copies of them inside it (and access unit
    // delimiters) are redundant: encoders that write a byte stream repeat them.
    if (data.ok()) convert(data.bytes(), packet_, haveSets);
    keyFrame_ = key;
}

} // namespace velocast::capture
