#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace velocast {

class SerialQueue;

// One TCP connection from the sender to the receiver's control port: a byte pipe that
// knows nothing about messages.
//
// Threads: createStreamWithHost() returns at once; the socket is created, tuned, bound and
// connected (blocking) on this stream's "socket queue" thread. The connected socket is then
// watched on the main thread (the Qt event loop): received chunks (at most 1024 bytes per
// read), the outcome of the attempt and the peer's end of stream are reported there. A
// failed connect reports its outcome on the socket queue instead.
//
// Always owned through std::shared_ptr (see create()); queued work holds it weakly, so
// dropping the last reference while a connect is in progress cancels the connect and no
// outcome is reported. The last reference must not be dropped inside one of its own
// callbacks on a thread other than the main thread.
class NetStream : public std::enable_shared_from_this<NetStream> {
public:
    using ReceiveBlock = std::function<void(const QByteArray &chunk)>;
    using ClosedBlock = std::function<void()>;
    using HandleBlock = std::function<void(bool success)>;

    static constexpr int kReadChunk = 1024;

    // Also ignores SIGPIPE for the whole process: writing to a dead peer must not end it.
    static std::shared_ptr<NetStream> create();
    ~NetStream();
    NetStream(const NetStream &) = delete;
    NetStream &operator=(const NetStream &) = delete;

    // Starts the attempt; handle is told the first outcome, once, unless closeStream() comes first.
    void createStreamWithHost(const QString &host, quint32 port, HandleBlock handle);
    // Queues one write of the whole buffer when connected, dropped silently otherwise; returns
    // at once. The writes run in order on the process's "control write" thread, each bounded
    // by the 3 s send time-out. Any thread.
    void sendData(const QByteArray &data);
    // Tears the connection down; no outcome is reported afterwards. Messages sent before
    // still go out, then the socket is shut down. Safe to repeat, any thread.
    void closeStream();
    // Messages queued and not yet written (diagnostics and tests).
    int pendingWrites() const;

    bool isConnected() const { return connected_.load(); }
    // The descriptor while this object still owns it directly (before the watchers took
    // it over, or after a failed connect); 0 otherwise.
    int sock() const;

    QString localIPStr() const;
    void setLocalIPStr(const QString &ip);
    void setReceiveDataBlock(ReceiveBlock block);
    void setClosedBlock(ClosedBlock block);
    bool hasPendingOutcome() const;

private:
    struct Attempt;
    struct Link;
    struct Writer;
    NetStream();

    static void createSocketToHost(const std::weak_ptr<NetStream> &weak, const QString &host, quint32 port);
    static void releaseOnMainThread(std::shared_ptr<NetStream> &&self);
    void createStreamWithSock(std::shared_ptr<Attempt> attempt);
    void onWritable();
    void onReadable();
    void reportOutcome(bool success);
    void dropLink(std::unique_ptr<Link> link);

    mutable std::mutex mutex_;
    QString localIPStr_;
    ReceiveBlock receiveDataBlock_;
    ClosedBlock closedBlock_;
    HandleBlock handleBlock_;
    std::shared_ptr<Attempt> attempt_; // the socket until the watchers own it
    std::unique_ptr<Link> link_;       // main-thread watchers of the connected socket
    std::atomic<bool> connected_{false};
    bool closed_ = false;
    std::unique_ptr<SerialQueue> socketQueue_; // last: joined before the rest goes away
};

} // namespace velocast
