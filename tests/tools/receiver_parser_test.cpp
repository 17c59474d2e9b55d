// What the reference receiver judges the sender by, against crafted and damaged bytes: the
// control framing and UTF-8 check; "4CVA" records, Annex-B access units, audio datagrams and
// ADTS frames. (The rest of the receiver is driven by every session and casting test.)
#include "control_framing.h"
#include "media_checks.h"
#include "push/media_wire_format.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace velocast::receiver;
namespace wire = velocast::wire;

namespace {

// A "4CVA" record; lengthField overrides the stated payload length.
QByteArray record(const QByteArray &payload, uint16_t keyFlag, uint32_t lengthField = UINT32_MAX)
{
    QByteArray out(int(wire::kRecordHeaderSize), 0);
    wire::writeVideoRecordHeader(reinterpret_cast<uint8_t *>(out.data()),
                                 {lengthField == UINT32_MAX ? uint32_t(payload.size()) : lengthField, 0, keyFlag, 0});
    return out + payload;
}

// The sender's fixed ADTS header (MPEG-2 AAC LC, 44100 Hz, stereo, no CRC), then the payload.
QByteArray adtsFrame(int payloadSize, char fill = 0x21)
{
    const int fl = payloadSize + 7;
    const char h[7] = {char(0xFF), char(0xF9), char(0x50), char(0x80 ^ (fl >> 11)), char(fl >> 3), char((fl << 5) | 0x1F), char(0xFC)};
    return QByteArray(h, 7) + QByteArray(payloadSize, fill);
}

QByteArray datagram(uint16_t seq, const QByteArray &payload, uint8_t type = wire::kDatagramTypeAudio, bool first = true,
                    bool last = true, uint8_t drop = 0)
{
    QByteArray out(4, 0);
    wire::writeDatagramHeader(reinterpret_cast<uint8_t *>(out.data()), {type, drop, first, last, seq});
    return out + payload;
}

// A message as the sender writes it: pretty-printed JSON with the envelope, then '#'.
QByteArray senderMessage(const QString &id, const QJsonObject &property)
{
    const QJsonObject o{{"id", id}, {"property", property}, {"from", 2}, {"to", 5}, {"uuid", "5C0FFEE0-0000-4000-8000-000000000001"}};
    return QJsonDocument(o).toJson(QJsonDocument::Indented) + "#";
}

QStringList idsOf(const QList<QByteArray> &pieces)
{
    QStringList ids;
    for (const QByteArray &p : pieces) {
        const ParseResult r = parseMessage(p);
        ids << (r.ok() ? r.message.id : QString::fromLatin1(parseErrorName(r.error)));
    }
    return ids;
}

// SPS of a real 1920x1080 Constrained Baseline stream (x264): 1088 coded lines, cropped to 1080.
const QByteArray kSps1080 = QByteArray::fromHex("6742c028d900780227e5c05a808080a0000003002000000791e30649");
const QByteArray kPps = QByteArray::fromHex("68cb8cb2");
const QByteArray kStart = QByteArray::fromHex("00000001");

QByteArray idrSlice(int size = 40) { return QByteArray(1, char(0x65)) + QByteArray(size - 1, char(0x88)); }
QByteArray pSlice(int size = 20) { return QByteArray(1, char(0x41)) + QByteArray(size - 1, char(0x9a)); }
QByteArray keyUnit() { return kStart + kSps1080 + kStart + kPps + kStart + idrSlice(); }
QByteArray deltaUnit() { return kStart + pSlice(); }

// The sender's cut of one frame into datagrams of at most 1,420 payload bytes.
QList<QByteArray> cutFrame(const QByteArray &frame, uint16_t *seq)
{
    QList<QByteArray> out;
    for (qsizetype off = 0; off < frame.size(); off += 1420) out.append(datagram((*seq)++, frame.mid(off, 1420)));
    return out;
}

QList<Violation> kinds(const Issues &issues)
{
    QList<Violation> k;
    for (const Issue &i : issues) k.append(i.kind);
    return k;
}

} // namespace

TEST(MessageFramer, ReassemblesMessagesSplitAtEveryPosition)
{
    const QByteArray stream = senderMessage("id_connect_request", {{"name", "desk 名前"}, {"safe_code", "3"}, {"ip", "10.0.0.2"}})
        + senderMessage("id_heartbeat", {{"timestamp", 1700000000}});
    const QStringList expected{"id_connect_request", "id_heartbeat"};
    for (qsizetype cut = 0; cut <= stream.size(); ++cut) {
        MessageFramer f;
        QList<QByteArray> pieces = f.feed(stream.left(cut));
        pieces += f.feed(stream.mid(cut));
        ASSERT_EQ(idsOf(pieces), expected) << "cut at " << cut;
        EXPECT_EQ(f.pendingBytes(), 0);
    }
    // An unterminated tail is kept for the end of the stream.
    MessageFramer f;
    EXPECT_TRUE(f.feed(R"({"id":"id_heartbeat"})").isEmpty());
    EXPECT_EQ(f.takePending(), QByteArray(R"({"id":"id_heartbeat"})"));
    EXPECT_EQ(f.pendingBytes(), 0);
}

TEST(MessageFramer, GarbageBetweenMessagesIsOnePieceEach)
{
    MessageFramer f;
    const QByteArray stream = "\x01\x02garbage#" + senderMessage("id_rename", {{"name", "a"}}) + "{\"id\": 3}#[1,2]#\xc3\x28#"
        + senderMessage("id_permission_request", {{"type", 2}}) + "\n  \n#";
    EXPECT_EQ(idsOf(f.feed(stream)),
              (QStringList{"bad_json", "id_rename", "missing_id", "not_an_object", "bad_utf8", "id_permission_request"}));
}

TEST(MessageFramer, OversizedMessageIsDroppedOnceAndTheStreamRecovers)
{
    MessageFramer f(256);
    QByteArray big(1000, 'x');
    QList<QByteArray> pieces;
    // The long message arrives in several reads; the buffer never holds more than the cap.
    for (int i = 0; i < 10; ++i) {
        pieces += f.feed(big.mid(i * 100, 100));
        EXPECT_LE(f.pendingBytes(), 256);
    }
    pieces += f.feed("tail#" + senderMessage("id_rename", {{"name", "after"}}));
    EXPECT_EQ(f.oversizedCount(), 1);
    EXPECT_EQ(idsOf(pieces), QStringList{"id_rename"});
    // A message of exactly the cap still passes.
    MessageFramer g(20);
    EXPECT_EQ(g.feed(QByteArray(R"({"id":"id_x12345678})") + "#").size(), 1);
    EXPECT_EQ(g.oversizedCount(), 0);
    // One byte more does not.
    EXPECT_TRUE(g.feed(QByteArray(R"({"id":"id_x123456789})") + "#").isEmpty());
    EXPECT_EQ(g.oversizedCount(), 1);
}

TEST(Utf8, AcceptsWellFormedAndRejectsMalformedSequences)
{
    EXPECT_TRUE(isValidUtf8(QString::fromUtf8("ascii 中文 😀 é").toUtf8()));
    const char *bad[] = {
        "\xc3",             // cut two-byte sequence
        "\xe4\xb8",         // cut three-byte sequence
        "\x80",             // continuation without a lead
        "\xc0\xaf",         // overlong '/'
        "\xe0\x80\xaf",     // overlong three-byte form
        "\xed\xa0\x80",     // UTF-16 surrogate
        "\xf4\x90\x80\x80", // above U+10FFFF
        "\xff",
    };
    for (const char *b : bad) EXPECT_FALSE(isValidUtf8(QByteArray(b))) << QByteArray(b).toHex().constData();
}

TEST(VideoRecordParser, EachFaultIsCountedOnceAndTheNextRecordIsFound)
{
    QByteArray headerFields = record(deltaUnit(), 2); // keyFlag 2 and a non-zero timestamp
    headerFields[8] = 1;
    const uint32_t noCap = VideoRecordParser::kDefaultMaxPayload;
    const struct {
        const char *what;
        QByteArray stream;
        uint32_t cap;
        QList<Violation> expected;
        int records;
        qint64 skipped;
    } cases[] = {
        {"garbage", record(keyUnit(), 1) + "4CV garbage 4C" + record(deltaUnit(), 0), noCap, {Violation::BadMagic}, 2, 14},
        // skipped without waiting for (or buffering) a payload that never comes
        {"length above the cap", record(QByteArray(10, 'z'), 0, 5000) + record(deltaUnit(), 0), 1000, {Violation::OversizedRecord}, 1, -1},
        {"empty, then cut by the end", record({}, 0) + record(keyUnit(), 1).chopped(5), noCap,
         {Violation::EmptyRecord, Violation::TruncatedRecord}, 0, -1},
        {"header fields: reported, still delivered", headerFields, noCap, {Violation::HeaderField}, 1, -1},
    };
    for (const auto &c : cases) {
        VideoRecordParser p(c.cap);
        QList<VideoRecordParser::Record> records;
        Issues issues;
        for (char b : c.stream) p.feed(&b, 1, &records, &issues);
        p.finish(&issues);
        EXPECT_EQ(kinds(issues), c.expected) << c.what;
        ASSERT_EQ(records.size(), c.records) << c.what;
        if (c.records) {
            EXPECT_EQ(records.last().payload, deltaUnit()) << c.what;
        }
        if (c.skipped >= 0) {
            EXPECT_EQ(p.skippedBytes(), c.skipped) << c.what;
        }
    }
}

TEST(VideoChecker, WellFormedStreamHasNoFaultsAndItsStatistics)
{
    VideoChecker c;
    Issues issues;
    // Two GOPs: key + 4 deltas, key + 2 deltas; 40 ms apart.
    const bool keys[] = {true, false, false, false, false, true, false, false};
    qint64 t = 0;
    for (bool k : keys) c.check(k ? keyUnit() : deltaUnit(), k, t += 40, &issues);
    EXPECT_TRUE(issues.isEmpty());
    EXPECT_EQ(c.frames(), 8);
    EXPECT_EQ(c.keyFrames(), 2);
    EXPECT_EQ(c.longestGop(), 5);
    EXPECT_DOUBLE_EQ(c.fps(), 25.0);
    ASSERT_TRUE(c.pictureSize());
    EXPECT_EQ(c.pictureSize()->width, 1920);
    EXPECT_EQ(c.pictureSize()->height, 1080) << "1088 coded lines, cropped";
}

TEST(VideoChecker, EachFaultOfAnAccessUnitIsCountedOnce)
{
    struct Case {
        const char *what;
        QByteArray au;
        bool key;
        QList<Violation> expected;
    } cases[] = {
        {"key flag on a delta frame", deltaUnit(), true, {Violation::KeyFlagWithoutIdr, Violation::KeyFrameNotSpsFirst}},
        {"IDR without key flag", keyUnit(), false, {Violation::IdrWithoutKeyFlag}},
        {"IDR without SPS/PPS", kStart + idrSlice(), true, {Violation::ParameterSetsMissing, Violation::KeyFrameNotSpsFirst}},
        {"PPS after the slice", kStart + kSps1080 + kStart + idrSlice() + kStart + kPps, true, {Violation::ParameterSetsMissing}},
        {"three-byte start codes", kStart + kSps1080 + QByteArray::fromHex("000001") + kPps + QByteArray::fromHex("000001") + idrSlice(), true,
         {Violation::ShortStartCode}},
        {"leading garbage", QByteArray("xy") + kStart + pSlice(), false, {Violation::NoStartCode}},
        {"no start code at all", pSlice(), false, {Violation::NoStartCode}},
        {"empty NAL unit", kStart + kStart + pSlice(), false, {Violation::EmptyNalUnit}},
        {"forbidden bit", kStart + QByteArray::fromHex("c1aabb"), false, {Violation::ForbiddenBit}},
        {"damaged SPS", kStart + QByteArray::fromHex("6742c0") + kStart + kPps + kStart + idrSlice(), true, {Violation::BadSps}},
    };
    for (const Case &c : cases) {
        VideoChecker checker;
        Issues issues;
        checker.check(keyUnit(), true, 0, &issues); // a good key frame first
        ASSERT_TRUE(issues.isEmpty());
        checker.check(c.au, c.key, 40, &issues);
        EXPECT_EQ(kinds(issues), c.expected) << c.what;
    }
    VideoChecker fresh;
    Issues issues;
    fresh.check(deltaUnit(), false, 0, &issues);
    EXPECT_EQ(kinds(issues), QList<Violation>{Violation::FrameBeforeKeyFrame});
}

TEST(AdtsStream, GarbageBadLengthAndForeignHeaders)
{
    AdtsStream s;
    QList<QByteArray> frames;
    Issues issues;
    QByteArray badLength = adtsFrame(10);
    badLength[4] = 0; // frame_length 2
    badLength[5] = char(0x5F);
    QByteArray mono = adtsFrame(10);
    mono[3] = char(0x40); // channel configuration 1
    const QByteArray stream = QByteArray("junk") + adtsFrame(5) + badLength + adtsFrame(6) + mono + adtsFrame(0);
    s.feed(stream.constData(), stream.size(), &frames, &issues);
    EXPECT_EQ(kinds(issues), (QList<Violation>{Violation::AdtsBadSync, Violation::AdtsBadLength, Violation::AdtsHeaderField}));
    ASSERT_EQ(frames.size(), 4);
    EXPECT_EQ(frames[0], adtsFrame(5));
    EXPECT_EQ(frames[1], adtsFrame(6));
    EXPECT_EQ(frames[3], adtsFrame(0));
}

// Frames longer than a datagram are reassembled across a sequence wrap; a loss drops the frame it cut.
TEST(AudioDatagrams, ReassemblyGapsAndLateDatagrams)
{
    AudioDatagramChecker c;
    uint16_t seq = 65534;
    QList<QByteArray> frames;
    Issues issues;
    const QByteArray big = adtsFrame(2993, 'b'); // 3,000 bytes: 1,420 + 1,420 + 160
    const QByteArray exact = adtsFrame(1413, 'e'); // exactly one full datagram
    QList<QByteArray> d;
    for (const QByteArray &f : {adtsFrame(371), big, exact, adtsFrame(9)}) d += cutFrame(f, &seq);
    EXPECT_EQ(d.size(), 6);
    const QList<QByteArray> cut = cutFrame(adtsFrame(2000), &seq); // 4, 5
    d.append(cut[0]);                                              // 5 lost
    d += cutFrame(adtsFrame(50), &seq);                            // 6
    d.append(cut[0]);                                              // 4 again: late
    d += cutFrame(adtsFrame(60), &seq);                            // 7
    for (const QByteArray &x : d) c.feed(x.constData(), x.size(), &frames, &issues);
    EXPECT_EQ(kinds(issues), (QList<Violation>{Violation::SequenceGap, Violation::SequenceOutOfOrder}));
    EXPECT_EQ(c.missingDatagrams(), 1);
    ASSERT_EQ(frames.size(), 6);
    EXPECT_EQ(frames[1], big);
    EXPECT_EQ(frames[2], exact);
    EXPECT_EQ(frames[4], adtsFrame(50));
}

TEST(AudioDatagrams, BadHeadersAndLengths)
{
    struct Case {
        const char *what;
        QByteArray datagram;
        QList<Violation> expected;
    } cases[] = {
        {"three bytes", QByteArray("\x01\x02\x03", 3), {Violation::ShortDatagram}},
        {"header only", datagram(0, {}), {Violation::ShortDatagram}},
        {"video type", datagram(0, adtsFrame(4), 1), {Violation::UnexpectedDatagramType}},
        {"first piece missing", datagram(0, adtsFrame(4), 5, false, true), {Violation::PieceFlags}},
        {"drop priority", datagram(0, adtsFrame(4), 5, true, true, 1), {Violation::DropPriority}},
        {"too long", datagram(0, adtsFrame(1500)), {Violation::OversizedDatagram}},
        {"frame longer than its datagrams", datagram(0, adtsFrame(300).left(200)), {Violation::AdtsLengthMismatch}},
        {"not ADTS", datagram(0, QByteArray(30, 'q')), {Violation::AdtsBadSync}},
    };
    for (const Case &k : cases) {
        AudioDatagramChecker c;
        QList<QByteArray> frames;
        Issues issues;
        c.feed(k.datagram.constData(), k.datagram.size(), &frames, &issues);
        EXPECT_EQ(kinds(issues), k.expected) << k.what;
        // The next good datagram is accepted whatever came before.
        Issues after;
        const QByteArray good = datagram(1, adtsFrame(8));
        c.feed(good.constData(), good.size(), &frames, &after);
        EXPECT_TRUE(after.isEmpty()) << k.what << ": " << violationName(after.value(0).kind);
        EXPECT_EQ(frames.last(), adtsFrame(8)) << k.what;
    }
}
