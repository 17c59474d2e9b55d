#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace velocast {

// A serial task queue: one worker thread runs the posted tasks in order. The thread is
// named after the label (Linux keeps the first 15 characters). Destruction runs no new
// tasks, lets the current one finish and joins the thread; it must not happen on the
// queue's own thread.
class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    void post(std::function<void()> task);
    // True when called from this queue's worker thread.
    bool isCurrent() const;
    const std::string &label() const { return label_; }

private:
    void run();

    const std::string label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::jthread worker_; // last: joined before the state above goes away
};

} // namespace velocast
