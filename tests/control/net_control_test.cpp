// The control channel (NetControl) and the stream under it (NetStream), against scripted
// loopback peers.
#include "control/net_control.h"

#include "common/notification_center.h"
#include "common/notification_names.h"
#include "support/log_recorder.h"
#include "support/loopback_peer.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QThread>

#include <gtest/gtest.h>

#include <pthread.h>

using namespace velocast;
using velocast::test::LoopbackPeer;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Records the received messages and disconnects posted while it lives.
struct Recorder {
    Recorder()
    {
        auto &c = NotificationCenter::defaultCenter();
        receive = c.addObserver(notice::NETCONTROL_RECEIVE, [this](const QVariant &v) { received.push_back(v); });
        disconnect = c.addObserver(notice::NETCONTROL_DISCONNECT, [this](const QVariant &) { ++disconnects; });
    }
    std::vector<QVariant> received;
    int disconnects = 0;
    Observation receive, disconnect;
};

int linesStartingWith(const velocast::test::LogRecorder &logs, const QString &prefix)
{
    const QStringList lines = logs.lines();
    return int(std::count_if(lines.begin(), lines.end(), [&](const QString &l) { return l.startsWith(prefix); }));
}

// Connect outcomes, each with the name of the thread it came on ("main" for the main thread).
struct Outcomes {
    std::mutex mutex;
    std::vector<std::pair<bool, std::string>> list;
    std::function<void(bool)> block()
    {
        return [this](bool ok) {
            char name[32] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            std::lock_guard lock(mutex);
            list.emplace_back(ok, QThread::currentThread() == QCoreApplication::instance()->thread() ? "main" : name);
        };
    }
    size_t size()
    {
        std::lock_guard lock(mutex);
        return list.size();
    }
};

// A channel connected to a scripted peer on loopback.
struct Connected {
    explicit Connected(const QString &localIp = "127.0.0.1")
    {
        control.setLocalIPStr(localIp);
        control.setControlPort(peer.port());
        control.connect("127.0.0.1", outcomes.block());
        EXPECT_TRUE(waitUntil([this] { return outcomes.size() == 1; }));
        EXPECT_EQ(outcomes.list, (std::vector<std::pair<bool, std::string>>{{true, "main"}}));
        EXPECT_TRUE(peer.waitForClient());
    }
    LoopbackPeer peer;
    NetControl control;
    Outcomes outcomes;
};

const QVariantMap kRename{{"id", "id_rename"}, {"property", QVariantMap{{"name", "客厅"}}}};

// What goes out: the envelope, indented JSON and "#"; through the notification as well; and
// nothing for what cannot be sent.
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

    velocast::test::LogRecorder logs;
    // Not a dictionary, or a value with no JSON form: nothing goes out.
    c.control.sendDic(QStringLiteral("id_rename"));
    c.control.sendDic(QVariantList{kRename});
    c.control.sendDic(QVariantMap{{"id", "x"}, {"property", QVariantMap{{"p", QPoint(1, 2)}}}});
    EXPECT_TRUE(NetControl::eventJsonWithDic(QVariant()).isNull());
    NotificationCenter::defaultCenter().post(notice::NETCONTROL_SEND, kRename);
    ASSERT_TRUE(c.peer.waitForMessages(2));
    velocast::test::spinFor(50ms);
    EXPECT_EQ(c.peer.messages().size(), 2);
    EXPECT_EQ(linesStartingWith(logs, "send json:{"), 1);

    // Not connected: dropped silently.
    c.control.closeStream();
    c.control.sendDic(kRename);
    EXPECT_EQ(c.peer.messages().size(), 2);
}

// Each chunk is cut at "#" on its own (no reassembly across chunks); every piece is posted
// as parsed (null when it is not JSON) and logged, except heartbeat replies (consumed by the
// heartbeat) and chunks that are not UTF-8.
TEST(NetControl, ChunksAreSplitAtHashAndEachPieceIsPostedAsParsed)
{
    const struct {
        QByteArray chunk;
        std::vector<QString> posted; // compact JSON, "null" for a piece that did not parse
        bool dropped = false;
    } cases[] = {
        {R"({"id":"a","property":{}}#{"id":"b","property":{"n":1}}#)",
            {R"({"id":"a","property":{}})", R"({"id":"b","property":{"n":1}})"}},
        {R"({"id":"c"}#{"id":"d"})", {R"({"id":"c"})", R"({"id":"d"})"}}, // the last piece needs no "#"
        {R"({"id":"e")", {"null"}},
        {QByteArray(1024, '#'), {}},
        {R"({"id":"id_heartbeat"}#{"id":"id_heartbeat","property":{"timestamp":"old"}}#)", {}},
        {"not json#{\"id\":}#", {"null", "null"}},
        {R"([1,2]#{"id":7,"property":[]}#)", {"[1,2]", R"({"id":7,"property":[]})"}},
        {QByteArray(R"({"id":"a"}#{"id":")") + "\xE5\xAE" /* cut character */, {}, true},
        {"\xFF\xFE{}#", {}, true},
    };
    NetControl control;
    for (const auto &c : cases) {
        Recorder rec;
        velocast::test::LogRecorder logs;
        control.postData(c.chunk);
        std::vector<QString> posted;
        for (const QVariant &v : rec.received) {
            const QJsonDocument doc = v.typeId() == QMetaType::QVariantList ? QJsonDocument(QJsonArray::fromVariantList(v.toList()))
                                                                            : QJsonDocument(QJsonObject::fromVariantMap(v.toMap()));
            posted.push_back(v.isValid() ? QString::fromUtf8(doc.toJson(QJsonDocument::Compact)) : "null");
        }
        EXPECT_EQ(posted, c.posted) << c.chunk.toStdString();
        EXPECT_EQ(linesStartingWith(logs, "recive dic:"), int(c.posted.size())) << c.chunk.toStdString();
        EXPECT_EQ(linesStartingWith(logs, "drop chunk"), c.dropped ? 1 : 0) << c.chunk.toStdString();
    }
}

// A peer that never stops sending: every 1024-byte chunk is parsed and dropped on its own;
// nothing accumulates.
TEST(NetControl, EndlessMessageArrivesAsNullChunks)
{
    Connected c;
    Recorder rec;
    const QByteArray flood(1 << 20, 'z');
    std::thread sender([&] { c.peer.send(flood); });
    ASSERT_TRUE(waitUntil([&] { return rec.received.size() >= size_t(flood.size() / 1024); }, 20s));
    sender.join();
    for (const QVariant &v : rec.received) ASSERT_FALSE(v.isValid());
}

// A stale local address (not one of this machine's: nothing is sent there) only fails the bind.
TEST(NetControl, ConnectTunesTheSocketAndPeerClosingPostsDisconnect)
{
    velocast::test::LogRecorder logs;
    Connected c("192.0.2.77");
    for (const char *line : {"set keepAlive opt : 0", "set keepIdle opt : 0", "set keepInterval opt : 0",
             "set keepCount opt : 0", "set timeo opt : 0", "bind socket : -1", "connect socket: 0"}) {
        EXPECT_EQ(logs.count(line), 1) << line;
    }
    Recorder rec;
    c.peer.closeClient();
    ASSERT_TRUE(waitUntil([&] { return rec.disconnects == 1; }));
    ASSERT_TRUE(c.control.stream());
    EXPECT_FALSE(c.control.stream()->isConnected()); // the stream object stays until the next close
    c.control.stream()->sendData("dropped#");
}

TEST(NetControl, RefusedConnectGivesExactlyOneFalseFromTheSocketQueue)
{
    NetControl control;
    control.setControlPort(velocast::test::refusedPort());
    Outcomes outcomes;
    control.connect("127.0.0.1", outcomes.block());
    ASSERT_TRUE(waitUntil([&] { return outcomes.size() == 1; }));
    // The cancel of the time-out is queued to the main thread; let it run.
    ASSERT_TRUE(waitUntil([&] { return control.pendingTimeouts() == 0; }));
    velocast::test::spinFor(100ms);
    EXPECT_EQ(outcomes.list, (std::vector<std::pair<bool, std::string>>{{false, "socket queue"}}));
    const auto stream = control.stream();
    ASSERT_TRUE(stream);
    EXPECT_FALSE(stream->isConnected());
    EXPECT_GT(stream->sock(), 0) << "a failed connect keeps its descriptor until closed";
    stream->closeStream();
    EXPECT_EQ(stream->sock(), 0);
    stream->closeStream(); // harmless twice
}

// Left alone, a connect that never completes times out: one false, the stream closed, and
// nothing from the abandoned attempt afterwards.
TEST(NetControl, ConnectThatNeverCompletesTimesOutOnce)
{
    velocast::test::HangingListener hanging;
    NetControl control;
    control.setControlPort(hanging.port());
    std::vector<bool> results;
    control.connect("127.0.0.1", [&](bool ok) { results.push_back(ok); });
    ASSERT_TRUE(waitUntil([&] { return !results.empty(); }, 10s));
    velocast::test::spinFor(200ms);
    EXPECT_EQ(results, std::vector<bool>{false});
    EXPECT_FALSE(control.stream()) << "the time-out closes the stream";
}

} // namespace
