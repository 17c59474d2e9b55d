#include "control/msg_heart.h"

#include "support/test_support.h"

#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

using velocast::MsgHeart;
using namespace std::chrono_literals;

namespace {

const QVariantMap kReply{{"id", "id_heartbeat"}};

// A heartbeat driven by hand: records what it is asked to send and when it gives up.
struct ManualHeart {
    ManualHeart()
    {
        heart.setSendHeaert([this](uint64_t ts) { sent.push_back(ts); });
        heart.setHeartLost([this] { ++lost; });
    }
    MsgHeart heart;
    std::vector<uint64_t> sent;
    int lost = 0;
};

TEST(MsgHeart, LossIsReportedOnTheEighthTickAfterTheLastAnsweredOne)
{
    ManualHeart h;
    h.heart.timerAction(); // T0
    EXPECT_TRUE(h.heart.receviDic(kReply));
    std::vector<int64_t> counts;
    for (int tick = 1; tick <= 7; ++tick) {
        h.heart.timerAction();
        counts.push_back(h.heart.failedTimes());
        EXPECT_EQ(h.lost, 0) << "tick " << tick;
    }
    EXPECT_EQ(counts, (std::vector<int64_t>{0, 1, 2, 3, 4, 5, 6}));
    h.heart.timerAction(); // T8
    EXPECT_EQ(h.lost, 1);
    // A heartbeat still goes out on the tick that reports the loss.
    EXPECT_EQ(h.sent.size(), 9u);
    const auto now = uint64_t(std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::system_clock::now().time_since_epoch()).count());
    EXPECT_LE(h.sent.back(), now);
    EXPECT_GE(h.sent.back() + 5, now);
    EXPECT_EQ(h.heart.timestamp(), h.sent.back());
}

TEST(MsgHeart, RepliesAndRestartsResetTheCountAndOtherMessagesAreNotConsumed)
{
    ManualHeart h;
    for (int i = 0; i < 5; ++i) h.heart.timerAction();
    EXPECT_EQ(h.heart.failedTimes(), 4);
    // Not replies: left alone, counters untouched.
    for (const QVariant &v : {QVariant(), QVariant(QVariantList{kReply}), QVariant(QVariantMap{{"id", "id_rename"}}),
             QVariant(QVariantMap{{"id", 5}}), QVariant(QStringLiteral("id_heartbeat"))}) {
        EXPECT_FALSE(h.heart.receviDic(v));
    }
    EXPECT_EQ(h.heart.failedTimes(), 4);
    EXPECT_TRUE(h.heart.isSend());
    // A reply with an old or missing timestamp still counts.
    EXPECT_TRUE(h.heart.receviDic(QVariantMap{{"id", "id_heartbeat"}, {"property", QVariantMap{{"timestamp", 1}}}}));
    EXPECT_EQ(h.heart.failedTimes(), 0);
    EXPECT_FALSE(h.heart.isSend());

    // A restart resets the count and sends at once; the heartbeat still unanswered from before
    // counts as a failure on that first tick. Stopped, ticks are ignored.
    for (int i = 0; i < 4; ++i) h.heart.timerAction();
    EXPECT_EQ(h.heart.failedTimes(), 3);
    MsgHeart::setTickInterval(10s); // only the immediate first tick matters here
    h.heart.startHeart();
    EXPECT_EQ(h.heart.failedTimes(), 0);
    ASSERT_TRUE(velocast::test::waitUntil([&] { return h.sent.size() == 10; }, 2s));
    EXPECT_EQ(h.heart.failedTimes(), 1);
    h.heart.stopHeart();
    EXPECT_TRUE(h.heart.isStoped());
    h.heart.timerAction();
    EXPECT_EQ(h.sent.size(), 10u);
    MsgHeart::setTickInterval(2s);
}

// The timer belongs to the last heart started; a destroyed heart gets no more ticks.
TEST(MsgHeart, OneProcessWideTimerTicksOnTheMainThreadAndAnotherHeartTakesItOver)
{
    MsgHeart::setTickInterval(20ms);
    ManualHeart a;
    auto b = std::make_unique<ManualHeart>();
    std::vector<QThread *> threads;
    a.heart.setSendHeaert([&](uint64_t ts) {
        a.sent.push_back(ts);
        threads.push_back(QThread::currentThread());
    });
    a.heart.startHeart();
    ASSERT_TRUE(velocast::test::waitUntil([&] { return a.sent.size() >= 3; }, 5s));
    for (QThread *t : threads) EXPECT_EQ(t, QCoreApplication::instance()->thread());

    b->heart.startHeart();
    velocast::test::spinFor(30ms); // let a tick already queued for a land
    const size_t aBefore = a.sent.size();
    ASSERT_TRUE(velocast::test::waitUntil([&] { return b->sent.size() >= 3; }, 5s));
    EXPECT_EQ(a.sent.size(), aBefore) << "the first heartbeat lost the timer to the second";
    int bAfter = 0;
    b->heart.setSendHeaert([&](uint64_t) { ++bAfter; });
    b.reset();
    velocast::test::spinFor(100ms);
    EXPECT_EQ(bAfter, 0);
    EXPECT_EQ(a.sent.size(), aBefore);
    MsgHeart::setTickInterval(2s);
}

} // namespace
