#include "push/push_log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace velocast::push {

namespace {
std::atomic<LogSinkFn> &sinkSlot()
{
    static std::atomic<LogSinkFn> sink{nullptr};
    return sink;
}
} // namespace

void SetLogSink(LogSinkFn sink) { sinkSlot().store(sink, std::memory_order_release); }

bool LogEnabled() { return sinkSlot().load(std::memory_order_acquire) != nullptr; }

void Log(int level, const char *format, ...)
{
    LogSinkFn sink = sinkSlot().load(std::memory_order_acquire);
    if (!sink)
        return;
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args); // truncates long lines, never overflows
    va_end(args);
    sink(level, line);
}

void LogHexDump(const uint8_t *data, size_t size, size_t limit)
{
    if (!sinkSlot().load(std::memory_order_acquire) || !data)
        return;
    const size_t n = std::min(size, limit);
    for (size_t row = 0; row < n; row += 16) {
        char line[16 * 3 + 1] = {};
        size_t pos = 0;
        for (size_t i = row; i < std::min(n, row + 16); ++i)
            pos += size_t(std::snprintf(line + pos, sizeof line - pos, "%02x ", data[i]));
        Log(kLogLevel, "%s\n", line);
    }
}

} // namespace velocast::push
