// TCP client that carries encoded video to the receiver as "4CVA" records.
//
// Send() frames a record into a pooled buffer and queues it; a sender thread owned by the
// client writes the queue to the socket. When the sender falls behind, the pool's loss
// policy drops queued non-key frames: stale ones when a key frame arrives (purge), the
// oldest one when no buffer is free (overwrite).
//
// Threads: Open, Close and destruction on one controlling thread; Send on one producer
// thread (it may race with Close); the sender thread is internal.
#pragma once

#include "push/media_wire_format.h"
#include "push/net_client.h"
#include "push/que_buf.h"
#include "push/record_observer.h"
#include "push/socket.h"

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace velocast::push {

// Open
inline constexpr int32_t kOpenOk = 0;
inline constexpr int32_t kOpenAlreadyOpen = 1;
inline constexpr int32_t kOpenNoSocket = -1;
inline constexpr int32_t kOpenConnectFailed = -100;
// Send: a non-negative result below kSendOverwrote is the queued length.
inline constexpr int32_t kSendRefused = -1;
inline constexpr int32_t kSendQueueFull = -100;     // the frame was dropped: every queued record is a key record
inline constexpr int32_t kSendOverwrote = 0x100000; // queued in place of the oldest droppable record
inline constexpr int32_t kSendPurged = 0x2000000;   // + n: queued after n stale records were dropped
// Recv
inline constexpr int32_t kRecvNotConnected = -1;
inline constexpr int32_t kRecvWaitFailed = -101;
inline constexpr int32_t kRecvBadHeader = -102; // short header, or a body length beyond kMaxRecvBody
inline constexpr int32_t kRecvBodyFailed = -121;
// Close
inline constexpr int32_t kCloseOk = 0;
inline constexpr int32_t kCloseAlreadyClosing = 1;

inline constexpr int32_t kDefaultTimeoutMs = 86'400'000; // 24 hours, also the largest accepted
inline constexpr int32_t kConnectWaitMs = 3'000;
inline constexpr int32_t kSendBufferBytes = 32'768;
inline constexpr int32_t kPoolBuffers = 35;
inline constexpr int32_t kPoolBufferBytes = 0x14000; // 81,920
inline constexpr int32_t kMaxWritePiece = 8'192;
// Largest body Recv accepts; the length comes from the network, so it needs a cap.
inline constexpr int32_t kMaxRecvBody = 16 * 1024 * 1024;
// Largest payload Send accepts (the record length must fit in an int32).
inline constexpr int32_t kMaxSendPayload = INT32_MAX - int32_t(wire::kRecordHeaderSize);

// The loss policy's test on a queued record: discardable unless its payload is at least 17
// bytes long and begins (behind a 4-byte start code) with an IDR slice, an SPS or a PPS.
// A record too short to hold the bytes looked at is discardable.
bool IsDiscardableRecord(const CQueBuf &record);

class CTcpClient final : public CNetClientIfc {
public:
    CTcpClient();
    // Closes (event 6), joins the sender thread, then releases every buffer. Must not run on
    // the sender thread, i.e. not from the client's own event callback.
    ~CTcpClient() override;
    CTcpClient(const CTcpClient &) = delete;
    CTcpClient &operator=(const CTcpClient &) = delete;

    // Connects to ip:port (dotted IPv4 text) waiting at most kConnectWaitMs, then starts the
    // sender thread. 0 connected; 1 when not idle (only the callback is replaced); -100 the
    // connection failed; -1 no socket. A pending connect counts as made as soon as the socket
    // turns writable; the socket error is not looked at, so a connection refused at that
    // point only shows on the sender's first write, which closes the client.
    int32_t Open(const char *ip, uint32_t port, INetClientCallBack *callback) override;
    // Stops the sender (waits up to 100 ms for it to finish its record), closes and joins it.
    // 1 if a close already happened (the broken connection or an earlier Close), else 0.
    int32_t Close() override;
    bool IsConnected() const override;
    // Receive time-out for Recv; stores and returns min(ms, kDefaultTimeoutMs).
    int32_t SetTimeout(int32_t ms) override;
    // Reads one 24-byte header and its body. Not used by the push path, which never reads
    // from the receiver. Same thread as Open/Close.
    int32_t Recv() override;
    // Queues header24 (24 bytes) followed by length payload bytes as one record. Never blocks.
    // Returns length, kSendPurged + n, kSendOverwrote, kSendQueueFull or kSendRefused (not
    // connected, closing, length < 1 or > kMaxSendPayload, null data, out of memory).
    int32_t Send(const void *header24, const void *payload, int32_t length) override;
    const uint8_t *RecvHeader() const override;
    const uint8_t *RecvBody() const override;
    int32_t RecvBodyLength() const override;
    CQueBuf &RecvBodyBuffer() override;

    int32_t State() const { return state_.load(); }
    uint32_t OverwriteCount() const { return overwriteCount_.load(); }
    // Queue counts, for logs and tests.
    int64_t FreeCount() const { return pool_.FreeCount(); }
    int64_t PendingCount() const { return pool_.PendingCount(); }
    const CQueBufPool &Pool() const { return pool_; }

    static constexpr int32_t kStateIdle = 0;
    static constexpr int32_t kStateConnecting = 1;
    static constexpr int32_t kStateConnected = 2;

private:
    void closeInternal();
    void emit(int32_t event);
    bool waitForConnect(int32_t timeoutMs);
    int32_t waitReadable(int32_t timeoutMs);
    void senderMain();
    // Writes one record; false if it could not be written completely (error or closing).
    bool writeRecord(const CQueBuf &record);
    void releaseFirstOwnedBuffers();
    void joinSender();

    std::atomic<int32_t> state_{kStateIdle};
    Socket socket_;
    std::atomic<INetClientCallBack *> callback_{nullptr};
    std::atomic<int32_t> timeoutMs_{kDefaultTimeoutMs};
    CQueBuf headerBuffer_;
    CQueBuf bodyBuffer_;
    bool threadStarted_ = false; // guarded by closeMutex_; cleared by the first close after a start
    bool threadCreated_ = false; // guarded by closeMutex_; until the sender is joined
    CQueBufPool pool_;
    std::atomic<bool> closing_{false};
    std::atomic<bool> senderExited_{false};
    std::atomic<uint32_t> packetNo_{0};
    std::atomic<uint32_t> overwriteCount_{0};
    // Progress of the record being written; sender thread only.
    int32_t sentBytes_ = 0;
    int32_t currentLength_ = 0;

    // Serialises internal closes (the sender thread and the controlling thread may both
    // close) and guards the thread handle, the socket's lifetime and the buffers.
    std::mutex closeMutex_;
    std::condition_variable senderExitedCond_;
    std::mutex joinMutex_; // one joiner at a time
    // Every pool buffer this client made. The pool's lists only point at them, and a released
    // buffer is taken out of the pool before it is destroyed here.
    std::vector<std::unique_ptr<CQueBuf>> buffers_;
    // Lets the sender thread run only after Open reported event 5.
    std::atomic<bool> senderGo_{false};
    std::jthread sender_; // last: joined before the state above goes away
};

// Builds a "4CVA" record header and sends it with payload. -1 if client is null, -2 if it
// is not connected, otherwise Send's result.
int32_t SendVideo(CNetClientIfc *client, uint64_t timestamp, uint16_t keyFlag, uint16_t subStream,
                  const void *payload, int32_t length);
// Same for the "1CAA" audio record (word goes to offset 8). Audio travels over UDP; this
// record is defined for receivers that take it over TCP.
int32_t SendAudioTcp(CNetClientIfc *client, uint64_t word, const void *payload, int32_t length);

inline constexpr int32_t kSendVideoNoClient = -1;
inline constexpr int32_t kSendVideoNotConnected = -2;

} // namespace velocast::push
