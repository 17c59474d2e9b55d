#include "support/loopback_peer.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
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
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::jthread([this] { run(); });
}

LoopbackPeer::~LoopbackPeer()
{
    stop_ = true;
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wakeFd_, &one, sizeof one);
    thread_.join();
    if (clientFd_ >= 0) ::close(clientFd_);
    ::close(listenFd_);
    ::close(wakeFd_);
}

void LoopbackPeer::run()
{
    char buf[4096];
    while (!stop_) {
        int client;
        {
            std::lock_guard lock(mutex_);
            client = clientClosed_ ? -1 : clientFd_;
        }
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {client >= 0 ? client : listenFd_, POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0) continue;
        if (fds[0].revents) return;
        if (client < 0) {
            const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            std::lock_guard lock(mutex_);
            if (clientFd_ >= 0) ::close(clientFd_);
            clientFd_ = fd;
            clientClosed_ = false;
            received_.clear();
            pending_.clear();
            messages_.clear();
            heartbeats_ = 0;
            changed_.notify_all();
            continue;
        }
        const ssize_t n = ::read(client, buf, sizeof buf);
        std::unique_lock lock(mutex_);
        if (n <= 0) {
            clientClosed_ = true;
            changed_.notify_all();
            continue;
        }
        received_.append(buf, n);
        pending_.append(buf, n);
        qsizetype hash;
        QByteArray replies;
        while ((hash = pending_.indexOf('#')) >= 0) {
            const QByteArray message = pending_.left(hash);
            pending_.remove(0, hash + 1);
            const QJsonObject o = QJsonDocument::fromJson(message).object();
            if (o.value("id").toString() == QLatin1String("id_heartbeat")) {
                ++heartbeats_;
                if (answerHeartbeats_)
                    replies += R"({"id": "id_heartbeat", "property": {"timestamp": 0}}#)";
            } else {
                messages_.append(message);
            }
        }
        changed_.notify_all();
        lock.unlock();
        if (!replies.isEmpty()) [[maybe_unused]] ssize_t w = ::write(client, replies.constData(), size_t(replies.size()));
    }
}

void LoopbackPeer::send(const QByteArray &bytes)
{
    const int fd = locked(clientFd_);
    if (fd < 0) return;
    qsizetype off = 0;
    while (off < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + off, size_t(bytes.size() - off), MSG_NOSIGNAL);
        if (n <= 0) return;
        off += n;
    }
}

void LoopbackPeer::closeClient()
{
    std::lock_guard lock(mutex_);
    if (clientFd_ >= 0) ::shutdown(clientFd_, SHUT_RDWR);
}

} // namespace velocast::test
