#include "common/main_thread.h"

#include <QCoreApplication>
#include <QThread>

#include <deque>
#include <mutex>

namespace velocast {

namespace {
// Tasks wait in our own locked queue and a queued Qt call drains it. Going through a
// std::mutex (rather than handing the task itself to Qt) keeps the hand-over visible to
// ThreadSanitizer, which cannot see inside Qt's own locking.
struct MainQueue {
    std::mutex mutex;
    std::deque<std::function<void()>> tasks;
};
MainQueue &mainQueue()
{
    static MainQueue q;
    return q;
}

void drainOne()
{
    std::function<void()> task;
    {
        std::lock_guard lock(mainQueue().mutex);
        if (mainQueue().tasks.empty()) return;
        task = std::move(mainQueue().tasks.front());
        mainQueue().tasks.pop_front();
    }
    task();
}
} // namespace

bool isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void runOnMainThread(std::function<void()> task)
{
    auto *app = QCoreApplication::instance();
    if (!app) return;
    {
        std::lock_guard lock(mainQueue().mutex);
        mainQueue().tasks.push_back(std::move(task));
    }
    // One drain per task keeps the tasks in order and interleaved fairly with other events.
    QMetaObject::invokeMethod(app, &drainOne, Qt::QueuedConnection);
}

} // namespace velocast
