#include "push/tcp_client.h"

#include "push/push_log.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

namespace velocast::push {

namespace {

constexpr int32_t kRecvHeaderBytes = int32_t(wire::kRecordHeaderSize);
constexpr int32_t kRecvBodyInitialBytes = 8'192;
// An idle sender sleeps until a record comes or the pool is stopped (Close and every
// failure path stop it, under the pool's lock, so the wake cannot be missed); the wait's end
// is only a safety net, not a poll.
constexpr int32_t kPopWaitMs = 60'000;
constexpr int32_t kWritableWaitMs = 1;
constexpr int32_t kReadSliceMs = 5;
constexpr auto kCloseGrace = std::chrono::milliseconds(100);

// NAL unit types a purge or an overwrite must keep: IDR slice, SPS, PPS.
bool isKeyNalType(uint8_t nalHeader)
{
    const uint8_t type = nalHeader & 0x1F;
    return type == 5 || type == 7 || type == 8;
}

// A record's payload length as its header states it (not what the buffer holds).
int32_t statedPayloadLength(const CQueBuf &record)
{
    if (record.Length() - record.Offset() < int32_t(wire::kRecordHeaderSize))
        return 0;
    return int32_t(wire::le32(record.Data() + record.Offset() + 4));
}

std::atomic<RecordObserver *> recordObserver{nullptr};

} // namespace

void SetRecordObserver(RecordObserver *observer) { recordObserver.store(observer); }

bool IsDiscardableRecord(const CQueBuf &record)
{
    // Header (24 bytes), then the payload's start code (4 bytes), then the first NAL header.
    constexpr int32_t kFirstNalHeader = int32_t(wire::kRecordHeaderSize) + 4;
    const int32_t held = record.Length() - record.Offset();
    if (held < int32_t(wire::kRecordHeaderSize) || statedPayloadLength(record) < 17 || held <= kFirstNalHeader)
        return true;
    return !isKeyNalType(record.Data()[record.Offset() + kFirstNalHeader]);
}

CTcpClient::CTcpClient()
{
    headerBuffer_.Alloc(kRecvHeaderBytes);
    bodyBuffer_.Alloc(kRecvBodyInitialBytes);
}

CTcpClient::~CTcpClient()
{
    {
        std::lock_guard lock(closeMutex_);
        assert(!threadCreated_ || sender_.get_id() != std::this_thread::get_id());
    }
    closeInternal();
    joinSender();
    {
        std::lock_guard lock(closeMutex_);
        socket_.close();
    }
    pool_.Destroy();
    // buffers_ and the receive buffers go with the members; the sender no longer runs.
}

void CTcpClient::emit(int32_t event)
{
    if (INetClientCallBack *callback = callback_.load())
        callback->OnEvent(event);
}

int32_t CTcpClient::Open(const char *ip, uint32_t port, INetClientCallBack *callback)
{
    callback_.store(callback);
    if (state_.load() != kStateIdle)
        return kOpenAlreadyOpen;

    // A client closed before may still have its sender ending; it must be gone before the
    // socket and the buffers change.
    joinSender();
    {
        std::lock_guard lock(closeMutex_);
        socket_.close();
    }

    Socket sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock.isValid()) {
        Log(kLogLevel, "permission denied !");
        return kOpenNoSocket;
    }
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = ip ? inet_addr(ip) : INADDR_NONE;
    int nonBlocking = 1;
    ioctl(sock.fd(), FIONBIO, &nonBlocking);
    const int fd = sock.fd();
    {
        std::lock_guard lock(closeMutex_);
        socket_ = std::move(sock);
    }
    emit(kEventConnecting);

    bool connected = false;
    if (address.sin_addr.s_addr != INADDR_NONE) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
            state_ = kStateConnected; // no event 2 for an immediate connect
            connected = true;
        } else if (errno == EINPROGRESS || errno == EINTR) {
            Log(kLogLevel, "connecting.... \n");
            state_ = kStateConnecting;
            connected = waitForConnect(kConnectWaitMs);
            emit(connected ? kEventConnected : kEventConnectTimeout);
        }
        // Any other error is final at once: there is nothing to wait for.
    }
    if (!connected) {
        Log(kLogLevel, "connecting error \n");
        closeInternal();
        return kOpenConnectFailed;
    }

    // The queue, not the kernel, should hold the backlog, where the loss policy can act on
    // it: a small send buffer and no Nagle delay.
    int noDelay = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    int currentSendBuffer = 0;
    socklen_t optionLength = sizeof currentSendBuffer;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &currentSendBuffer, &optionLength);
    int sendBuffer = kSendBufferBytes;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);

    pool_.Init(kPoolBuffers);
    std::vector<CQueBuf *> fresh;
    {
        std::lock_guard lock(closeMutex_);
        for (int32_t i = 0; i < kPoolBuffers; ++i) {
            auto buffer = std::make_unique<CQueBuf>();
            buffer->Alloc(kPoolBufferBytes);
            fresh.push_back(buffer.get());
            buffers_.push_back(std::move(buffer));
        }
    }
    for (CQueBuf *buffer : fresh)
        pool_.PutFree(buffer);

    try {
        std::lock_guard lock(closeMutex_);
        sender_ = std::jthread([this] { senderMain(); });
        threadCreated_ = true;
        threadStarted_ = true;
    } catch (const std::system_error &) {
        Log(kLogLevel, "start thread error! \n");
        closeInternal();
        return kOpenNoSocket;
    }
    emit(kEventSenderStarted);
    // The sender may close the connection at once (a refused connect shows on its first
    // write); holding it until here keeps event 5 ahead of its event 6.
    senderGo_.store(true);
    senderGo_.notify_all();
    return kOpenOk;
}

bool CTcpClient::waitForConnect(int32_t timeoutMs)
{
    if (state_.load() != kStateConnecting)
        return false;
    pollfd entry {socket_.fd(), POLLOUT, 0};
    const int ready = ::poll(&entry, 1, timeoutMs);
    if (ready > 0) {
        // Writable, or failed (which a writability test also reports): both count as made.
        // The socket error is deliberately not read; a refused connect fails the first write.
        state_ = kStateConnected;
        return true;
    }
    if (ready == 0)
        return false;
    return state_.load() == kStateConnected;
}

int32_t CTcpClient::Close()
{
    {
        std::lock_guard lock(closeMutex_);
        if (closing_.load())
            return kCloseAlreadyClosing;
        closing_ = true;
    }
    // Wake an idle sender at once, then give a sender in the middle of a record a moment to
    // notice closing between its 1 ms waits.
    pool_.Stop();
    {
        std::unique_lock lock(closeMutex_);
        senderExitedCond_.wait_for(lock, kCloseGrace, [this] { return senderExited_.load() || !threadCreated_; });
    }
    closeInternal();
    joinSender();
    {
        std::lock_guard lock(closeMutex_);
        socket_.close();
    }
    return kCloseOk;
}

void CTcpClient::closeInternal()
{
    {
        std::lock_guard lock(closeMutex_);
        closing_ = true;
        state_ = kStateIdle;
    }
    pool_.Stop();
    emit(kEventClosed);

    std::lock_guard lock(closeMutex_);
    if (socket_.isValid()) {
        // While a sender thread exists the descriptor stays reserved (shut down, not closed)
        // until that thread is joined.
        if (threadCreated_)
            socket_.shutdown();
        else
            socket_.close();
    }
    if (threadStarted_) {
        threadStarted_ = false;
        releaseFirstOwnedBuffers();
    }
}

void CTcpClient::releaseFirstOwnedBuffers()
{
    // The first four owned buffers go at once; the rest stay until destruction. A buffer
    // that a thread holds right now is only taken out of circulation here and freed with
    // the others, so no thread is ever left with a pointer to freed memory.
    const std::vector<CQueBuf *> owners = pool_.Owners();
    const size_t count = std::min<size_t>(owners.size(), 4);
    for (size_t i = 0; i < count; ++i) {
        if (!pool_.Retire(owners[i]))
            continue;
        std::erase_if(buffers_, [&](const std::unique_ptr<CQueBuf> &b) { return b.get() == owners[i]; });
    }
}

void CTcpClient::joinSender()
{
    std::lock_guard joinLock(joinMutex_);
    {
        std::lock_guard lock(closeMutex_);
        if (!threadCreated_ || sender_.get_id() == std::this_thread::get_id())
            return;
    }
    sender_.join();
    std::lock_guard lock(closeMutex_);
    threadCreated_ = false;
}

bool CTcpClient::IsConnected() const { return state_.load() == kStateConnected; }

int32_t CTcpClient::SetTimeout(int32_t ms)
{
    const int32_t stored = std::min(ms, kDefaultTimeoutMs);
    timeoutMs_ = stored;
    return stored;
}

int32_t CTcpClient::Send(const void *header24, const void *payload, int32_t length)
{
    if (state_.load() != kStateConnected || length < 1 || closing_.load())
        return kSendRefused;
    if (!header24 || !payload || length > kMaxSendPayload)
        return kSendRefused;
    const auto *bytes = static_cast<const uint8_t *>(payload);

    const uint32_t packetNo = packetNo_.fetch_add(1);
    if (packetNo < 10) {
        Log(kLogLevel, "PacketNo: %d  len: %d", int(packetNo), int(length));
        LogHexDump(bytes, size_t(length));
    }

    int32_t result = length;
    if (length >= 17 && isKeyNalType(bytes[4])) {
        const int32_t dropped = pool_.Purge(IsDiscardableRecord);
        if (dropped > 0) {
            result = kSendPurged + dropped;
            Log(kLogLevel, "Purge pending frames: %d   que(%d %d)\n", int(dropped), int(pool_.FreeCount()),
                int(pool_.PendingCount()));
        }
    }

    CQueBuf *buffer = pool_.GetFree(0);
    if (!buffer) {
        buffer = pool_.TakeOldestIfDiscardable(0, IsDiscardableRecord);
        if (!buffer)
            return kSendQueueFull;
        Log(kLogLevel, "Buff-Full over-write frame-count: %d: in: %d erase: %d   que(%d %d)\n",
            int(overwriteCount_.load()), int(length), int(statedPayloadLength(*buffer)), int(pool_.FreeCount()),
            int(pool_.PendingCount()));
        overwriteCount_.fetch_add(1);
        result = kSendOverwrote;
    }

    const int32_t recordLength = length + int32_t(wire::kRecordHeaderSize);
    if (buffer->Alloc(recordLength) < 0) {
        pool_.PutFree(buffer);
        return kSendRefused;
    }
    buffer->SetOffset(0);
    buffer->SetLength(0);
    const int32_t capacity = buffer->Capacity();
    const int32_t headerBytes = std::min(int32_t(wire::kRecordHeaderSize), capacity);
    std::memcpy(buffer->Data(), header24, size_t(headerBytes));
    const int32_t payloadBytes = std::min(length, capacity - headerBytes);
    std::memcpy(buffer->Data() + headerBytes, bytes, size_t(payloadBytes));
    buffer->SetLength(headerBytes + payloadBytes);
    buffer->SetTag(packetNo);
    pool_.PutPending(buffer);
    if (RecordObserver *observer = recordObserver.load(std::memory_order_relaxed))
        observer->queued(packetNo);
    return result;
}

void CTcpClient::senderMain()
{
    senderGo_.wait(false);
    while (!closing_.load()) {
        CQueBuf *record = pool_.PopPending(kPopWaitMs);
        if (!record)
            continue; // the loop condition ends it when closing
        sentBytes_ = 0;
        currentLength_ = std::clamp(record->Length() - record->Offset(), 0, record->Capacity() - record->Offset());
        if (currentLength_ == 0) {
            pool_.PutFree(record);
            continue;
        }
        // From here on a failure abandons the record: it stays out of both lists and is
        // freed with the client.
        if (closing_.load() || !writeRecord(*record)) {
            closeInternal();
            break;
        }
        if (RecordObserver *observer = recordObserver.load(std::memory_order_relaxed))
            observer->written(record->Tag());
        pool_.PutFree(record);
    }
    {
        std::lock_guard lock(closeMutex_);
        closing_ = true;
        senderExited_ = true;
    }
    senderExitedCond_.notify_all();
}

bool CTcpClient::writeRecord(const CQueBuf &record)
{
    const uint8_t *data = record.Data() + record.Offset();
    const int fd = socket_.fd();
    while (sentBytes_ < currentLength_ && !closing_.load()) {
        // Short waits so that a close is noticed within a millisecond or so.
        pollfd entry {fd, POLLOUT, 0};
        const int ready = ::poll(&entry, 1, kWritableWaitMs);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        if (ready < 0)
            return false;
        const int32_t piece = std::min(currentLength_ - sentBytes_, kMaxWritePiece);
        // MSG_NOSIGNAL: a peer that went away must not raise SIGPIPE in a process that did
        // not ignore it; the failure shows as an error return.
        const ssize_t sent = ::send(fd, data + sentBytes_, size_t(piece), MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            continue;
        if (sent <= 0)
            return false;
        sentBytes_ += int32_t(sent);
    }
    return sentBytes_ >= currentLength_;
}

int32_t CTcpClient::waitReadable(int32_t timeoutMs)
{
    const int fd = socket_.fd();
    for (int32_t waited = 0; waited < timeoutMs;) {
        if (closing_.load())
            return -1;
        const int32_t slice = std::min(kReadSliceMs, timeoutMs - waited);
        pollfd entry {fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, slice);
        if (ready > 0)
            return 0;
        if (ready < 0 && errno != EINTR)
            return -1;
        waited += slice;
    }
    return -100;
}

int32_t CTcpClient::Recv()
{
    if (state_.load() != kStateConnected)
        return kRecvNotConnected;
    headerBuffer_.SetOffset(0);
    headerBuffer_.SetLength(0);
    bodyBuffer_.SetOffset(0);
    bodyBuffer_.SetLength(0);

    const int fd = socket_.fd();
    if (waitReadable(timeoutMs_.load()) != 0) {
        closeInternal();
        return kRecvWaitFailed;
    }
    const ssize_t got = ::recv(fd, headerBuffer_.Data(), size_t(kRecvHeaderBytes), 0);
    if (got < kRecvHeaderBytes) {
        closeInternal();
        return kRecvBadHeader;
    }
    headerBuffer_.SetLength(kRecvHeaderBytes);

    const int32_t bodyLength = int32_t(wire::le32(headerBuffer_.Data() + 4));
    if (bodyLength > kMaxRecvBody) {
        closeInternal();
        return kRecvBadHeader;
    }
    if (bodyLength <= 0)
        return 0;
    if (bodyBuffer_.Alloc(bodyLength) < 0) {
        closeInternal();
        return kRecvBodyFailed;
    }
    int32_t received = 0;
    while (received < bodyLength) {
        if (waitReadable(timeoutMs_.load()) != 0) {
            closeInternal();
            return kRecvBodyFailed;
        }
        const ssize_t n = ::recv(fd, bodyBuffer_.Data() + received, size_t(bodyLength - received), 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            continue;
        if (n <= 0) { // the peer closed or the read failed: waiting again would spin
            closeInternal();
            return kRecvBodyFailed;
        }
        received += int32_t(n);
        bodyBuffer_.SetLength(received);
    }
    return 0;
}

const uint8_t *CTcpClient::RecvHeader() const { return headerBuffer_.Data(); }

const uint8_t *CTcpClient::RecvBody() const { return bodyBuffer_.Data(); }

int32_t CTcpClient::RecvBodyLength() const { return bodyBuffer_.Length(); }

CQueBuf &CTcpClient::RecvBodyBuffer() { return bodyBuffer_; }

int32_t SendVideo(CNetClientIfc *client, uint64_t timestamp, uint16_t keyFlag, uint16_t subStream,
                  const void *payload, int32_t length)
{
    if (!client)
        return kSendVideoNoClient;
    if (!client->IsConnected())
        return kSendVideoNotConnected;
    uint8_t header[wire::kRecordHeaderSize];
    wire::writeVideoRecordHeader(header, {uint32_t(length), timestamp, keyFlag, subStream});
    return client->Send(header, payload, length);
}

int32_t SendAudioTcp(CNetClientIfc *client, uint64_t word, const void *payload, int32_t length)
{
    if (!client)
        return kSendVideoNoClient;
    if (!client->IsConnected())
        return kSendVideoNotConnected;
    uint8_t header[wire::kRecordHeaderSize];
    wire::writeAudioTcpRecordHeader(header, uint32_t(length), word);
    return client->Send(header, payload, length);
}

} // namespace velocast::push
