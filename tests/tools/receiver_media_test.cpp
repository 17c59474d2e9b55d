// The receiver's media checks, fed with crafted and damaged bytes: "4CVA" records, Annex-B
// access units, audio datagrams and ADTS frames; then the whole receiver on loopback.
#include "media_checks.h"
#include "receiver_test_util.h"

#include <QJsonArray>
#include <QUdpSocket>

using namespace velocast::receiver;
using namespace velocast::receiver::test;
using velocast::test::waitUntil;

namespace {

// SPS of a real 1920x1080 Constrained Baseline stream (x264): 1088 coded lines, cropped to 1080.
const QByteArray kSps1080 = QByteArray::fromHex("6742c028d900780227e5c05a808080a0000003002000000791e30649");
// The same picture in High profile (chroma format and scaling-list fields present).
const QByteArray kSps1080High = QByteArray::fromHex("67640028acd940780227e5c05a808080a0000003002000000791e30632c0");
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

// Each stream is fed byte by byte, so every cut of a record between reads is crossed too.
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

// The units' bounds; start code kinds, leading bytes and types show in VideoChecker's cases.
TEST(AnnexB, SplitsAtThreeAndFourByteStartCodes)
{
    const QByteArray au = kStart + kSps1080 + QByteArray::fromHex("000001") + kPps + kStart + idrSlice(10);
    qsizetype leading = -1;
    const QList<NalUnit> nals = splitAnnexB(au, &leading);
    ASSERT_EQ(nals.size(), 3);
    EXPECT_EQ(nals[0].size, kSps1080.size());
    EXPECT_EQ(nals[1].size, kPps.size());
    EXPECT_EQ(nals[2].offset + nals[2].size, au.size());
}

TEST(AnnexB, SpsGivesThePictureSizeAndRejectsDamage)
{
    for (const QByteArray &sps : {kSps1080, kSps1080High}) {
        const auto size = parseSps(sps.constData(), sps.size());
        ASSERT_TRUE(size.has_value());
        EXPECT_EQ(size->width, 1920);
        EXPECT_EQ(size->height, 1080);
    }
    EXPECT_EQ(parseSps(kSps1080.constData(), kSps1080.size())->profileIdc, 66);
    // Cut before the picture size: no size. (Reads past the end are the fuzzer's part.)
    for (qsizetype n = 0; n < 7; ++n) EXPECT_FALSE(parseSps(kSps1080.constData(), n).has_value()) << n;
    EXPECT_FALSE(parseSps(kPps.constData(), kPps.size()).has_value());
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

TEST(AudioDatagrams, FramesLongerThanOneDatagramAreReassembled)
{
    AudioDatagramChecker c;
    uint16_t seq = 65534; // wraps on the way
    QList<QByteArray> frames;
    Issues issues;
    const QByteArray big = adtsFrame(2993, 'b'); // 3,000 bytes: 1,420 + 1,420 + 160
    const QByteArray exact = adtsFrame(1413, 'e'); // exactly one full datagram
    QList<QByteArray> dgrams;
    for (const QByteArray &f : {adtsFrame(371), big, exact, adtsFrame(9)}) dgrams += cutFrame(f, &seq);
    EXPECT_EQ(dgrams.size(), 6);
    for (const QByteArray &d : dgrams) c.feed(d.constData(), d.size(), &frames, &issues);
    EXPECT_TRUE(issues.isEmpty()) << violationName(issues.value(0).kind);
    ASSERT_EQ(frames.size(), 4);
    EXPECT_EQ(frames[1], big);
    EXPECT_EQ(frames[2], exact);
    EXPECT_EQ(c.missingDatagrams(), 0);
}

TEST(AudioDatagrams, SequenceGapsAndLateDatagrams)
{
    AudioDatagramChecker c;
    QList<QByteArray> frames;
    Issues issues;
    uint16_t seq = 10;
    QList<QByteArray> d = cutFrame(adtsFrame(100), &seq);      // 10
    const QList<QByteArray> big = cutFrame(adtsFrame(2000), &seq); // 11, 12
    d.append(big[0]);                                          // 12 lost
    d += cutFrame(adtsFrame(50), &seq);                        // 13
    d.append(big[0]);                                          // 11 again: late
    d += cutFrame(adtsFrame(60), &seq);                        // 14
    for (const QByteArray &x : d) c.feed(x.constData(), x.size(), &frames, &issues);
    EXPECT_EQ(kinds(issues), (QList<Violation>{Violation::SequenceGap, Violation::SequenceOutOfOrder}));
    EXPECT_EQ(c.missingDatagrams(), 1);
    // The frame cut by the loss is dropped; the ones around it survive.
    ASSERT_EQ(frames.size(), 3);
    EXPECT_EQ(frames[1], adtsFrame(50));
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

TEST(ViolationTally, CountsByKindWithExamples)
{
    ViolationTally t;
    for (int i = 0; i < 7; ++i) t.add({Violation::SequenceGap, QString::number(i)});
    EXPECT_EQ(t.total(), 7);
    const QJsonObject r = t.report();
    EXPECT_EQ(r.value("sequence_gap").toObject().value("count").toInt(), 7);
    EXPECT_EQ(r.value("sequence_gap").toObject().value("examples").toArray().size(), 5) << "examples are capped";
    EXPECT_FALSE(r.contains("empty_record"));
}

TEST(ReceiverLoopback, SurvivesHostileInputAndCountsEachFault)
{
    ReceiverOptions o;
    o.control.maxMessageBytes = 512;
    o.control.admission = ControlPolicy::Answer::Manual;
    LoopbackReceiver lr(o, "bad_message", "reason");
    ASSERT_TRUE(lr.started) << lr.error.toStdString();
    Receiver &r = *lr.receiver;
    const QStringList &events = lr.events;

    // A client that sends garbage, an oversized message, bad UTF-8 and a cut message, then vanishes.
    {
        QTcpSocket rogue;
        rogue.connectToHost(QHostAddress::LocalHost, r.control()->port());
        ASSERT_TRUE(waitUntil([&] { return rogue.state() == QAbstractSocket::ConnectedState; }));
        rogue.write(QByteArray("\x00\x01{{{#", 6) + QByteArray(5000, '{') + "#\xf0\x28\x8c\x28#" + R"({"id":"id_connect_req)");
        ASSERT_TRUE(waitUntil([&] { return events.contains("bad_message:bad_utf8"); }));
        rogue.abort();
    }
    ASSERT_TRUE(waitUntil([&] { return events.contains("control_closed"); }));
    for (const char *reason : {"bad_json", "oversized", "bad_utf8", "unterminated"})
        EXPECT_EQ(events.count(QStringLiteral("bad_message:") + reason), 1) << reason;

    // A media client that sends a record with a bad magic, one good record, then half a record.
    {
        QTcpSocket m;
        m.connectToHost(QHostAddress::LocalHost, r.media()->port());
        ASSERT_TRUE(waitUntil([&] { return m.state() == QAbstractSocket::ConnectedState; }));
        QByteArray bad = record(deltaUnit(), 0);
        bad[0] = 'X';
        m.write(bad + record(deltaUnit(), 0) + record(deltaUnit(), 0).left(30));
        ASSERT_TRUE(waitUntil([&] { return m.bytesToWrite() == 0; }));
        m.disconnectFromHost();
    }
    ASSERT_TRUE(waitUntil([&] { return events.contains("media_closed"); }));
    // A garbage datagram; then a new cast from a new socket whose sequence starts again at 0: not a fault.
    const auto audio = [&] { return r.media()->report().value("audio").toObject(); };
    QUdpSocket garbage, castOne, castTwo;
    garbage.writeDatagram(QByteArray("\x01", 1), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return audio().value("datagrams").toInt() == 1; }));
    castOne.writeDatagram(datagram(700, adtsFrame(5)), QHostAddress::LocalHost, r.media()->port());
    castOne.writeDatagram(datagram(701, adtsFrame(5)), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return audio().value("frames").toInt() == 2; }));
    castTwo.writeDatagram(datagram(0, adtsFrame(5)), QHostAddress::LocalHost, r.media()->port());
    ASSERT_TRUE(waitUntil([&] { return audio().value("frames").toInt() == 3; }));

    const QJsonObject v = r.media()->report().value("violations").toObject();
    for (const char *kind : {"bad_magic", "truncated_record", "frame_before_key_frame", "short_datagram"})
        EXPECT_EQ(v.value(kind).toObject().value("count").toInt(), 1) << kind;
    EXPECT_EQ(r.media()->violationCount(), 4);

    // The receiver still serves a well-behaved client, here with manual admission.
    ControlClient good;
    ASSERT_TRUE(good.connectTo(r.control()->port()));
    good.send("id_connect_request", {{"name", "ok"}, {"safe_code", 1}, {"ip", "127.0.0.1"}});
    ASSERT_TRUE(waitUntil([&] { return events.contains("message_received"); }));
    r.enqueue({"refuse 1"});
    const ControlMessage m = good.next();
    EXPECT_EQ(m.id, "id_connect_refuse");
    EXPECT_EQ(m.property.value("msg").toInt(), 1);
}
