// The push engine's log sink.
//
// The engine logs fixed texts at fixed points (connection progress, queue pressure, the
// first frames of a connection) but by default throws every line away: the engine runs on
// encoder callback threads where writing to a log would cost more than the frame. A sink
// can be installed to see the lines (tests do, and so can a debugging session).
#pragma once

#include <cstddef>
#include <cstdint>

namespace velocast::push {

inline constexpr int kLogLevel = 1; // the engine logs everything at this one level

// Receives one formatted line. Called on whatever thread logs (the caller of the push API,
// the sender thread); must be thread-safe and must not call back into the engine.
using LogSinkFn = void (*)(int level, const char *text);

// nullptr (the default) discards. Safe to call from any thread.
void SetLogSink(LogSinkFn sink);

// True when a sink is installed: callers skip preparing what nobody would read.
bool LogEnabled();

// printf-style. Costs one atomic load when no sink is installed.
void Log(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Logs the first min(size, limit) bytes as hex, 16 to a line. data may be null when size is 0.
void LogHexDump(const uint8_t *data, size_t size, size_t limit = 32);

} // namespace velocast::push
