#include "media_checks.h"

#include <QJsonArray>

#include <algorithm>
#include <cstring>

namespace velocast::receiver {

const char *violationName(Violation v)
{
    switch (v) {
    case Violation::BadMagic: return "bad_magic";
    case Violation::OversizedRecord: return "oversized_record";
    case Violation::EmptyRecord: return "empty_record";
    case Violation::TruncatedRecord: return "truncated_record";
    case Violation::HeaderField: return "record_header_field";
    case Violation::NoStartCode: return "no_start_code";
    case Violation::ShortStartCode: return "short_start_code";
    case Violation::EmptyNalUnit: return "empty_nal_unit";
    case Violation::ForbiddenBit: return "forbidden_bit";
    case Violation::KeyFlagWithoutIdr: return "key_flag_without_idr";
    case Violation::IdrWithoutKeyFlag: return "idr_without_key_flag";
    case Violation::ParameterSetsMissing: return "parameter_sets_missing";
    case Violation::KeyFrameNotSpsFirst: return "key_frame_not_sps_first";
    case Violation::FrameBeforeKeyFrame: return "frame_before_key_frame";
    case Violation::BadSps: return "bad_sps";
    case Violation::ShortDatagram: return "short_datagram";
    case Violation::OversizedDatagram: return "oversized_datagram";
    case Violation::UnexpectedDatagramType: return "unexpected_datagram_type";
    case Violation::PieceFlags: return "piece_flags";
    case Violation::DropPriority: return "drop_priority";
    case Violation::SequenceGap: return "sequence_gap";
    case Violation::SequenceOutOfOrder: return "sequence_out_of_order";
    case Violation::AdtsBadSync: return "adts_bad_sync";
    case Violation::AdtsHeaderField: return "adts_header_field";
    case Violation::AdtsBadLength: return "adts_bad_length";
    case Violation::AdtsLengthMismatch: return "adts_length_mismatch";
    }
    return "unknown";
}

static const uint8_t *u8(const char *p) { return reinterpret_cast<const uint8_t *>(p); }

// ---------------------------------------------------------------------------------------
// "4CVA" records

static qsizetype findMagic(const QByteArray &buf, qsizetype from)
{
    return buf.indexOf(QByteArray::fromRawData(wire::kVideoMagic, 4), from);
}

void VideoRecordParser::feed(const char *data, qsizetype size, QList<Record> *records, Issues *issues)
{
    if (size > 0) buffer_.append(data, size);
    qsizetype pos = 0;
    for (;;) {
        const qsizetype avail = buffer_.size() - pos;
        if (avail <= 0) break;
        // Compare what we have of the magic first, so garbage is found as early as possible.
        const qsizetype cmp = std::min<qsizetype>(avail, 4);
        if (std::memcmp(buffer_.constData() + pos, wire::kVideoMagic, size_t(cmp)) != 0) {
            if (!resyncing_) {
                issues->append({Violation::BadMagic, QStringLiteral("at stream byte offset +%1").arg(pos)});
                resyncing_ = true;
            }
            const qsizetype next = findMagic(buffer_, pos + 1);
            if (next < 0) {
                // Keep the last three bytes: they may be the start of a magic.
                const qsizetype keep = std::min<qsizetype>(3, avail - 1);
                skipped_ += avail - keep;
                pos = buffer_.size() - keep;
                // The kept bytes may not start a magic either; the next feed decides.
                break;
            }
            skipped_ += next - pos;
            pos = next;
            continue;
        }
        if (avail < qsizetype(wire::kRecordHeaderSize)) break;
        wire::VideoRecordHeader h;
        wire::readVideoRecordHeader(u8(buffer_.constData() + pos), &h);
        resyncing_ = false;
        if (h.payloadLength > maxPayload_) {
            issues->append({Violation::OversizedRecord, QStringLiteral("payloadLength %1").arg(h.payloadLength)});
            // Skip this magic and look for the next record.
            resyncing_ = true;
            skipped_ += 4;
            pos += 4;
            continue;
        }
        const qsizetype total = qsizetype(wire::kRecordHeaderSize) + qsizetype(h.payloadLength);
        if (avail < total) break; // faults are reported once the whole record is here
        const uint32_t reserved = wire::le32(u8(buffer_.constData() + pos + 20));
        if (h.keyFlag > 1 || h.timestamp != 0 || h.subStream != 0 || reserved != 0) {
            issues->append({Violation::HeaderField, QStringLiteral("keyFlag %1 timestamp %2 subStream %3 reserved %4")
                                                        .arg(h.keyFlag)
                                                        .arg(h.timestamp)
                                                        .arg(h.subStream)
                                                        .arg(reserved)});
        }
        if (h.payloadLength == 0) {
            issues->append({Violation::EmptyRecord, {}});
            pos += total;
            continue;
        }
        records->append({h, buffer_.mid(pos + qsizetype(wire::kRecordHeaderSize), qsizetype(h.payloadLength))});
        pos += total;
    }
    if (pos > 0) buffer_.remove(0, pos);
}

void VideoRecordParser::finish(Issues *issues)
{
    if (!buffer_.isEmpty() && !resyncing_)
        issues->append({Violation::TruncatedRecord, QStringLiteral("%1 bytes left at the end").arg(buffer_.size())});
    else if (!buffer_.isEmpty())
        skipped_ += buffer_.size();
    buffer_.clear();
    resyncing_ = false;
}

// ---------------------------------------------------------------------------------------
// Annex-B

QList<NalUnit> splitAnnexB(const QByteArray &au, qsizetype *leadingBytes)
{
    QList<NalUnit> nals;
    const uint8_t *p = u8(au.constData());
    const qsizetype n = au.size();
    *leadingBytes = n;
    qsizetype i = 0;
    while (i + 3 <= n) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            const qsizetype prevEnd = nals.isEmpty() ? 0 : nals.last().offset;
            const bool four = i > 0 && p[i - 1] == 0 && i - 1 >= prevEnd;
            const qsizetype codeStart = four ? i - 1 : i;
            if (nals.isEmpty())
                *leadingBytes = codeStart;
            else
                nals.last().size = codeStart - nals.last().offset;
            NalUnit nal;
            nal.startCodeLength = four ? 4 : 3;
            nal.offset = i + 3;
            nal.size = n - nal.offset;
            nal.type = nal.offset < n ? (p[nal.offset] & 0x1F) : -1;
            nals.append(nal);
            i += 3;
        } else {
            ++i;
        }
    }
    return nals;
}

namespace {

// Reads bits from an RBSP with emulation prevention bytes already removed; every read is
// bounds-checked and sets failed() instead of reading past the end.
class BitReader {
public:
    BitReader(const QByteArray &bytes) : data_(u8(bytes.constData())), bits_(qsizetype(bytes.size()) * 8) {}
    uint32_t bits(int n)
    {
        uint32_t v = 0;
        for (int k = 0; k < n; ++k) {
            if (pos_ >= bits_) {
                failed_ = true;
                return 0;
            }
            v = (v << 1) | ((data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1u);
            ++pos_;
        }
        return v;
    }
    uint32_t ue()
    {
        int zeros = 0;
        while (!failed_ && bits(1) == 0) {
            if (++zeros > 31) {
                failed_ = true;
                return 0;
            }
        }
        if (failed_) return 0;
        return uint32_t((uint64_t(1) << zeros) - 1 + bits(zeros));
    }
    int32_t se()
    {
        const uint32_t k = ue();
        return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
    }
    bool failed() const { return failed_; }

private:
    const uint8_t *data_;
    qsizetype bits_;
    qsizetype pos_ = 0;
    bool failed_ = false;
};

QByteArray unescapeRbsp(const char *nal, qsizetype size)
{
    QByteArray out;
    out.reserve(size);
    int zeros = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const uint8_t b = uint8_t(nal[i]);
        if (zeros >= 2 && b == 3) {
            zeros = 0;
            continue;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        out.append(char(b));
    }
    return out;
}

void skipScalingList(BitReader &r, int size)
{
    int last = 8, next = 8;
    for (int j = 0; j < size && !r.failed(); ++j) {
        // In 64 bits: a hostile delta near the 32-bit limit must not overflow.
        if (next != 0) next = int(((int64_t(last) + r.se()) % 256 + 256) % 256);
        last = next == 0 ? last : next;
    }
}

} // namespace

std::optional<PictureSize> parseSps(const char *nal, qsizetype size)
{
    if (size < 4 || (uint8_t(nal[0]) & 0x1F) != 7) return std::nullopt;
    const QByteArray rbsp = unescapeRbsp(nal + 1, size - 1);
    BitReader r(rbsp);
    PictureSize ps;
    ps.profileIdc = int(r.bits(8));
    r.bits(8); // constraint flags
    ps.levelIdc = int(r.bits(8));
    if (r.ue() > 31) return std::nullopt; // seq_parameter_set_id
    uint32_t chromaFormat = 1;
    static const int kHighProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::find(std::begin(kHighProfiles), std::end(kHighProfiles), ps.profileIdc) != std::end(kHighProfiles)) {
        chromaFormat = r.ue();
        if (chromaFormat > 3) return std::nullopt;
        if (chromaFormat == 3) r.bits(1);
        r.ue(); // bit_depth_luma_minus8
        r.ue(); // bit_depth_chroma_minus8
        r.bits(1);
        if (r.bits(1)) { // seq_scaling_matrix_present_flag
            const int lists = chromaFormat == 3 ? 12 : 8;
            for (int i = 0; i < lists && !r.failed(); ++i)
                if (r.bits(1)) skipScalingList(r, i < 6 ? 16 : 64);
        }
    }
    r.ue(); // log2_max_frame_num_minus4
    const uint32_t pocType = r.ue();
    if (pocType == 0) {
        r.ue();
    } else if (pocType == 1) {
        r.bits(1);
        r.se();
        r.se();
        const uint32_t cycle = r.ue();
        if (cycle > 255) return std::nullopt;
        for (uint32_t i = 0; i < cycle && !r.failed(); ++i) r.se();
    } else if (pocType > 2) {
        return std::nullopt;
    }
    r.ue();      // max_num_ref_frames
    r.bits(1);   // gaps_in_frame_num_value_allowed_flag
    const uint32_t wMbs = r.ue() + 1;
    const uint32_t hMapUnits = r.ue() + 1;
    const uint32_t frameMbsOnly = r.bits(1);
    if (!frameMbsOnly) r.bits(1);
    r.bits(1); // direct_8x8_inference_flag
    uint32_t cl = 0, cr = 0, ct = 0, cb = 0;
    if (r.bits(1)) {
        cl = r.ue(), cr = r.ue(), ct = r.ue(), cb = r.ue();
    }
    if (r.failed() || wMbs > 1024 || hMapUnits > 1024) return std::nullopt;
    const uint32_t cropX = chromaFormat == 1 || chromaFormat == 2 ? 2 : 1;
    const uint32_t cropY = (chromaFormat == 1 ? 2 : 1) * (2 - frameMbsOnly);
    const int64_t w = int64_t(wMbs) * 16 - int64_t(cropX) * (int64_t(cl) + cr);
    const int64_t h = int64_t(hMapUnits) * 16 * (2 - frameMbsOnly) - int64_t(cropY) * (int64_t(ct) + cb);
    if (w <= 0 || h <= 0) return std::nullopt;
    ps.width = int(w);
    ps.height = int(h);
    return ps;
}

void VideoChecker::check(const QByteArray &au, bool keyFlag, qint64 timeMs, Issues *issues)
{
    ++frames_;
    bytes_ += au.size();
    if (firstMs_ < 0) firstMs_ = timeMs;
    lastMs_ = timeMs;

    qsizetype leading = 0;
    const QList<NalUnit> nals = splitAnnexB(au, &leading);
    if (nals.isEmpty() || leading != 0)
        issues->append({Violation::NoStartCode, QStringLiteral("frame %1: %2 bytes before the first start code").arg(frames_).arg(leading)});

    bool shortCode = false, empty = false, forbidden = false;
    int firstIdr = -1, sps = -1, pps = -1;
    for (int i = 0; i < nals.size(); ++i) {
        const NalUnit &nal = nals[i];
        shortCode |= nal.startCodeLength != 4;
        if (nal.size <= 0) {
            empty = true;
            continue;
        }
        forbidden |= (uint8_t(au[nal.offset]) & 0x80) != 0;
        if (nal.type == 5 && firstIdr < 0) firstIdr = i;
        if (nal.type == 7 && sps < 0) {
            sps = i;
            const auto size = parseSps(au.constData() + nal.offset, nal.size);
            if (size)
                picture_ = size;
            else
                issues->append({Violation::BadSps, QStringLiteral("frame %1").arg(frames_)});
        }
        if (nal.type == 8 && pps < 0) pps = i;
    }
    const QString where = QStringLiteral("frame %1").arg(frames_);
    if (shortCode) issues->append({Violation::ShortStartCode, where});
    if (empty) issues->append({Violation::EmptyNalUnit, where});
    if (forbidden) issues->append({Violation::ForbiddenBit, where});
    const bool idr = firstIdr >= 0;
    if (keyFlag && !idr) issues->append({Violation::KeyFlagWithoutIdr, where});
    if (!keyFlag && idr) issues->append({Violation::IdrWithoutKeyFlag, where});
    if (idr && (sps < 0 || pps < 0 || sps > firstIdr || pps > firstIdr))
        issues->append({Violation::ParameterSetsMissing, where});
    if (keyFlag && !nals.isEmpty() && nals.first().type != 7) issues->append({Violation::KeyFrameNotSpsFirst, where});

    if (keyFlag || idr) {
        seenKey_ = true;
        ++keyFrames_;
        gop_ = 1;
    } else {
        if (!seenKey_) issues->append({Violation::FrameBeforeKeyFrame, where});
        ++gop_;
    }
    longestGop_ = std::max(longestGop_, gop_);
}

double VideoChecker::fps() const
{
    if (frames_ < 2 || lastMs_ <= firstMs_) return 0;
    return double(frames_ - 1) * 1000.0 / double(lastMs_ - firstMs_);
}

double VideoChecker::bitRate() const
{
    if (frames_ < 2 || lastMs_ <= firstMs_) return 0;
    return double(bytes_) * 8.0 * 1000.0 / double(lastMs_ - firstMs_);
}

QJsonObject VideoChecker::report() const
{
    QJsonObject o;
    o[QStringLiteral("frames")] = frames_;
    o[QStringLiteral("key_frames")] = keyFrames_;
    o[QStringLiteral("bytes")] = bytes_;
    o[QStringLiteral("fps")] = fps();
    o[QStringLiteral("bit_rate")] = bitRate();
    o[QStringLiteral("longest_gop")] = longestGop_;
    if (picture_) {
        o[QStringLiteral("width")] = picture_->width;
        o[QStringLiteral("height")] = picture_->height;
        o[QStringLiteral("profile_idc")] = picture_->profileIdc;
        o[QStringLiteral("level_idc")] = picture_->levelIdc;
    }
    return o;
}

// ---------------------------------------------------------------------------------------
// ADTS

static bool isSync(const uint8_t *p) { return p[0] == 0xFF && (p[1] & 0xF0) == 0xF0; }

void AdtsStream::reset()
{
    buffer_.clear();
    resyncing_ = false;
}

void AdtsStream::feed(const char *data, qsizetype size, QList<QByteArray> *frames, Issues *issues)
{
    if (size > 0) buffer_.append(data, size);
    qsizetype pos = 0;
    for (;;) {
        const qsizetype avail = buffer_.size() - pos;
        if (avail <= 0) break;
        const uint8_t *p = u8(buffer_.constData()) + pos;
        const bool syncSoFar = avail == 1 ? p[0] == 0xFF : isSync(p);
        if (!syncSoFar) {
            if (!resyncing_) {
                issues->append({Violation::AdtsBadSync, {}});
                resyncing_ = true;
            }
            ++pos;
            continue;
        }
        if (avail < 7) break;
        const bool crc = (p[1] & 0x01) == 0;
        const qsizetype headerSize = crc ? 9 : 7;
        const qsizetype length = ((p[3] & 0x03) << 11) | (p[4] << 3) | (p[5] >> 5);
        const int layer = (p[1] >> 1) & 0x03;
        if (length < headerSize || layer != 0) {
            // Not a usable header; it may be payload that happens to look like a sync word.
            if (!resyncing_) {
                issues->append({length < headerSize ? Violation::AdtsBadLength : Violation::AdtsBadSync,
                                 QStringLiteral("frame_length %1 layer %2").arg(length).arg(layer)});
                resyncing_ = true;
            }
            ++pos;
            continue;
        }
        if (avail < length) break;
        resyncing_ = false;
        const int id = (p[1] >> 3) & 1;
        const int profile = (p[2] >> 6) & 0x03;      // profile - 1: 1 = AAC LC
        const int rateIndex = (p[2] >> 2) & 0x0F;    // 4 = 44100 Hz
        const int channels = ((p[2] & 0x01) << 2) | (p[3] >> 6);
        const int rawBlocks = p[6] & 0x03;
        if (crc || id != 1 || profile != 1 || rateIndex != 4 || channels != 2 || rawBlocks != 0) {
            issues->append({Violation::AdtsHeaderField, QStringLiteral("id %1 profile %2 rate index %3 channels %4 crc %5 blocks %6")
                                                             .arg(id).arg(profile + 1).arg(rateIndex).arg(channels)
                                                             .arg(crc ? 1 : 0).arg(rawBlocks + 1)});
        }
        frames->append(buffer_.mid(pos, length));
        pos += length;
    }
    if (pos > 0) buffer_.remove(0, pos);
}

// ---------------------------------------------------------------------------------------
// Audio datagrams

void AudioDatagramChecker::feed(const char *data, qsizetype size, QList<QByteArray> *adtsFrames, Issues *issues)
{
    ++datagrams_;
    if (size < qsizetype(wire::kDatagramHeaderSize) + 1) {
        issues->append({Violation::ShortDatagram, QStringLiteral("%1 bytes").arg(size)});
        return;
    }
    const wire::DatagramHeader h = wire::readDatagramHeader(u8(data));
    const qsizetype payload = size - qsizetype(wire::kDatagramHeaderSize);
    if (h.type != wire::kDatagramTypeAudio) {
        issues->append({Violation::UnexpectedDatagramType, QStringLiteral("type %1").arg(h.type)});
        return;
    }
    if (payload > qsizetype(wire::kMaxDatagramPayload))
        issues->append({Violation::OversizedDatagram, QStringLiteral("%1 payload bytes").arg(payload)});
    if (!h.firstPiece || !h.lastPiece)
        issues->append({Violation::PieceFlags, QStringLiteral("first %1 last %2").arg(h.firstPiece).arg(h.lastPiece)});
    if (h.dropPriority != 0) issues->append({Violation::DropPriority, QStringLiteral("%1").arg(h.dropPriority)});

    if (haveSequence_) {
        const uint16_t expected = uint16_t(lastSequence_ + 1);
        const uint16_t ahead = uint16_t(h.sequence - expected);
        if (ahead >= 0x8000) {
            issues->append({Violation::SequenceOutOfOrder, QStringLiteral("sequence %1 after %2").arg(h.sequence).arg(lastSequence_)});
            return; // late or duplicated: its bytes no longer fit the stream
        }
        if (ahead != 0) {
            issues->append({Violation::SequenceGap, QStringLiteral("%1 missing before %2").arg(ahead).arg(h.sequence)});
            missing_ += ahead;
            adts_.reset(); // a frame cut by the loss cannot be completed
        }
    }
    haveSequence_ = true;
    lastSequence_ = h.sequence;
    bytes_ += payload;

    QList<QByteArray> frames;
    adts_.feed(data + wire::kDatagramHeaderSize, payload, &frames, issues);
    frames_ += frames.size();
    adtsFrames->append(frames);
    // The sender cuts a frame into pieces of exactly 1,420 bytes and one shorter last piece,
    // so after a shorter piece a frame must be complete.
    if (payload < qsizetype(wire::kMaxDatagramPayload) && adts_.pendingBytes() > 0) {
        issues->append({Violation::AdtsLengthMismatch, QStringLiteral("%1 bytes of an unfinished frame at sequence %2")
                                                            .arg(adts_.pendingBytes()).arg(h.sequence)});
        adts_.reset();
    }
}

QJsonObject AudioDatagramChecker::report() const
{
    QJsonObject o;
    o[QStringLiteral("datagrams")] = datagrams_;
    o[QStringLiteral("frames")] = frames_;
    o[QStringLiteral("bytes")] = bytes_;
    o[QStringLiteral("missing_datagrams")] = missing_;
    return o;
}

// ---------------------------------------------------------------------------------------

void ViolationTally::add(const Issue &issue)
{
    ++counts_[int(issue.kind)];
    QStringList &s = samples_[int(issue.kind)];
    if (s.size() < 5) s.append(issue.detail);
}

int ViolationTally::total() const
{
    int t = 0;
    for (int c : counts_) t += c;
    return t;
}

QJsonObject ViolationTally::report() const
{
    QJsonObject o;
    for (int k = 0; k < kViolationKinds; ++k) {
        if (!counts_[k]) continue;
        QJsonObject v;
        v[QStringLiteral("count")] = counts_[k];
        v[QStringLiteral("examples")] = QJsonArray::fromStringList(samples_.value(k));
        o[QLatin1String(violationName(Violation(k)))] = v;
    }
    return o;
}

} // namespace velocast::receiver
