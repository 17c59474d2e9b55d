#include "control/msg_heart.h"

#include "common/lenient_value.h"
#include "common/main_thread.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

#include <chrono>

namespace velocast {

namespace {

// The process's single heartbeat timer, on the main thread, and the heartbeat that owns it.
class HeartTimer {
public:
    static HeartTimer &instance()
    {
        static HeartTimer t;
        return t;
    }

    void setCurrent(const std::shared_ptr<MsgHeart *> &heart)
    {
        std::lock_guard lock(mutex_);
        current_ = heart;
        ++generation_;
    }

    // Clears the current heartbeat only if it is still `heart`.
    void clearCurrent(const std::shared_ptr<MsgHeart *> &heart)
    {
        std::lock_guard lock(mutex_);
        if (current_.lock() == heart) {
            current_.reset();
            ++generation_;
        }
    }

    // Main thread. First tick at once, then every interval.
    void arm()
    {
        uint64_t generation;
        {
            std::lock_guard lock(mutex_);
            generation = generation_;
        }
        onMain([this, generation] {
            std::lock_guard lock(mutex_);
            if (generation != generation_ || current_.expired()) return; // stopped or taken over since
            QTimer *t = timer();
            t->start(0);
        });
    }

    void disarm()
    {
        uint64_t generation;
        {
            std::lock_guard lock(mutex_);
            generation = generation_;
        }
        onMain([this, generation] {
            std::lock_guard lock(mutex_);
            if (generation != generation_) return; // re-armed since
            if (timer_) timer_->stop();
        });
    }

    std::atomic<int64_t> intervalMs{2000};

private:
    template <typename F> static void onMain(F f)
    {
        if (isMainThread()) {
            f();
        } else {
            runOnMainThread(std::move(f));
        }
    }

    // Main thread, mutex_ held.
    QTimer *timer()
    {
        if (!timer_) {
            timer_ = new QTimer(QCoreApplication::instance());
            timer_->setTimerType(Qt::PreciseTimer);
            QObject::connect(timer_, &QTimer::timeout, timer_, [this] { tick(); });
        }
        return timer_;
    }

    void tick()
    {
        std::shared_ptr<MsgHeart *> heart;
        {
            std::lock_guard lock(mutex_);
            if (timer_->interval() != int(intervalMs.load())) timer_->setInterval(int(intervalMs.load()));
            heart = current_.lock();
        }
        // A tick that arrives after its heartbeat went away does nothing.
        if (heart) (*heart)->timerAction();
    }

    std::mutex mutex_;
    std::weak_ptr<MsgHeart *> current_;
    uint64_t generation_ = 0;
    QPointer<QTimer> timer_;
};

} // namespace

MsgHeart::MsgHeart() : self_(std::make_shared<MsgHeart *>(this)) { configEv(); }

MsgHeart::~MsgHeart()
{
    HeartTimer::instance().clearCurrent(self_);
    self_.reset();
}

void MsgHeart::configEv()
{
    // The counters' lock is a member made with the object; nothing else to set up.
}

void MsgHeart::startHeart()
{
    stoped_ = false;
    {
        // isSend_ is deliberately kept: if the previous session ended with a heartbeat
        // unanswered, the first tick of this one already counts a failure.
        std::lock_guard lock(lock_);
        failedTimes_ = 0;
    }
    HeartTimer::instance().setCurrent(self_);
    HeartTimer::instance().arm();
}

void MsgHeart::stopHeart()
{
    stoped_ = true;
    HeartTimer::instance().clearCurrent(self_);
    HeartTimer::instance().disarm();
}

void MsgHeart::timerAction()
{
    if (stoped_) return;
    HeartLost lost;
    {
        std::lock_guard lock(callbackLock_);
        lost = heartLost_;
    }
    if (failedTimes() >= 6 && lost) lost();
    // Sent in every case, also right after a loss (the channel has closed by then, so it
    // goes nowhere).
    sendHeart();
}

void MsgHeart::sendHeart()
{
    uint64_t ts;
    {
        std::lock_guard lock(lock_);
        timestamp_ = uint64_t(std::chrono::duration_cast<std::chrono::seconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count());
        failedTimes_ = isSend_ ? failedTimes_ + 1 : 0;
        isSend_ = true;
        ts = timestamp_;
    }
    SendHeaert send;
    {
        std::lock_guard lock(callbackLock_);
        send = sendHeaert_;
    }
    if (send) send(ts);
}

bool MsgHeart::receviDic(const QVariant &object)
{
    if (object.typeId() != QMetaType::QVariantMap) return false;
    if (messageId(object) != QLatin1String("id_heartbeat")) return false;
    std::lock_guard lock(lock_);
    isSend_ = false;
    failedTimes_ = 0;
    return true;
}

uint64_t MsgHeart::timestamp() const
{
    std::lock_guard lock(lock_);
    return timestamp_;
}

bool MsgHeart::isSend() const
{
    std::lock_guard lock(lock_);
    return isSend_;
}

int64_t MsgHeart::failedTimes() const
{
    std::lock_guard lock(lock_);
    return failedTimes_;
}

void MsgHeart::setHeartLost(HeartLost callback)
{
    std::lock_guard lock(callbackLock_);
    heartLost_ = std::move(callback);
}

void MsgHeart::setSendHeaert(SendHeaert callback)
{
    std::lock_guard lock(callbackLock_);
    sendHeaert_ = std::move(callback);
}

void MsgHeart::setTickInterval(std::chrono::milliseconds interval)
{
    HeartTimer::instance().intervalMs = interval.count();
}

std::chrono::milliseconds MsgHeart::tickInterval() { return std::chrono::milliseconds(HeartTimer::instance().intervalMs.load()); }

} // namespace velocast
