#include "support/loopback_peer.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velocast::test {

namespace {
// A TCP socket bound to an ephemeral port of 127.0.0.1, listening unless backlog is negative.
int loopbackSocket(int backlog, sockaddr_in *address)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    *address = sockaddr_in{};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(address), sizeof *address);
    if (backlog >= 0) ::listen(fd, backlog);
    socklen_t len = sizeof *address;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(address), &len);
    return fd;
}
} // namespace

uint16_t refusedPort()
{
    sockaddr_in a;
    ::close(loopbackSocket(-1, &a));
    return ntohs(a.sin_port);
}

HangingListener::HangingListener()
{
    sockaddr_in a;
    fd_ = loopbackSocket(0, &a);
    port_ = ntohs(a.sin_port);
    // Backlog 0 still queues one connection; a few more make sure the queue is full.
    for (int i = 0; i < 3; ++i) {
        fillers_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        ::connect(fillers_.back(), reinterpret_cast<sockaddr *>(&a), sizeof a);
    }
}

HangingListener::~HangingListener()
{
    for (int f : fillers_) ::close(f);
    ::close(fd_);
}

LoopbackPeer::LoopbackPeer()
{
    sockaddr_in a;
    listenFd_ = loopbackSocket(4, &a);
    port_ = ntohs(a.sin_port);
    thread_ = std::jthread([this] { run(); });
}

LoopbackPeer::~LoopbackPeer()
{
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        if (clientFd_ >= 0) ::shutdown(clientFd_, SHUT_RDWR); // ends a blocked read
    }
    ::shutdown(listenFd_, SHUT_RDWR); // ends a blocked accept
    thread_.join();
    if (clientFd_ >= 0) ::close(clientFd_);
    ::close(listenFd_);
}

void LoopbackPeer::run()
{
    char buf[4096];
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && errno == EINTR) continue;
        std::unique_lock lock(mutex_);
        if (fd < 0 || stopped_) {
            if (fd >= 0) ::close(fd);
            return;
        }
        if (clientFd_ >= 0) ::close(clientFd_);
        clientFd_ = fd;
        received_.clear();
        pending_.clear();
        messages_.clear();
        heartbeats_ = 0;
        changed_.notify_all();
        lock.unlock();
        for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);)
            if (n > 0) takeBytes(fd, buf, n);
    }
}

void LoopbackPeer::takeBytes(int fd, const char *bytes, ssize_t n)
{
    std::unique_lock lock(mutex_);
    received_.append(bytes, n);
    pending_.append(bytes, n);
    QByteArray replies;
    for (qsizetype hash; (hash = pending_.indexOf('#')) >= 0; pending_.remove(0, hash + 1)) {
        const QByteArray message = pending_.left(hash);
        if (QJsonDocument::fromJson(message).object().value("id").toString() != QLatin1String("id_heartbeat")) {
            messages_.append(message);
            continue;
        }
        ++heartbeats_;
        replies += R"({"id": "id_heartbeat", "property": {"timestamp": 0}}#)";
    }
    changed_.notify_all();
    lock.unlock();
    if (!replies.isEmpty()) ::send(fd, replies.constData(), size_t(replies.size()), MSG_NOSIGNAL);
}

void LoopbackPeer::send(const QByteArray &bytes)
{
    const int fd = locked(clientFd_);
    for (qsizetype off = 0, n = 0; fd >= 0 && off < bytes.size(); off += n) {
        n = ::send(fd, bytes.constData() + off, size_t(bytes.size() - off), MSG_NOSIGNAL);
        if (n <= 0) return;
    }
}

void LoopbackPeer::closeClient()
{
    std::lock_guard lock(mutex_);
    if (clientFd_ >= 0) ::shutdown(clientFd_, SHUT_RDWR);
}

} // namespace velocast::test
