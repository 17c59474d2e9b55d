#include "common/notification_center.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <thread>

using velocast::NotificationCenter;
using velocast::Observation;

namespace {

TEST(NotificationCenter, DeliversSynchronouslyInOrderUntilTheObservationEnds)
{
    NotificationCenter center;
    std::vector<QString> seen;
    Observation a = center.addObserver("N", [&](const QVariant &v) { seen.push_back("a:" + v.toString()); });
    Observation b = center.addObserver("N", [&](const QVariant &v) { seen.push_back("b:" + v.toString()); });
    Observation other = center.addObserver("OTHER", [&](const QVariant &) { seen.push_back("other"); });
    center.post("N", QStringLiteral("x"));
    // Delivered before post() returned, in registration order, only to that name.
    EXPECT_EQ(seen, (std::vector<QString>{"a:x", "b:x"}));

    // Ended by reset or by going out of scope, not by a move.
    a.reset();
    Observation moved = std::move(b);
    { Observation scoped = center.addObserver("N", [&](const QVariant &) { seen.push_back("scoped"); }); }
    seen.clear();
    center.post("N", QStringLiteral("y"));
    EXPECT_EQ(seen, (std::vector<QString>{"b:y"}));
    moved.reset();

    // An observer may end itself and later ones during a delivery.
    Observation first, second;
    first = center.addObserver("N", [&](const QVariant &) {
        seen.push_back("first");
        first.reset();
        second.reset();
    });
    second = center.addObserver("N", [&](const QVariant &) { seen.push_back("second"); });
    center.post("N");
    center.post("N");
    EXPECT_EQ(seen, (std::vector<QString>{"b:y", "first"}));
    EXPECT_EQ(center.observerCount("N"), 0);
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
    // 2000 rounds, and on until a delivery happened (a loaded machine may not schedule the posters).
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
