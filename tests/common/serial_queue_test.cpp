#include "common/serial_queue.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <future>
#include <pthread.h>

using velocast::SerialQueue;

namespace {

TEST(SerialQueue, RunsTasksInOrderOnOneNamedThread)
{
    SerialQueue q("socket queue");
    std::vector<int> order;
    std::promise<std::string> name;
    for (int i = 0; i < 100; ++i) q.post([&order, i] { order.push_back(i); });
    q.post([&] {
        char buf[32] = {};
        pthread_getname_np(pthread_self(), buf, sizeof buf);
        EXPECT_TRUE(q.isCurrent());
        name.set_value(buf);
    });
    EXPECT_EQ(name.get_future().get(), "socket queue");
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[size_t(i)], i);
    EXPECT_FALSE(q.isCurrent());
}

TEST(SerialQueue, DestructionJoinsTheRunningTask)
{
    std::atomic<int> ran{0};
    std::promise<void> started;
    std::promise<void> release;
    auto releaseFuture = release.get_future().share();
    {
        SerialQueue q("q");
        q.post([&] {
            started.set_value();
            releaseFuture.wait();
            ++ran;
        });
        for (int i = 0; i < 10; ++i) q.post([&] { ++ran; });
        started.get_future().wait();
        release.set_value();
    }
    // Destruction waited for the running task (the rest may or may not have run by then).
    EXPECT_GE(ran.load(), 1);
}

} // namespace
