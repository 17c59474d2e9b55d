#pragma once

#include <QVariant>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace velocast {

// Decides whether the receiver is still there. While running it asks for one heartbeat
// every tick (2 s) and counts heartbeats sent while the previous one was unanswered; a
// tick that finds the count at 6 or more reports the receiver lost. With T0 the last tick
// answered in time, T1..T7 go out unanswered and T8 reports the loss: 16 s after T0.
//
// Ticks come from one process-wide timer on the main thread: only one heartbeat runs at a
// time, and starting another takes the timer over. The first tick comes at once.
// receviDic() is fed every parsed incoming message (main thread). Destroy on the main thread.
class MsgHeart {
public:
    using HeartLost = std::function<void()>;
    using SendHeaert = std::function<void(uint64_t timestamp)>;

    MsgHeart();
    ~MsgHeart();
    MsgHeart(const MsgHeart &) = delete;
    MsgHeart &operator=(const MsgHeart &) = delete;

    void startHeart();
    void stopHeart();
    // One tick (main thread).
    void timerAction();
    // Counts and sends one heartbeat.
    void sendHeart();
    // True when object is a heartbeat reply (a map whose "id" is "id_heartbeat"); the caller
    // must then consume it. Resets the count.
    bool receviDic(const QVariant &object);

    uint64_t timestamp() const;
    bool isSend() const;
    int64_t failedTimes() const;
    bool isStoped() const { return stoped_.load(); }
    void setHeartLost(HeartLost callback);
    void setSendHeaert(SendHeaert callback);

    // The tick period of the process-wide timer (2 s). Tests shorten it.
    static void setTickInterval(std::chrono::milliseconds interval);
    static std::chrono::milliseconds tickInterval();

private:
    void configEv();

    mutable std::mutex lock_; // guards timestamp_, isSend_, failedTimes_
    uint64_t timestamp_ = 0;
    bool isSend_ = false;
    int64_t failedTimes_ = 0;
    std::atomic<bool> stoped_{false};
    mutable std::mutex callbackLock_;
    HeartLost heartLost_;
    SendHeaert sendHeaert_;
    // Weak handle the process-wide timer uses to reach this object.
    std::shared_ptr<MsgHeart *> self_;
};

} // namespace velocast
