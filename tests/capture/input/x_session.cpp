#include "x_session.h"

namespace velocast::test {

ProbeWindow::ProbeWindow(const QString &display)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), display.isEmpty() ? QStringLiteral("wayland") : QStringLiteral("xcb"));
    env.remove(display.isEmpty() ? QStringLiteral("DISPLAY") : QStringLiteral("WAYLAND_DISPLAY"));
    if (!display.isEmpty()) env.insert(QStringLiteral("DISPLAY"), display);
    process_.setProcessEnvironment(env);
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] {
        pending_ += process_.readAllStandardOutput();
        for (qsizetype nl; (nl = pending_.indexOf('\n')) >= 0; pending_.remove(0, nl + 1)) lines_ << QString::fromUtf8(pending_.left(nl));
    });
}

} // namespace velocast::test
