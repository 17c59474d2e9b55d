#include "push/rate_limiter.h"

#include <sys/time.h>

namespace velocast::push {

int64_t WallClockMs()
{
    timeval now {};
    gettimeofday(&now, nullptr);
    return int64_t(now.tv_sec) * 1000 + int64_t(now.tv_usec) / 1000;
}

bool LogRateLimiter::Allow(int64_t intervalMs)
{
    const int64_t now = clock_();
    std::lock_guard lock(mutex_);
    const bool first = calls_ == 0;
    ++calls_;
    if (calls_ == 0) // wrapped: never read as a first call again
        calls_ = 1;
    if (!first && (intervalMs < 0 || now - lastMs_ < intervalMs))
        return false;
    lastMs_ = now;
    return true;
}

} // namespace velocast::push
