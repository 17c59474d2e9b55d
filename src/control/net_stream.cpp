#include "control/net_stream.h"

#include "common/log.h"
#include "common/main_thread.h"
#include "common/serial_queue.h"

#include <QSocketNotifier>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velocast {

namespace {

// Owns one descriptor; closes it when the last holder lets go.
struct Fd {
    explicit Fd(int f) : fd(f) { }
    ~Fd()
    {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    const int fd;
};

void logf(const char *format, int value) { logLine(lcControl(), QString::asprintf(format, value)); }

// A blocking connect that closeStream() can interrupt: the socket waits in poll() together
// with the attempt's cancel eventfd. (shutdown() only wakes a connect that has already
// started; one racing just before connect() would block for the kernel's full SYN
// time-out, so it is not enough on its own.) Returns connect()'s 0 / -1.
int cancellableConnect(int fd, const sockaddr_in &addr, int cancelFd)
{
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd fds[2] = {{fd, POLLOUT, 0}, {cancelFd, POLLIN, 0}};
        int n;
        do {
            n = ::poll(fds, 2, -1);
        } while (n < 0 && errno == EINTR);
        if (n > 0 && !(fds[1].revents & POLLIN) && (fds[0].revents & (POLLOUT | POLLERR | POLLHUP))) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            rc = err == 0 ? 0 : -1;
            errno = err;
        } else {
            rc = -1;
            errno = ECANCELED;
        }
    }
    // Blocking again: the 3 s send time-out only applies to a blocking socket.
    fcntl(fd, F_SETFL, flags);
    return rc;
}

// Control writes never run on the caller's thread: a write to a receiver that stopped
// reading blocks for up to the 3 s send time-out, and the caller is usually the window's.
// One process-wide queue keeps every message in the order it was sent, and a close queued
// behind them lets the messages sent before it go out first.
SerialQueue &writeQueue()
{
    static SerialQueue queue("control write");
    return queue;
}

// Messages waiting on the write queue per connection, at most; more are dropped (logged).
constexpr int kMaxPendingWrites = 256;

} // namespace

// The connected socket as the write queue sees it.
struct NetStream::Writer {
    explicit Writer(std::shared_ptr<Fd> s) : socket(std::move(s)) { }
    std::shared_ptr<Fd> socket;
    std::atomic<int> pending{0};
    // Set once a write timed out: the peer stopped reading and the message on the wire was
    // cut, so nothing after it can be framed; later writes are skipped.
    std::atomic<bool> stuck{false};

    void write(const QByteArray &data)
    {
        if (stuck.load()) return;
        const ssize_t n = ::write(socket->fd, data.constData(), size_t(data.size()));
        if ((n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) || (n >= 0 && n < data.size())) {
            stuck.store(true);
            logLine(lcControl(), QStringLiteral("control stream: the receiver stopped reading; later messages are dropped"));
        }
    }
};

// One connection attempt: the socket and the eventfd that cancels its connect. Shared by
// the stream and the socket queue so neither closes a descriptor the other still uses.
struct NetStream::Attempt {
    Attempt() : socket(std::make_shared<Fd>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP))),
                cancel(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) { }
    void cancelConnect() const
    {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(cancel.fd, &one, sizeof one);
    }
    std::shared_ptr<Fd> socket;
    Fd cancel;
};

// Main-thread watchers of the connected socket. Lives and dies on the main thread.
struct NetStream::Link {
    explicit Link(std::shared_ptr<Fd> s) : socket(s), output(std::make_shared<Writer>(std::move(s))) { }
    ~Link()
    {
        // The notifiers may be the ones whose signal is being handled right now.
        for (QSocketNotifier *n : {reader, writer}) {
            if (!n) continue;
            n->setEnabled(false);
            n->deleteLater();
        }
    }
    std::shared_ptr<Fd> socket;
    std::shared_ptr<Writer> output; // what the write queue holds
    QSocketNotifier *reader = nullptr;
    QSocketNotifier *writer = nullptr;
};

std::shared_ptr<NetStream> NetStream::create()
{
    ::signal(SIGPIPE, SIG_IGN);
    return std::shared_ptr<NetStream>(new NetStream());
}

NetStream::NetStream() : socketQueue_(std::make_unique<SerialQueue>("socket queue")) { }

NetStream::~NetStream()
{
    logLine(lcControl(), QStringLiteral("net stream dealloc"));
    closeStream();
    // socketQueue_ joins its thread; a connect in progress was cancelled above.
}

void NetStream::createStreamWithHost(const QString &host, quint32 port, HandleBlock handle)
{
    {
        std::lock_guard lock(mutex_);
        handleBlock_ = std::move(handle);
    }
    std::weak_ptr<NetStream> weak = weak_from_this();
    socketQueue_->post([weak, host, port] { createSocketToHost(weak, host, port); });
}

// Any strong reference taken on the socket queue is let go of on the main thread: if it
// turned out to be the last one, the destructor (which joins the socket queue) must not
// run on the socket queue itself.
void NetStream::releaseOnMainThread(std::shared_ptr<NetStream> &&self)
{
    runOnMainThread([keep = std::move(self)] { });
}

// Socket queue.
void NetStream::createSocketToHost(const std::weak_ptr<NetStream> &weak, const QString &host, quint32 port)
{
    auto attempt = std::make_shared<Attempt>();
    QString local;
    {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard lock(self->mutex_);
            if (self->closed_) {
                releaseOnMainThread(std::move(self));
                return;
            }
            self->attempt_ = attempt;
            local = self->localIPStr_;
        }
        releaseOnMainThread(std::move(self));
    }
    const int fd = attempt->socket->fd;

    const int on = 1, idle = 10, interval = 2, count = 5;
    logf("set keepAlive opt : %d", setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on));
    logf("set keepIdle opt : %d", setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle));
    logf("set keepInterval opt : %d", setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval));
    logf("set keepCount opt : %d", setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count));
    const timeval sendTimeout{3, 0};
    logf("set timeo opt : %d", setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout));

    // Bind the local end to our own address; the kernel picks the port. A stale or empty
    // address fails here, is logged, and the attempt goes on unbound.
    sockaddr_in localAddr{};
    localAddr.sin_family = AF_INET;
    localAddr.sin_port = 0;
    localAddr.sin_addr.s_addr = inet_addr(local.toLatin1().constData());
    logf("bind socket : %d", ::bind(fd, reinterpret_cast<sockaddr *>(&localAddr), sizeof localAddr));

    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(quint16(port));
    remote.sin_addr.s_addr = inet_addr(host.toLatin1().constData());

    // Only the attempt is held while blocked, not the stream: dropping the stream
    // cancels the connect and the remaining steps do nothing.
    const int rc = cancellableConnect(fd, remote, attempt->cancel.fd);
    logf("connect socket: %d", rc);
    auto self = weak.lock();
    if (!self) return;

    if (rc == 0) {
        self->createStreamWithSock(attempt);
    } else {
        // On failure the descriptor stays with the stream until closeStream() or destruction.
        self->reportOutcome(false);
    }
    releaseOnMainThread(std::move(self));
}

// Socket queue; the watchers themselves are made on the main thread.
void NetStream::createStreamWithSock(std::shared_ptr<Attempt> attempt)
{
    std::weak_ptr<NetStream> weak = weak_from_this();
    runOnMainThread([weak, attempt] {
        auto self = weak.lock();
        if (!self) return;
        auto link = std::make_unique<Link>(attempt->socket);
        {
            std::lock_guard lock(self->mutex_);
            if (self->closed_ || self->attempt_ != attempt) return;
            // The watchers own the descriptor from now on.
            self->attempt_.reset();
        }
        const int fd = link->socket->fd;
        link->reader = new QSocketNotifier(fd, QSocketNotifier::Read);
        link->writer = new QSocketNotifier(fd, QSocketNotifier::Write);
        QObject::connect(link->reader, &QSocketNotifier::activated, link->reader, [weak] {
            if (auto s = weak.lock()) s->onReadable();
        });
        QObject::connect(link->writer, &QSocketNotifier::activated, link->writer, [weak] {
            if (auto s = weak.lock()) s->onWritable();
        });
        std::lock_guard lock(self->mutex_);
        self->link_ = std::move(link);
    });
}

void NetStream::reportOutcome(bool success)
{
    HandleBlock handle;
    {
        std::lock_guard lock(mutex_);
        handle = std::exchange(handleBlock_, nullptr);
    }
    if (handle) handle(success);
}

// Main thread: "space available" or "error occurred".
void NetStream::onWritable()
{
    int fd = -1;
    {
        std::lock_guard lock(mutex_);
        if (!link_) return;
        fd = link_->socket->fd;
        // Level-triggered: leaving it on would spin while the socket stays writable.
        link_->writer->setEnabled(false);
    }
    int err = 0;
    socklen_t len = sizeof err;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    if (err != 0) {
        reportOutcome(false);
        return;
    }
    connected_ = true;
    reportOutcome(true);
}

// Main thread: "bytes available", "end encountered" or "error occurred".
void NetStream::onReadable()
{
    int fd = -1;
    {
        std::lock_guard lock(mutex_);
        if (!link_) return;
        fd = link_->socket->fd;
    }
    char buf[kReadChunk];
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
        ReceiveBlock receive;
        {
            std::lock_guard lock(mutex_);
            receive = receiveDataBlock_;
        }
        if (receive) receive(QByteArray(buf, qsizetype(n)));
        return;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;

    ClosedBlock closed;
    {
        std::lock_guard lock(mutex_);
        // Stop watching the read side either way: end of stream stays readable, and so
        // does a socket error (which is left to the heartbeat to notice).
        if (link_ && link_->reader) link_->reader->setEnabled(false);
        if (n == 0) {
            connected_ = false;
            closed = closedBlock_;
        }
    }
    if (n == 0) {
        if (closed) closed();
    } else {
        reportOutcome(false);
    }
}

void NetStream::sendData(const QByteArray &data)
{
    std::shared_ptr<Writer> writer;
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || !link_) return;
        writer = link_->output;
    }
    if (writer->pending.fetch_add(1) >= kMaxPendingWrites) {
        writer->pending.fetch_sub(1);
        logLine(lcControl(), QStringLiteral("control stream: %1 messages wait to be written; one of %2 bytes is dropped")
                                 .arg(kMaxPendingWrites).arg(data.size()));
        return;
    }
    // One write, not retried: control messages are small and a stuck peer is bounded by
    // the send time-out.
    writeQueue().post([writer, data] {
        writer->write(data);
        writer->pending.fetch_sub(1);
    });
}

void NetStream::closeStream()
{
    std::shared_ptr<Attempt> attempt;
    std::unique_ptr<Link> link;
    {
        std::lock_guard lock(mutex_);
        connected_ = false;
        handleBlock_ = nullptr;
        closed_ = true;
        attempt = std::move(attempt_);
        link = std::move(link_);
    }
    if (attempt) attempt->cancelConnect(); // the socket queue lets go of its copy when it wakes
    if (link) {
        // Behind the messages already sent; the descriptor itself is closed when the last
        // holder lets go.
        writeQueue().post([socket = link->socket] { ::shutdown(socket->fd, SHUT_RDWR); });
        dropLink(std::move(link));
    }
}

int NetStream::pendingWrites() const
{
    std::lock_guard lock(mutex_);
    return link_ ? link_->output->pending.load() : 0;
}

void NetStream::dropLink(std::unique_ptr<Link> link)
{
    if (isMainThread()) {
        link.reset();
    } else {
        runOnMainThread([l = std::shared_ptr<Link>(std::move(link))] { });
    }
}

int NetStream::sock() const
{
    std::lock_guard lock(mutex_);
    return attempt_ ? attempt_->socket->fd : 0;
}

QString NetStream::localIPStr() const
{
    std::lock_guard lock(mutex_);
    return localIPStr_;
}

void NetStream::setLocalIPStr(const QString &ip)
{
    std::lock_guard lock(mutex_);
    localIPStr_ = ip;
}

void NetStream::setReceiveDataBlock(ReceiveBlock block)
{
    std::lock_guard lock(mutex_);
    receiveDataBlock_ = std::move(block);
}

void NetStream::setClosedBlock(ClosedBlock block)
{
    std::lock_guard lock(mutex_);
    closedBlock_ = std::move(block);
}

bool NetStream::hasPendingOutcome() const
{
    std::lock_guard lock(mutex_);
    return static_cast<bool>(handleBlock_);
}

} // namespace velocast
