// The receiver's control side: framing across reads, message parsing, the messages it
// writes, the connect code, the command language and a scenario file.
#include "commands.h"
#include "connect_code.h"
#include "receiver_test_util.h"

#include <QFile>
#include <QJsonArray>

using namespace velocast::receiver;
using namespace velocast::receiver::test;

namespace {

QStringList idsOf(const QList<QByteArray> &pieces)
{
    QStringList ids;
    for (const QByteArray &p : pieces) {
        const ParseResult r = parseMessage(p);
        ids << (r.ok() ? r.message.id : QString::fromLatin1(parseErrorName(r.error)));
    }
    return ids;
}

} // namespace

TEST(MessageFramer, ReassemblesMessagesSplitAtEveryPositionAndByteByByte)
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
    MessageFramer byteWise;
    QList<QByteArray> pieces;
    for (char c : stream) pieces += byteWise.feed(QByteArray(1, c));
    EXPECT_EQ(idsOf(pieces), expected);
    // An unterminated tail is kept for the end of the stream.
    EXPECT_TRUE(byteWise.feed(R"({"id":"id_heartbeat"})").isEmpty());
    EXPECT_EQ(byteWise.takePending(), QByteArray(R"({"id":"id_heartbeat"})"));
    EXPECT_EQ(byteWise.pendingBytes(), 0);
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

// (Id and property of well-formed messages are read in every session test.)
TEST(ParseMessage, APropertyThatIsNotAnObjectReadsAsEmpty)
{
    const ParseResult s = parseMessage(R"({"id":"id_video_pause","property":[1]})");
    ASSERT_TRUE(s.ok());
    EXPECT_TRUE(s.message.property.isEmpty());
}

TEST(LenientInt, NumbersStringsAndBooleansServe)
{
    const QJsonObject o{{"n", 2.9}, {"s", " 2 "}, {"f", "-3.7"}, {"b", true}, {"x", "abc"}, {"a", QJsonArray{1}}, {"big", 1e300}};
    const std::pair<const char *, qint64> cases[] = {{"n", 2}, {"s", 2}, {"f", -3}, {"b", 1}, {"x", 0}, {"a", 0}, {"missing", 0},
                                                     {"big", std::numeric_limits<qint64>::max()}};
    for (const auto &[key, value] : cases) EXPECT_EQ(lenientInt(o, key), value) << key;
}

TEST(FrameMessage, OneCompactObjectWithHashAndSizeLimit)
{
    EXPECT_EQ(frameMessage("id_connect_allow", {{"name", "TV"}}), QByteArray(R"({"id":"id_connect_allow","property":{"name":"TV"}}#)"));
    // A '#' in a value would cut the message on the sender's side: refused.
    EXPECT_TRUE(frameMessage("id_rename", {{"name", "room #2"}}).isEmpty());
    // Messages must stay well under 1024 bytes.
    EXPECT_TRUE(frameMessage("id_rename", {{"name", QString(1000, 'n')}}).isEmpty());
    const QByteArray longest = frameMessage("id_rename", {{"name", QString(900, 'n')}});
    ASSERT_FALSE(longest.isEmpty());
    EXPECT_LT(longest.size(), kMaxOutgoingBytes);
}

// The bounds; the sum and its zero padding are typed in as codes by the session tests.
TEST(ConnectCode, SafeCodeAndLastTwoOctets)
{
    struct Case {
        const char *ip;
        int safe;
        const char *code; // nullptr: no code
    } cases[] = {
        {"192.168.0.0", 0, "000000"},
        {"10.0.66.63", 15, "999999"},
        {"10.0.66.64", 15, nullptr},   // 1000000 does not fit six digits
        {"10.0.0.1", 16, nullptr},
        {"10.0.0.1", -1, nullptr},
        {"::1", 1, nullptr},
    };
    for (const Case &c : cases) {
        const auto code = connectCode(QHostAddress(QString::fromLatin1(c.ip)), c.safe);
        if (c.code)
            EXPECT_EQ(code.value_or("none"), QString::fromLatin1(c.code)) << c.ip << " " << c.safe;
        else
            EXPECT_FALSE(code.has_value()) << c.ip << " " << c.safe;
    }
    EXPECT_EQ(largestSafeCode(QHostAddress("10.0.66.63")), 15);
    EXPECT_EQ(largestSafeCode(QHostAddress("10.0.255.255")), 14);
}

// The commands the session and casting tests steer with (allow NAME, refuse N, close,
// heartbeat, wait, grant, pause, resize, stop...) are checked there by their effect on the
// sender; these are the others and the default arguments.
TEST(Commands, SteeringCommandsBuildTheirMessages)
{
    CommandDefaults d;
    d.name = "Living room";
    d.areaWidth = 1280;
    d.areaHeight = 720;
    struct Case {
        const char *line;
        const char *json; // the messages as a JSON array of {"id","property"}
    } cases[] = {
        {"allow", R"([{"id":"id_connect_allow","property":{"name":"Living room"}}])"},
        {"deny", R"([{"id":"id_permission_refuse","property":{"type":2}}])"},
        {"audio on", R"([{"id":"id_audio_ctrl","property":{"type":1}}])"},
        {"mouse 8 10 20", R"([{"id":"id_pc_mk_event","property":{"type":8,"x":10,"y":20,"width":1280,"height":720,"wheel_x":0,"wheel_y":0}}])"},
        {"mouse 9 0 0 640 360 -2 3", R"([{"id":"id_pc_mk_event","property":{"type":9,"x":0,"y":0,"width":640,"height":360,"wheel_x":-2,"wheel_y":3}}])"},
        {"click 5 6", R"([{"id":"id_pc_mk_event","property":{"type":1,"x":5,"y":6,"width":1280,"height":720,"wheel_x":0,"wheel_y":0}},
                          {"id":"id_pc_mk_event","property":{"type":2,"x":5,"y":6,"width":1280,"height":720,"wheel_x":0,"wheel_y":0}}])"},
        {"rename  Big  Screen ", R"([{"id":"id_rename","property":{"name":"Big  Screen"}}])"},
        {"airplay-succeed", R"([{"id":"id_airplay_screen_succeed","property":{}}])"},
        {"send id_custom {\"a\": [1, \"b\"]}", R"([{"id":"id_custom","property":{"a":[1,"b"]}}])"},
    };
    for (const Case &c : cases) {
        const Command cmd = parseCommand(QString::fromUtf8(c.line), d);
        ASSERT_EQ(cmd.kind, CommandKind::Send) << c.line << ": " << cmd.error.toStdString();
        QJsonArray got;
        for (const OutgoingMessage &m : cmd.messages) got.append(QJsonObject{{"id", m.id}, {"property", m.property}});
        EXPECT_EQ(got, QJsonDocument::fromJson(c.json).array()) << c.line;
    }
}

TEST(Commands, ControlCommandsAndErrors)
{
    CommandDefaults d;
    EXPECT_EQ(parseCommand("", d).kind, CommandKind::Nothing);
    EXPECT_EQ(parseCommand("  # a comment", d).kind, CommandKind::Nothing);
    const Command aw = parseCommand("await id_permission_request 500", d);
    EXPECT_EQ(aw.kind, CommandKind::Await);
    EXPECT_EQ(aw.text, "id_permission_request");
    EXPECT_EQ(aw.number, 500);
    for (const char *bad : {"resize", "resize x", "mouse 1 2", "mouse 1 2 3 4", "audio maybe", "sleep -1", "heartbeat",
                            "send id_x [1]", "send id_x {", "airplay-config 70000", "mouse 1 2 99999999999 3 4", "frobnicate"})
        EXPECT_EQ(parseCommand(bad, d).kind, CommandKind::Invalid) << bad;
}

TEST(ReceiverScenario, WaitsForEventsAndChecksTheSafeCode)
{
    QFile scenario(velocast::test::freshTempDir() + "/steer.txt");
    ASSERT_TRUE(scenario.open(QIODevice::WriteOnly));
    scenario.write("# steer once the cast is asked for\nawait id_permission_request\nresize 2\nawait id_never_sent 50\nstop\n");
    scenario.close();
    ReceiverOptions o;
    o.safeCode = 9;
    o.control.permission = ControlPolicy::Answer::Manual;
    o.scenarioPath = scenario.fileName();
    LoopbackReceiver lr(o, "message_sent", "id");
    ASSERT_TRUE(lr.started) << lr.error.toStdString();
    const QStringList &events = lr.events;

    // A code typed for another receiver carries another safe code: refused with msg 2.
    ControlClient stranger;
    ASSERT_TRUE(stranger.connectTo(lr.receiver->control()->port()));
    stranger.send("id_connect_request", {{"name", "pc"}, {"safe_code", "4"}, {"ip", "127.0.0.1"}});
    const ControlMessage refusal = stranger.next();
    EXPECT_EQ(refusal.id, "id_connect_refuse");
    EXPECT_EQ(refusal.property.value("msg").toInt(), 2);
    EXPECT_TRUE(events.contains("safe_code_mismatch"));

    ControlClient client;
    ASSERT_TRUE(client.connectTo(lr.receiver->control()->port()));
    client.send("id_connect_request", {{"name", "pc"}, {"safe_code", 9}, {"ip", "127.0.0.1"}});
    EXPECT_EQ(client.next().id, "id_connect_allow");
    // Nothing of the scenario yet: it waits for the permission request.
    EXPECT_FALSE(events.contains("message_sent:id_codec_resize"));
    EXPECT_FALSE(events.contains("command_error"));
    client.send("id_permission_request", {{"type", 2}});
    const ControlMessage resize = client.next();
    EXPECT_EQ(resize.id, "id_codec_resize");
    EXPECT_EQ(resize.property.value("count").toInt(), 2);
    // The second await times out and the scenario goes on.
    EXPECT_EQ(client.next().id, "id_permission_disconnect");
    EXPECT_EQ(events.count("await_timeout"), 1);
    // Manual permission: the receiver itself sent no answer.
    EXPECT_TRUE(client.received.isEmpty());
}
