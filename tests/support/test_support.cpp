#include "support/test_support.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QTemporaryDir>

#include <memory>

namespace velocast::test {

bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!pred()) {
        if (deadline.hasExpired()) return pred();
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

void spinFor(std::chrono::milliseconds duration)
{
    QDeadlineTimer deadline(duration);
    while (!deadline.hasExpired()) QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
}

QString freshTempDir()
{
    static std::vector<std::unique_ptr<QTemporaryDir>> dirs;
    dirs.push_back(std::make_unique<QTemporaryDir>());
    return dirs.back()->path();
}

} // namespace velocast::test
