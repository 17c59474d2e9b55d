#include "control/net_stream.h"

#include "common/log.h"
#include "support/loopback_peer.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

using velocast::NetStream;
using velocast::test::LoopbackPeer;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Outcomes of one attempt, with the name of the thread each came on.
struct Outcomes {
    std::mutex mutex;
    std::vector<std::pair<bool, std::string>> list;
    NetStream::HandleBlock block()
    {
        return [this](bool ok) {
            char name[32] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            std::string thread = QThread::currentThread() == QCoreApplication::instance()->thread() ? "main" : name;
            std::lock_guard lock(mutex);
            list.emplace_back(ok, thread);
        };
    }
    size_t size()
    {
        std::lock_guard lock(mutex);
        return list.size();
    }
};

TEST(NetStream, RefusedConnectGivesOneFalseFromTheSocketQueue)
{
    Outcomes outcomes;
    auto stream = NetStream::create();
    stream->setLocalIPStr("127.0.0.1");
    stream->createStreamWithHost("127.0.0.1", velocast::test::refusedPort(), outcomes.block());
    ASSERT_TRUE(waitUntil([&] { return outcomes.size() == 1; }));
    velocast::test::spinFor(100ms);
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_FALSE(outcomes.list[0].first);
    EXPECT_EQ(outcomes.list[0].second, "socket queue");
    EXPECT_FALSE(stream->isConnected());
    EXPECT_GT(stream->sock(), 0) << "a failed connect keeps its descriptor until closed";
    stream->closeStream();
    EXPECT_EQ(stream->sock(), 0);
    stream->closeStream(); // harmless twice
}

TEST(NetStream, ConnectsTunesTheSocketAndDeliversChunksOfAtMost1024Bytes)
{
    std::vector<QString> logs;
    std::mutex logMutex;
    auto previous = velocast::setLogTap([&](const char *, const QString &t) {
        std::lock_guard lock(logMutex);
        logs.push_back(t);
    });
    LoopbackPeer peer;
    Outcomes outcomes;
    std::vector<QByteArray> chunks;
    int closed = 0;
    auto stream = NetStream::create();
    stream->setLocalIPStr("127.0.0.1");
    stream->setReceiveDataBlock([&](const QByteArray &c) { chunks.push_back(c); });
    stream->setClosedBlock([&] { ++closed; });
    stream->createStreamWithHost("127.0.0.1", peer.port(), outcomes.block());
    ASSERT_TRUE(waitUntil([&] { return outcomes.size() == 1; }));
    EXPECT_TRUE(outcomes.list[0].first);
    EXPECT_EQ(outcomes.list[0].second, "main");
    EXPECT_TRUE(stream->isConnected());
    velocast::setLogTap(previous);
    {
        std::lock_guard lock(logMutex);
        for (const char *line : {"set keepAlive opt : 0", "set keepIdle opt : 0", "set keepInterval opt : 0",
                 "set keepCount opt : 0", "set timeo opt : 0", "bind socket : 0", "connect socket: 0"}) {
            EXPECT_NE(std::find(logs.begin(), logs.end(), QString::fromLatin1(line)), logs.end()) << line;
        }
    }

    ASSERT_TRUE(peer.waitForClient());
    const QByteArray big(3000, 'x');
    peer.send(big);
    ASSERT_TRUE(waitUntil([&] {
        qsizetype n = 0;
        for (const auto &c : chunks) n += c.size();
        return n == big.size();
    }));
    EXPECT_GE(chunks.size(), 3u); // one read of at most 1024 bytes per event, no reassembly
    for (const auto &c : chunks) EXPECT_LE(c.size(), 1024);

    stream->sendData("hello#");
    ASSERT_TRUE(peer.waitForMessages(1));
    EXPECT_EQ(peer.messages().value(0), "hello");

    // The peer ends the stream: told once, no longer connected, sends go nowhere.
    peer.closeClient();
    ASSERT_TRUE(waitUntil([&] { return closed == 1; }));
    EXPECT_FALSE(stream->isConnected());
    velocast::test::spinFor(100ms);
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(outcomes.size(), 1u) << "end of stream is not an outcome";
    stream->sendData("dropped#");
    stream->closeStream();
    stream->closeStream();
}

TEST(NetStream, CloseOrDropDuringAConnectReportsNothingAndDoesNotHang)
{
    velocast::test::HangingListener hanging;
    Outcomes outcomes;
    {
        auto stream = NetStream::create();
        stream->createStreamWithHost("127.0.0.1", hanging.port(), outcomes.block());
        velocast::test::spinFor(50ms); // the connect is now blocked
        stream->closeStream();
    }
    {
        // Dropped without a close while blocked: destruction cancels the connect.
        auto stream = NetStream::create();
        stream->createStreamWithHost("127.0.0.1", hanging.port(), outcomes.block());
        velocast::test::spinFor(50ms);
    }
    {
        // Closed before the socket queue even started.
        auto stream = NetStream::create();
        stream->createStreamWithHost("127.0.0.1", hanging.port(), outcomes.block());
        stream->closeStream();
    }
    velocast::test::spinFor(100ms);
    EXPECT_EQ(outcomes.size(), 0u);
}

TEST(NetStream, CloseRightAfterStartAgainstALivePeerReportsNothing)
{
    LoopbackPeer peer;
    Outcomes outcomes;
    auto stream = NetStream::create();
    stream->createStreamWithHost("127.0.0.1", peer.port(), outcomes.block());
    stream->closeStream();
    velocast::test::spinFor(200ms);
    EXPECT_EQ(outcomes.size(), 0u);
    EXPECT_FALSE(stream->isConnected());
}

TEST(NetStream, AStaleLocalAddressOnlyFailsTheBind)
{
    LoopbackPeer peer;
    Outcomes outcomes;
    std::vector<QString> logs;
    std::mutex logMutex;
    auto previous = velocast::setLogTap([&](const char *, const QString &t) {
        std::lock_guard lock(logMutex);
        logs.push_back(t);
    });
    auto stream = NetStream::create();
    stream->setLocalIPStr("192.0.2.77"); // not an address of this machine: bind fails, nothing is sent there
    stream->createStreamWithHost("127.0.0.1", peer.port(), outcomes.block());
    ASSERT_TRUE(waitUntil([&] { return outcomes.size() == 1; }));
    velocast::setLogTap(previous);
    EXPECT_TRUE(outcomes.list[0].first);
    std::lock_guard lock(logMutex);
    EXPECT_NE(std::find(logs.begin(), logs.end(), QStringLiteral("bind socket : -1")), logs.end());
}

} // namespace
