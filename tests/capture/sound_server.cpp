#include "sound_server.h"

#include "support/test_support.h"

#include <QProcess>

namespace velocast::test {

namespace {
QString script() { return QStringLiteral(VELOCAST_SOURCE_DIR "/scripts/sound-server.sh"); }
} // namespace

SoundServer::~SoundServer()
{
    stop();
    if (savedPulseServer_.isNull())
        qunsetenv("PULSE_SERVER");
    else
        qputenv("PULSE_SERVER", savedPulseServer_);
}

bool SoundServer::start()
{
    if (dir_.isEmpty()) dir_ = freshTempDir();
    QProcess p;
    p.start(QStringLiteral("bash"), {script(), QStringLiteral("start"), kind_, dir_});
    if (!p.waitForFinished(60000) || p.exitCode() != 0) {
        error_ = QStringLiteral("%1 did not start: %2").arg(kind_, QString::fromLocal8Bit(p.readAllStandardError()));
        stop();
        return false;
    }
    const QString socket = kind_ == QLatin1String("pipewire") ? dir_ + "/run/pulse/native" : dir_ + "/run/pulse-native";
    qputenv("PULSE_SERVER", ("unix:" + socket).toLocal8Bit());
    return true;
}

void SoundServer::stop()
{
    if (dir_.isEmpty()) return;
    QProcess p;
    p.start(QStringLiteral("bash"), {script(), QStringLiteral("stop"), dir_});
    p.waitForFinished(30000);
}

QString SoundServer::pactl(const QStringList &arguments) const
{
    QProcess p;
    p.start(QStringLiteral("pactl"), arguments);
    p.waitForFinished(10000);
    return QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed();
}

int SoundServer::index(const QString &what, const QString &name) const
{
    for (const QString &line : pactl({"list", "short", what}).split('\n')) {
        const QStringList fields = line.split('\t');
        if (fields.size() > 1 && fields[1] == name) return fields[0].toInt();
    }
    return -1;
}

} // namespace velocast::test
