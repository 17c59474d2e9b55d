// Abstract client of the push engine and the receiver of its connection events.
#pragma once

#include <cstdint>

namespace velocast::push {

class CQueBuf;

// Connection events passed to INetClientCallBack::OnEvent.
inline constexpr int32_t kEventConnecting = 1;      // about to connect
inline constexpr int32_t kEventConnected = 2;       // a pending connect completed in time
inline constexpr int32_t kEventConnectTimeout = 3;  // a pending connect did not complete
inline constexpr int32_t kEventSenderStarted = 5;   // the sender thread runs
inline constexpr int32_t kEventClosed = 6;          // the connection was closed (once per internal close)

class INetClientCallBack {
public:
    // Called on the thread that caused the event: Open's caller for 1, 2, 3 and 5; for 6 the
    // thread that closed (Close's caller, the destructor's, or the client's sender thread
    // when the connection broke). Must not destroy the client that reports it.
    virtual int32_t OnEvent(int32_t event) = 0;

protected:
    ~INetClientCallBack() = default;
};

class CNetClientIfc {
public:
    virtual ~CNetClientIfc() = default;

    // callback is not owned and must outlive the client (or be replaced by a later Open).
    virtual int32_t Open(const char *ip, uint32_t port, INetClientCallBack *callback) = 0;
    virtual int32_t Close() = 0;
    virtual bool IsConnected() const = 0;
    virtual int32_t SetTimeout(int32_t ms) = 0;
    virtual int32_t Recv() = 0;
    virtual int32_t Send(const void *header24, const void *payload, int32_t length) = 0;
    virtual const uint8_t *RecvHeader() const = 0;
    virtual const uint8_t *RecvBody() const = 0;
    virtual int32_t RecvBodyLength() const = 0;
    virtual CQueBuf &RecvBodyBuffer() = 0;
};

} // namespace velocast::push
