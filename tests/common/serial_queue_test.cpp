#include "common/serial_queue.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <future>
#include <numeric>
#include <pthread.h>

namespace {

TEST(SerialQueue, RunsTasksInOrderOnOneNamedThread)
{
    velocast::SerialQueue q("socket queue");
    std::vector<int> order, expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    std::promise<std::string> name;
    for (int i : expected) q.post([&order, i] { order.push_back(i); });
    q.post([&] {
        char buf[32] = {};
        pthread_getname_np(pthread_self(), buf, sizeof buf);
        EXPECT_TRUE(q.isCurrent());
        name.set_value(buf);
    });
    EXPECT_EQ(name.get_future().get(), "socket queue");
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(q.isCurrent());
}

} // namespace
