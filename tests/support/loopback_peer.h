#pragma once

#include <QByteArray>
#include <QList>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace velocast::test {

// A scripted receiver on 127.0.0.1 for control-channel tests: accepts one connection at a
// time on an ephemeral port, records everything it reads, and writes what it is told to.
// It reassembles "#"-framed messages across reads (as a receiver must) and can answer
// each "id_heartbeat" with a reply of its own. All methods are thread-safe.
class LoopbackPeer {
public:
    LoopbackPeer();
    ~LoopbackPeer();

    uint16_t port() const { return port_; }
    bool waitForClient(int timeoutMs = 5000) const { return waitFor([this] { return clientFd_ >= 0; }, timeoutMs); }
    // Raw bytes read so far on the current connection.
    QByteArray received() const { return locked(received_); }
    // Complete "#"-terminated messages read so far (without the "#").
    QList<QByteArray> messages() const { return locked(messages_); }
    int heartbeatsReceived() const { return locked(heartbeats_); }
    bool waitForMessages(int count, int timeoutMs = 5000) const
    {
        return waitFor([&] { return messages_.size() >= count; }, timeoutMs);
    }
    // True once the client closed its end (read returned 0 or failed).
    bool waitForClientClosed(int timeoutMs = 5000) const { return waitFor([this] { return clientClosed_; }, timeoutMs); }

    void send(const QByteArray &bytes);
    void setAnswerHeartbeats(bool answer) { answerHeartbeats_ = answer; }
    void closeClient();

private:
    void run();
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
    int wakeFd_ = -1;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int clientFd_ = -1;
    bool clientClosed_ = false;
    QByteArray received_;
    QByteArray pending_;
    QList<QByteArray> messages_;
    int heartbeats_ = 0;
    std::atomic<bool> answerHeartbeats_{true};
    std::atomic<bool> stop_{false};
    std::jthread thread_;
};

// A port on 127.0.0.1 where nothing listens (bound then closed).
uint16_t refusedPort();

// A listener on 127.0.0.1 whose accept queue is already full: connects to it hang in
// SYN_SENT until they time out, without any packet leaving this machine.
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
