// Parsers and validators for the media the sender pushes to the receiver's media port:
// video as "4CVA" records over TCP (one H.264 access unit in Annex-B form each) and audio
// as datagrams over UDP (a 4-byte header, then a piece of an ADTS stream).
//
// All of them take untrusted bytes, never read outside what they were given, keep bounded
// buffers, and report each fault they find as an Issue. Not thread-safe; one instance per
// stream.
#pragma once

#include "push/media_wire_format.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>

#include <cstdint>
#include <optional>

namespace velocast::receiver {

enum class Violation {
    // "4CVA" record stream
    BadMagic,          // bytes where a record header should start; skipped up to the next "4CVA"
    OversizedRecord,   // payloadLength above the receiver's cap; the header is skipped
    EmptyRecord,       // payloadLength 0
    TruncatedRecord,   // the stream ended inside a record
    HeaderField,       // keyFlag not 0/1, or timestamp, subStream or reserved not zero
    // H.264 access unit (Annex-B)
    NoStartCode,       // the payload does not begin with a start code
    ShortStartCode,    // a NAL unit behind a three-byte start code
    EmptyNalUnit,      // two start codes in a row
    ForbiddenBit,      // forbidden_zero_bit set in a NAL header
    KeyFlagWithoutIdr, // keyFlag 1 but no IDR slice
    IdrWithoutKeyFlag, // an IDR slice in a record with keyFlag 0
    ParameterSetsMissing, // an IDR slice without SPS and PPS in front of it
    KeyFrameNotSpsFirst,  // a key frame whose first NAL unit is not the SPS
    FrameBeforeKeyFrame,  // a delta frame before the first key frame (undecodable)
    BadSps,               // an SPS that cannot be parsed
    // UDP datagrams
    ShortDatagram,          // fewer than 5 bytes (header and at least one payload byte)
    OversizedDatagram,      // more than 1,420 payload bytes
    UnexpectedDatagramType, // a type other than 5 (audio)
    PieceFlags,             // an audio datagram without firstPiece and lastPiece both set
    DropPriority,           // an audio datagram with a non-zero dropPriority
    SequenceGap,            // datagrams missing before this one
    SequenceOutOfOrder,     // a duplicate or late datagram (dropped)
    // ADTS
    AdtsBadSync,     // bytes where an ADTS header should start; skipped up to the next sync word
    AdtsHeaderField, // not MPEG-2 AAC LC 44100 Hz stereo without CRC, single raw block
    AdtsBadLength,   // frame_length shorter than the header
    AdtsLengthMismatch, // the sender's last piece of a frame ended inside an ADTS frame
};
inline constexpr int kViolationKinds = int(Violation::AdtsLengthMismatch) + 1;
const char *violationName(Violation v);

struct Issue {
    Violation kind;
    QString detail;
};
using Issues = QList<Issue>;

// ---------------------------------------------------------------------------------------
// "4CVA" record stream (TCP).
class VideoRecordParser {
public:
    struct Record {
        wire::VideoRecordHeader header;
        QByteArray payload;
    };
    static constexpr uint32_t kDefaultMaxPayload = 16u * 1024u * 1024u;
    explicit VideoRecordParser(uint32_t maxPayload = kDefaultMaxPayload) : maxPayload_(maxPayload) {}

    // Bytes from one read. Complete records and faults are appended in stream order.
    void feed(const char *data, qsizetype size, QList<Record> *records, Issues *issues);
    // End of stream: a partial record left is reported as TruncatedRecord.
    void finish(Issues *issues);
    qint64 skippedBytes() const { return skipped_; }

private:
    uint32_t maxPayload_;
    QByteArray buffer_;
    bool resyncing_ = false;
    qint64 skipped_ = 0;
};

// ---------------------------------------------------------------------------------------
// Annex-B access unit.
struct NalUnit {
    int type = 0;          // nal_unit_type, 0..31
    qsizetype offset = 0;  // of the NAL header byte in the access unit
    qsizetype size = 0;    // bytes up to the next start code
    int startCodeLength = 4;
};
// Splits an Annex-B buffer at its start codes. *leadingBytes gets the number of bytes
// before the first start code (0 in a well-formed access unit).
QList<NalUnit> splitAnnexB(const QByteArray &au, qsizetype *leadingBytes);

struct PictureSize {
    int width = 0;
    int height = 0;
    int profileIdc = 0;
    int levelIdc = 0;
};
// Picture size from an SPS NAL unit (header byte included), after cropping.
std::optional<PictureSize> parseSps(const char *nal, qsizetype size);

// Checks video access units against the sender's rules and keeps the video statistics.
class VideoChecker {
public:
    // One record's payload. timeMs is the arrival time (any monotonic clock).
    void check(const QByteArray &au, bool keyFlag, qint64 timeMs, Issues *issues);

    qint64 frames() const { return frames_; }
    qint64 keyFrames() const { return keyFrames_; }
    qint64 bytes() const { return bytes_; }
    int longestGop() const { return longestGop_; }
    std::optional<PictureSize> pictureSize() const { return picture_; }
    double fps() const;
    double bitRate() const; // bits per second over the arrival span
    QJsonObject report() const;

private:
    qint64 frames_ = 0, keyFrames_ = 0, bytes_ = 0;
    int gop_ = 0, longestGop_ = 0;
    bool seenKey_ = false;
    std::optional<PictureSize> picture_;
    qint64 firstMs_ = -1, lastMs_ = -1;
};

// ---------------------------------------------------------------------------------------
// ADTS stream: 7-byte header (9 with CRC), frame_length counts the header.
//
//   byte 0      byte 1      byte 2        byte 3       byte 4     byte 5       byte 6
//   FFFFFFFF    FFFF I LL P  PP SSSS x C   CC xxxx LL   LLLLLLLL   LLL BBBBB   BBBBBB RR
//   sync 0xFFF, I id, L layer, P protection_absent, PP profile-1, SSSS rate index,
//   C.. channel configuration, L.. frame_length (13 bits), B.. buffer fullness, RR raw blocks-1
class AdtsStream {
public:
    // Complete frames (header and payload) are appended to *frames.
    void feed(const char *data, qsizetype size, QList<QByteArray> *frames, Issues *issues);
    // Drops a partial frame (after lost datagrams) and looks for the next sync word.
    void reset();
    qsizetype pendingBytes() const { return buffer_.size(); }

private:
    QByteArray buffer_;
    bool resyncing_ = false;
};

// Audio datagrams (UDP) into ADTS frames, with the datagram checks and audio statistics.
class AudioDatagramChecker {
public:
    void feed(const char *data, qsizetype size, QList<QByteArray> *adtsFrames, Issues *issues);

    qint64 datagrams() const { return datagrams_; }
    qint64 frames() const { return frames_; }
    qint64 bytes() const { return bytes_; }
    qint64 missingDatagrams() const { return missing_; }
    QJsonObject report() const;

private:
    AdtsStream adts_;
    bool haveSequence_ = false;
    uint16_t lastSequence_ = 0;
    qint64 datagrams_ = 0, frames_ = 0, bytes_ = 0, missing_ = 0;
};

// Counts issues by kind and keeps the first few details of each for the report.
class ViolationTally {
public:
    void add(const Issue &issue);
    int count(Violation v) const { return counts_[int(v)]; }
    int total() const;
    QJsonObject report() const;

private:
    int counts_[kViolationKinds] = {};
    QMap<int, QStringList> samples_;
};

} // namespace velocast::receiver
