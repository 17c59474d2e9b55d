#include "common/log.h"

#include <mutex>
#include <cstdio>
#include <syslog.h>

namespace velocast {

Q_LOGGING_CATEGORY(lcCommon, "velocast.common")
Q_LOGGING_CATEGORY(lcControl, "velocast.control")
Q_LOGGING_CATEGORY(lcNet, "velocast.net")
Q_LOGGING_CATEGORY(lcCapture, "velocast.capture")
Q_LOGGING_CATEGORY(lcAirplay, "velocast.airplay")
Q_LOGGING_CATEGORY(lcUi, "velocast.ui")
Q_LOGGING_CATEGORY(lcApp, "velocast.app")

namespace {
struct LogState {
    std::mutex mutex;
    LogTap tap;
    bool syslogOpen = false;
};
LogState &state()
{
    static LogState s;
    return s;
}
} // namespace

LogTap setLogTap(LogTap tap)
{
    std::lock_guard lock(state().mutex);
    std::swap(state().tap, tap);
    return tap;
}

bool logWanted(const QLoggingCategory &category)
{
    if (category.isInfoEnabled()) return true;
    std::lock_guard lock(state().mutex);
    return static_cast<bool>(state().tap);
}

void logLine(const QLoggingCategory &category, const QString &text)
{
    LogState &s = state();
    LogTap tap;
    {
        std::lock_guard lock(s.mutex);
        tap = s.tap;
    }
    if (tap) tap(category.categoryName(), text);
    if (!category.isInfoEnabled()) return;

    const QByteArray utf8 = text.toUtf8();
    std::lock_guard lock(s.mutex);
    std::fprintf(stderr, "%s: %s\n", category.categoryName(), utf8.constData());
    if (!s.syslogOpen) {
        openlog("velocast", LOG_PID, LOG_USER);
        s.syslogOpen = true;
    }
    syslog(LOG_INFO, "%s", utf8.constData());
}

} // namespace velocast
