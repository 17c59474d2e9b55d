#include "common/notification_center.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using velocast::NotificationCenter;
using velocast::Observation;

namespace {

TEST(NotificationCenter, DeliversSynchronouslyInOrderWithPayload)
{
    NotificationCenter center;
    std::vector<QString> seen;
    Observation a = center.addObserver("N", [&](const QVariant &v) { seen.push_back("a:" + v.toString()); });
    Observation b = center.addObserver("N", [&](const QVariant &v) { seen.push_back("b:" + v.toString()); });
    Observation other = center.addObserver("OTHER", [&](const QVariant &) { seen.push_back("other"); });
    center.post("N", QStringLiteral("x"));
    // Delivered before post() returned, in registration order, only to that name.
    EXPECT_EQ(seen, (std::vector<QString>{"a:x", "b:x"}));
}

TEST(NotificationCenter, ObserverGoesAwayWithItsObservation)
{
    NotificationCenter center;
    int calls = 0;
    {
        Observation o = center.addObserver("N", [&](const QVariant &) { ++calls; });
        center.post("N");
        EXPECT_EQ(center.observerCount("N"), 1);
    }
    center.post("N");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(center.observerCount("N"), 0);

    Observation moved;
    {
        Observation o = center.addObserver("N", [&](const QVariant &) { ++calls; });
        moved = std::move(o);
    }
    center.post("N");
    EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, ObserverMayRemoveItselfAndLaterOnesDuringDelivery)
{
    NotificationCenter center;
    Observation first, second;
    int firstCalls = 0, secondCalls = 0;
    first = center.addObserver("N", [&](const QVariant &) {
        ++firstCalls;
        first.reset();
        second.reset();
    });
    second = center.addObserver("N", [&](const QVariant &) { ++secondCalls; });
    center.post("N");
    center.post("N");
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 0);
}

TEST(NotificationCenter, ConcurrentPostAndRegistrationNeverCallsARemovedObserver)
{
    NotificationCenter center;
    std::atomic<bool> stop{false};
    std::atomic<int> delivered{0};
    std::vector<std::jthread> posters;
    for (int t = 0; t < 3; ++t) {
        posters.emplace_back([&] {
            while (!stop) center.post("N", 1);
        });
    }
    // At least 2000 rounds, and on until some delivery happened (a loaded machine may not
    // schedule the posters for a while); bounded in time all the same.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int i = 0; (i < 2000 || delivered == 0) && std::chrono::steady_clock::now() < deadline; ++i) {
        auto alive = std::make_shared<std::atomic<bool>>(true);
        Observation o = center.addObserver("N", [alive, &delivered](const QVariant &) {
            // Fails if a delivery runs after reset() returned.
            EXPECT_TRUE(alive->load());
            ++delivered;
        });
        std::this_thread::yield();
        o.reset();
        alive->store(false);
    }
    stop = true;
    posters.clear();
    EXPECT_EQ(center.observerCount("N"), 0);
    EXPECT_GT(delivered.load(), 0);
}

} // namespace
