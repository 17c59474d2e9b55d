#include "support/test_support.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTemporaryDir>

#include <memory>

namespace velocast::test {

bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    for (QDeadlineTimer deadline(timeout); !pred();) {
        if (deadline.hasExpired()) return pred();
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

void spinFor(std::chrono::milliseconds duration)
{
    waitUntil([] { return false; }, duration);
}

QString freshTempDir()
{
    static std::vector<std::unique_ptr<QTemporaryDir>> dirs;
    return dirs.emplace_back(std::make_unique<QTemporaryDir>())->path();
}

} // namespace velocast::test
