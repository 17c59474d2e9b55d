#pragma once

#include <QByteArray>
#include <QList>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace velocast::test {

// A scripted receiver on 127.0.0.1 for control-channel tests: one connection at a time on an
// ephemeral port; records what it reads, reassembles "#"-framed messages across reads and
// answers each "id_heartbeat". Thread-safe.
class LoopbackPeer {
public:
    LoopbackPeer();
    ~LoopbackPeer();

    uint16_t port() const { return port_; }
    bool waitForClient(int timeoutMs = 5000) const { return waitFor([this] { return clientFd_ >= 0; }, timeoutMs); }
    QByteArray received() const { return locked(received_); } // raw bytes of the current connection
    QList<QByteArray> messages() const { return locked(messages_); } // without "#", heartbeats left out
    int heartbeatsReceived() const { return locked(heartbeats_); }
    bool waitForMessages(int count, int timeoutMs = 5000) const
    {
        return waitFor([&] { return messages_.size() >= count; }, timeoutMs);
    }
    void send(const QByteArray &bytes);
    void closeClient();

private:
    void run();
    void takeBytes(int fd, const char *bytes, ssize_t n); // what one read brought
    template <typename T>
    T locked(const T &value) const
    {
        std::lock_guard lock(mutex_);
        return value;
    }
    template <typename Pred>
    bool waitFor(Pred pred, int timeoutMs) const
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), pred);
    }

    int listenFd_ = -1;
    uint16_t port_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int clientFd_ = -1;
    bool stopped_ = false;
    QByteArray received_;
    QByteArray pending_;
    QList<QByteArray> messages_;
    int heartbeats_ = 0;
    std::jthread thread_;
};

// A port on 127.0.0.1 where nothing listens (bound then closed).
uint16_t refusedPort();

// A listener on 127.0.0.1 with a full accept queue: connects hang in SYN_SENT until they time
// out, and no packet leaves this machine.
class HangingListener {
public:
    HangingListener();
    ~HangingListener();
    HangingListener(const HangingListener &) = delete;
    HangingListener &operator=(const HangingListener &) = delete;
    uint16_t port() const { return port_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    std::vector<int> fillers_;
};

} // namespace velocast::test
