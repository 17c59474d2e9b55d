#include "control/net_control.h"

#include "common/lenient_value.h"
#include "common/log.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "support/loopback_peer.h"
#include "support/test_support.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QRegularExpression>
#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velocast;
using velocast::test::LoopbackPeer;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Records every NETCONTROL_* notification while it lives.
struct Recorder {
    Recorder()
    {
        auto &c = NotificationCenter::defaultCenter();
        receive = c.addObserver(notice::NETCONTROL_RECEIVE, [this](const QVariant &v) { received.push_back(v); });
        disconnect = c.addObserver(notice::NETCONTROL_DISCONNECT, [this](const QVariant &) { ++disconnects; });
        broken = c.addObserver(notice::NETCONTROL_CONNECTBROKEN, [this](const QVariant &) { ++brokens; });
    }
    std::vector<QVariant> received;
    int disconnects = 0;
    int brokens = 0;
    Observation receive, disconnect, broken;
};

// Collects log lines while it lives.
struct LogCapture {
    LogCapture()
    {
        previous = setLogTap([this](const char *, const QString &t) {
            std::lock_guard lock(mutex);
            lines.push_back(t);
        });
    }
    ~LogCapture() { setLogTap(previous); }
    int count(const QString &prefix)
    {
        std::lock_guard lock(mutex);
        return int(std::count_if(lines.begin(), lines.end(), [&](const QString &l) { return l.startsWith(prefix); }));
    }
    std::mutex mutex;
    std::vector<QString> lines;
    LogTap previous;
};

// A channel connected to a scripted peer on loopback.
struct Connected {
    Connected()
    {
        control.setLocalIPStr("127.0.0.1");
        control.setControlPort(peer.port());
        control.connect("127.0.0.1", [this](bool ok) { results.push_back(ok); });
        EXPECT_TRUE(waitUntil([this] { return !results.empty(); }));
        EXPECT_EQ(results, std::vector<bool>{true});
        EXPECT_TRUE(peer.waitForClient());
    }
    LoopbackPeer peer;
    NetControl control;
    std::vector<bool> results;
};

const QVariantMap kRename{{"id", "id_rename"}, {"property", QVariantMap{{"name", "客厅"}}}};

TEST(NetControl, EnvelopeAndFramingOnTheWire)
{
    Connected c;
    c.control.sendDic(kRename);
    ASSERT_TRUE(c.peer.waitForMessages(1));
    const QString id = NetControl::senderID();
    // Indented JSON, keys in order, then exactly one "#".
    const QByteArray expected = "{\n"
                                "    \"from\": 2,\n"          // sending side
                                "    \"id\": \"id_rename\",\n"
                                "    \"property\": {\n"
                                "        \"name\": \"客厅\"\n" // UTF-8, not escaped
                                "    },\n"
                                "    \"to\": 5,\n"            // receiving side
                                "    \"uuid\": \""
        + id.toUtf8() + "\"\n}\n#";
    EXPECT_EQ(c.peer.received(), expected);

    // Envelope keys in the message are replaced, not duplicated.
    QVariantMap spoof = kRename;
    spoof.insert("from", 9);
    spoof.insert("uuid", "x");
    const QJsonObject o = QJsonDocument::fromJson(NetControl::eventJsonWithDic(spoof)).object();
    EXPECT_EQ(o.value("from").toInt(), 2);
    EXPECT_EQ(o.value("to").toInt(), 5);
    EXPECT_EQ(o.value("uuid").toString(), id);
}

TEST(NetControl, SendsThroughTheNotificationAndDropsWhatItCannotSend)
{
    Connected c;
    LogCapture logs;
    // Not a dictionary, or a value with no JSON form: nothing goes out.
    c.control.sendDic(QStringLiteral("id_rename"));
    c.control.sendDic(QVariantList{kRename});
    c.control.sendDic(QVariantMap{{"id", "x"}, {"property", QVariantMap{{"p", QPoint(1, 2)}}}});
    EXPECT_TRUE(NetControl::eventJsonWithDic(QVariant()).isNull());
    // Through NETCONTROL_SEND (any Part can post it).
    NotificationCenter::defaultCenter().post(notice::NETCONTROL_SEND, kRename);
    ASSERT_TRUE(c.peer.waitForMessages(1));
    velocast::test::spinFor(50ms);
    EXPECT_EQ(c.peer.messages().size(), 1);
    EXPECT_EQ(logs.count("send json:{"), 1);

    // Not connected: dropped silently.
    c.control.closeStream();
    c.control.sendDic(kRename);
    EXPECT_EQ(c.peer.messages().size(), 1);
}

TEST(NetControl, SplitsChunksAtHashWithoutReassembly)
{
    NetControl control;
    Recorder rec;
    control.postData(R"({"id":"a","property":{}}#{"id":"b","property":{"n":1}}#)");
    ASSERT_EQ(rec.received.size(), 2u);
    EXPECT_EQ(messageId(rec.received[0]), "a");
    EXPECT_EQ(messageId(rec.received[1]), "b");
    EXPECT_EQ(messageProperty(rec.received[1].toMap()).value("n").toLongLong(), 1);

    // A last piece without "#" is still parsed: complete is dispatched, incomplete is null.
    rec.received.clear();
    control.postData(R"({"id":"c"}#{"id":"d"})");
    control.postData(R"({"id":"e")");
    ASSERT_EQ(rec.received.size(), 3u);
    EXPECT_EQ(messageId(rec.received[1]), "d");
    EXPECT_FALSE(rec.received[2].isValid());

    // Empty pieces are skipped: 100 KB of "#" (in 1024-byte chunks) posts nothing.
    rec.received.clear();
    for (int i = 0; i < 100; ++i) control.postData(QByteArray(1024, '#'));
    EXPECT_TRUE(rec.received.empty());

    // Heartbeat replies are consumed, never posted.
    control.postData(R"({"id":"id_heartbeat"}#{"id":"id_heartbeat","property":{"timestamp":"old"}}#)");
    EXPECT_TRUE(rec.received.empty());
}

TEST(NetControl, BadInputIsPostedAsNullOrDroppedWithALogLine)
{
    NetControl control;
    Recorder rec;
    LogCapture logs;
    // Not valid UTF-8: the whole chunk yields nothing.
    control.postData(QByteArray(R"({"id":"a"}#{"id":")") + "\xE5\xAE" /* cut character */);
    control.postData("\xFF\xFE{}#");
    EXPECT_TRUE(rec.received.empty());
    EXPECT_EQ(logs.count("drop chunk"), 2);

    // Not JSON: posted as null after the log line.
    control.postData("not json#{\"id\":}#");
    ASSERT_EQ(rec.received.size(), 2u);
    EXPECT_FALSE(rec.received[0].isValid());
    EXPECT_EQ(logs.count("recive dic:(null)"), 2);

    // JSON that is not an object, or whose id is not a string: posted as parsed; observers
    // see no id.
    rec.received.clear();
    control.postData(R"([1,2]#{"id":7,"property":[]}#{"id":"x","property":"s"}#)");
    ASSERT_EQ(rec.received.size(), 3u);
    EXPECT_EQ(rec.received[0].typeId(), QMetaType::QVariantList);
    EXPECT_EQ(messageId(rec.received[1]), QString());
    EXPECT_TRUE(messageProperty(rec.received[2].toMap()).isEmpty());
    EXPECT_EQ(logs.count("recive dic:[1,2]"), 1);
}

TEST(NetControl, MessagesLongerThanOneChunkArriveAsNullHalves)
{
    Connected c;
    Recorder rec;
    const QByteArray message = R"({"id":"id_rename","property":{"name":")" + QByteArray(1500, 'n') + "\"}}#";
    c.peer.send(message);
    ASSERT_TRUE(waitUntil([&] { return rec.received.size() >= 2; }));
    velocast::test::spinFor(50ms);
    EXPECT_EQ(rec.received.size(), 2u);
    for (const QVariant &v : rec.received) EXPECT_FALSE(v.isValid());

    // A peer that never stops sending: every 1024-byte chunk is parsed and dropped on its
    // own; nothing accumulates.
    rec.received.clear();
    const QByteArray flood(1 << 20, 'z');
    std::thread sender([&] { c.peer.send(flood); });
    ASSERT_TRUE(waitUntil([&] { return rec.received.size() >= size_t(flood.size() / 1024); }, 20s));
    sender.join();
    for (const QVariant &v : rec.received) ASSERT_FALSE(v.isValid());
}

TEST(NetControl, PeerClosingPostsDisconnectOnce)
{
    Connected c;
    Recorder rec;
    LogCapture logs;
    c.peer.closeClient();
    ASSERT_TRUE(waitUntil([&] { return rec.disconnects == 1; }));
    velocast::test::spinFor(100ms);
    EXPECT_EQ(rec.disconnects, 1);
    EXPECT_EQ(rec.brokens, 0);
    EXPECT_EQ(logs.count("close connected"), 1);
    ASSERT_TRUE(c.control.stream());
    EXPECT_FALSE(c.control.stream()->isConnected()); // the stream object stays until the next close
}

TEST(NetControl, RefusedConnectGivesExactlyOneFalseFromTheSocketQueue)
{
    NetControl control;
    control.setControlPort(velocast::test::refusedPort());
    std::mutex m;
    std::vector<std::pair<bool, bool>> results; // (ok, on main thread)
    control.connect("127.0.0.1", [&](bool ok) {
        std::lock_guard lock(m);
        results.emplace_back(ok, QThread::currentThread() == QCoreApplication::instance()->thread());
    });
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(m);
        return !results.empty();
    }));
    // The cancel of the time-out is queued to the main thread; let it run.
    ASSERT_TRUE(waitUntil([&] { return control.pendingTimeouts() == 0; }));
    std::lock_guard lock(m);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_FALSE(results[0].first);
    EXPECT_FALSE(results[0].second);
}

TEST(NetControl, ConnectThatNeverCompletesFailsAfterFiveSeconds)
{
    velocast::test::HangingListener hanging;
    NetControl control;
    control.setControlPort(hanging.port());
    std::vector<bool> results;
    QElapsedTimer clock;
    clock.start();
    control.connect("127.0.0.1", [&](bool ok) { results.push_back(ok); });
    ASSERT_TRUE(waitUntil([&] { return !results.empty(); }, 10s));
    EXPECT_GE(clock.elapsed(), 4900) << "gave up before the connect time-out";
    EXPECT_EQ(results, std::vector<bool>{false});
    EXPECT_FALSE(control.stream()) << "the time-out closes the stream";
}

TEST(NetControl, HeartbeatsAreAnsweredOrTheReceiverIsDeclaredLost)
{
    MsgHeart::setTickInterval(50ms);
    Connected c;
    Recorder rec;
    c.control.startBeatHeart(true);
    ASSERT_TRUE(waitUntil([&] { return c.peer.heartbeatsReceived() >= 10; }));
    EXPECT_EQ(rec.brokens, 0);
    EXPECT_TRUE(rec.received.empty()) << "replies are consumed by the heartbeat";
    // The heartbeat itself, on the wire: envelope and a 64-bit timestamp.
    const QByteArray raw = c.peer.received();
    const QByteArray first = raw.left(raw.indexOf('#'));
    const QJsonObject beat = QJsonDocument::fromJson(first).object();
    EXPECT_EQ(beat.value("id").toString(), "id_heartbeat");
    EXPECT_EQ(beat.value("from").toInt(), 2);
    EXPECT_GT(beat.value("property").toObject().value("timestamp").toInteger(), 1600000000);

    c.peer.setAnswerHeartbeats(false);
    const int answered = c.peer.heartbeatsReceived();
    ASSERT_TRUE(waitUntil([&] { return rec.brokens == 1; }, 10s));
    // At most one reply was in flight when answering stopped; then seven unanswered
    // heartbeats and the loss on the eighth tick.
    const int unanswered = c.peer.heartbeatsReceived() - answered;
    EXPECT_GE(unanswered, 7);
    EXPECT_LE(unanswered, 8);
    EXPECT_TRUE(c.control.heart().isStoped());
    EXPECT_FALSE(c.control.stream()) << "the channel disconnects itself before posting";
    EXPECT_TRUE(c.peer.waitForClientClosed());
    velocast::test::spinFor(200ms);
    EXPECT_EQ(rec.brokens, 1);
    MsgHeart::setTickInterval(2s);
}

TEST(NetControl, SenderIdIsMadeOnceAndReplacedWhenNotAUsableString)
{
    NetControl::clearSenderIDCacheForTests();
    Preferences::remove(prefkey::UUIDS);
    const QString made = NetControl::senderID();
    EXPECT_TRUE(QRegularExpression("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$")
                    .match(made)
                    .hasMatch())
        << made.toStdString();
    EXPECT_EQ(Preferences::value(prefkey::UUIDS).toString(), made);
    Preferences::setValue(prefkey::UUIDS, "changed behind our back");
    EXPECT_EQ(NetControl::senderID(), made) << "cached for the rest of the process";

    NetControl::clearSenderIDCacheForTests();
    EXPECT_EQ(NetControl::senderID(), "changed behind our back") << "a stored string is used as is";

    for (const QVariant &bad : {QVariant(QString()), QVariant(QStringList{"a", "b"}), QVariant(42)}) {
        NetControl::clearSenderIDCacheForTests();
        Preferences::setValue(prefkey::UUIDS, bad);
        const QString replaced = NetControl::senderID();
        EXPECT_EQ(replaced.size(), 36);
        EXPECT_EQ(Preferences::value(prefkey::UUIDS).toString(), replaced);
    }
}

} // namespace
