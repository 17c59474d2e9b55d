#include "common/serial_queue.h"

#include <pthread.h>

namespace velocast {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label))
{
    worker_ = std::jthread([this] { run(); });
}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        tasks_.clear();
    }
    wake_.notify_all();
    // worker_ joins here.
}

void SerialQueue::post(std::function<void()> task)
{
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == worker_.get_id(); }

void SerialQueue::run()
{
    pthread_setname_np(pthread_self(), label_.substr(0, 15).c_str());
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (stopping_) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

} // namespace velocast
