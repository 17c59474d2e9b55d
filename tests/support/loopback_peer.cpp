#include "support/loopback_peer.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace velocast::test {

namespace {
sockaddr_in loopback(uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}
} // namespace

uint16_t refusedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

HangingListener::HangingListener()
{
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
    ::listen(fd_, 0);
    socklen_t len = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
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
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a = loopback(0);
    ::bind(listenFd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
    ::listen(listenFd_, 4);
    socklen_t len = sizeof a;
    ::getsockname(listenFd_, reinterpret_cast<sockaddr *>(&a), &len);
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

bool LoopbackPeer::waitForClient(int timeoutMs)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return clientFd_ >= 0; });
}

QByteArray LoopbackPeer::received() const
{
    std::lock_guard lock(mutex_);
    return received_;
}

QList<QByteArray> LoopbackPeer::messages() const
{
    std::lock_guard lock(mutex_);
    return messages_;
}

int LoopbackPeer::heartbeatsReceived() const
{
    std::lock_guard lock(mutex_);
    return heartbeats_;
}

bool LoopbackPeer::waitForMessages(int count, int timeoutMs) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return messages_.size() >= count; });
}

bool LoopbackPeer::waitForHeartbeats(int count, int timeoutMs) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return heartbeats_ >= count; });
}

bool LoopbackPeer::waitForClientClosed(int timeoutMs) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return clientClosed_; });
}

void LoopbackPeer::send(const QByteArray &bytes)
{
    int fd;
    {
        std::lock_guard lock(mutex_);
        fd = clientFd_;
    }
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
