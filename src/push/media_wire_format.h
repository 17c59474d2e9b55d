// Media wire format shared by the push engine (sender) and the reference receiver.
// Header-only, no dependencies: the receiver in tools/ includes it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace velocast::wire {

// Little-endian helpers (the wire is little-endian whatever the host is).
inline void putLe16(uint8_t *p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void putLe32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline void putLe64(uint8_t *p, uint64_t v)
{
    for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline uint16_t le16(const uint8_t *p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t le32(const uint8_t *p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint64_t le64(const uint8_t *p) { return uint64_t(le32(p)) | (uint64_t(le32(p + 4)) << 32); }

// ---------------------------------------------------------------------------
// Video record on TCP: a 24-byte header, then payloadLength bytes of one H.264
// access unit in Annex-B form (4-byte start codes, SPS first on key frames).
//
//   0       4               8                               16      18      20      24
//   +-------+---------------+-------------------------------+-------+-------+-------+----
//   | "4CVA"| payloadLength |          timestamp            |keyFlag|subStrm|  0    | payload...
//   +-------+---------------+-------------------------------+-------+-------+-------+----
//     magic   u32 LE          u64 LE (always 0 here)          u16 LE  u16 LE  u32
// Records follow each other with no delimiter; payloadLength finds the next one.
// ---------------------------------------------------------------------------
inline constexpr size_t kRecordHeaderSize = 24;
inline constexpr char kVideoMagic[4] = {'4', 'C', 'V', 'A'};
// Audio record on TCP: same 24-byte shape with "1CAA", a caller word at 8, zeros at 16.
// Defined for completeness; the sender never sends it.
inline constexpr char kAudioTcpMagic[4] = {'1', 'C', 'A', 'A'};

struct VideoRecordHeader {
    uint32_t payloadLength = 0;
    uint64_t timestamp = 0;
    uint16_t keyFlag = 0;
    uint16_t subStream = 0;
};

inline void writeVideoRecordHeader(uint8_t out[kRecordHeaderSize], const VideoRecordHeader &h)
{
    std::memcpy(out, kVideoMagic, 4);
    putLe32(out + 4, h.payloadLength);
    putLe64(out + 8, h.timestamp);
    putLe16(out + 16, h.keyFlag);
    putLe16(out + 18, h.subStream);
    putLe32(out + 20, 0);
}

inline void writeAudioTcpRecordHeader(uint8_t out[kRecordHeaderSize], uint32_t payloadLength, uint64_t word)
{
    std::memcpy(out, kAudioTcpMagic, 4);
    putLe32(out + 4, payloadLength);
    putLe64(out + 8, word);
    std::memset(out + 16, 0, 8);
}

// Returns false when the first four bytes are not "4CVA".
inline bool readVideoRecordHeader(const uint8_t in[kRecordHeaderSize], VideoRecordHeader *h)
{
    if (std::memcmp(in, kVideoMagic, 4) != 0) return false;
    h->payloadLength = le32(in + 4);
    h->timestamp = le64(in + 8);
    h->keyFlag = le16(in + 16);
    h->subStream = le16(in + 18);
    return true;
}

// ---------------------------------------------------------------------------
// Media datagram on UDP: a 4-byte header (one u32, little-endian), then at most
// 1,420 payload bytes.
//
//   bits 31..24  type          5 = audio, 1 = video
//   bits 23..20  dropPriority  1 = may be dropped, 0 = key (audio writes 0)
//   bit  17      firstPiece
//   bit  16      lastPiece
//   bits 15..0   sequence      per media type, wrapping, from 0
//
// On the wire: seq low, seq high, flag byte, type. Audio always sets first and
// last piece, even when one frame spans several datagrams (0x05030000 | seq).
// ---------------------------------------------------------------------------
inline constexpr size_t kDatagramHeaderSize = 4;
inline constexpr size_t kMaxDatagramPayload = 1420;
inline constexpr uint8_t kDatagramTypeVideo = 1;
inline constexpr uint8_t kDatagramTypeAudio = 5;

struct DatagramHeader {
    uint8_t type = 0;
    uint8_t dropPriority = 0;
    bool firstPiece = false;
    bool lastPiece = false;
    uint16_t sequence = 0;
};

inline uint32_t packDatagramHeader(const DatagramHeader &h)
{
    return (uint32_t(h.type) << 24) | (uint32_t(h.dropPriority & 0x0F) << 20) | (h.firstPiece ? (1u << 17) : 0u)
        | (h.lastPiece ? (1u << 16) : 0u) | h.sequence;
}

inline DatagramHeader unpackDatagramHeader(uint32_t v)
{
    DatagramHeader h;
    h.type = uint8_t(v >> 24);
    h.dropPriority = uint8_t((v >> 20) & 0x0F);
    h.firstPiece = (v >> 17) & 1u;
    h.lastPiece = (v >> 16) & 1u;
    h.sequence = uint16_t(v & 0xFFFF);
    return h;
}

inline void writeDatagramHeader(uint8_t out[kDatagramHeaderSize], const DatagramHeader &h)
{
    putLe32(out, packDatagramHeader(h));
}

inline DatagramHeader readDatagramHeader(const uint8_t in[kDatagramHeaderSize]) { return unpackDatagramHeader(le32(in)); }

// Default media port of the receiver (video over TCP and audio over UDP).
inline constexpr uint16_t kDefaultMediaPort = 15630;
// Control channel port of the receiver.
inline constexpr uint16_t kControlPort = 15623;

} // namespace velocast::wire
