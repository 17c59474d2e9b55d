// Lets a log line through at most once per interval.
#pragma once

#include <cstdint>
#include <mutex>

namespace velocast::push {

// Wall clock in milliseconds (seconds × 1000 + microseconds / 1000).
int64_t WallClockMs();

class LogRateLimiter {
public:
    using ClockFn = int64_t (*)();

    explicit LogRateLimiter(ClockFn clock = WallClockMs) : clock_(clock) {}

    // The first call is allowed and starts the interval. A later call is refused when
    // intervalMs is negative or less than intervalMs has passed since the last allowed
    // call; otherwise it is allowed and starts a new interval. Thread-safe.
    bool Allow(int64_t intervalMs);

private:
    std::mutex mutex_;
    uint32_t calls_ = 0;
    int64_t lastMs_ = 0;
    ClockFn clock_;
};

} // namespace velocast::push
