#include "common/main_thread.h"

#include <QCoreApplication>
#include <QThread>

namespace velocast {

bool isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void runOnMainThread(std::function<void()> task)
{
    auto *app = QCoreApplication::instance();
    if (!app) return;
    QMetaObject::invokeMethod(app, std::move(task), Qt::QueuedConnection);
}

} // namespace velocast
