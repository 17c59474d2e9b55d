// A measurement hook of the TCP client, in a header of its own so that programs built on Qt
// can use it (the client's header has a member named like Qt's emit macro).
#pragma once

#include <cstdint>

namespace velocast::push {

// Measurement hook (benchmarks): sees each record by its number, the n-th Send of its
// client counted from 0. queued() runs on the producer thread at the end of a Send that
// queued it; written() on the sender thread once its last byte went to the socket. While
// none is set, a record costs one atomic load at each point. The observer must outlive
// every client that may call it.
class RecordObserver {
public:
    virtual ~RecordObserver() = default;
    virtual void queued(uint32_t record) = 0;
    virtual void written(uint32_t record) = 0;
};
// Process-wide; null to stop.
void SetRecordObserver(RecordObserver *observer);

} // namespace velocast::push
