#include "avahi_test_hosts.h"

#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <cctype>
#include <csignal>

namespace velocast::test {

namespace {
QString runScript(const QStringList &args, int *exitCode)
{
    QProcess p;
    p.start(QStringLiteral("bash"), QStringList{QStringLiteral(VELOCAST_AVAHI_HOSTS_SCRIPT)} + args);
    p.waitForFinished(60000);
    *exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    return QString::fromUtf8(p.readAllStandardError());
}
} // namespace

AvahiHosts::AvahiHosts(int count) : dir_(freshTempDir())
{
    int rc = 0;
    const QString err = runScript({QStringLiteral("start"), dir_, QString::number(count)}, &rc);
    ok_ = rc == 0;
    if (!ok_ && rc != 77) qWarning("avahi hosts did not start: %s", qPrintable(err));
    // libavahi-client finds the daemon through the system bus address.
    if (ok_) qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus(1).toUtf8());
}

AvahiHosts::~AvahiHosts()
{
    int rc = 0;
    runScript({QStringLiteral("stop"), dir_}, &rc);
}

QString AvahiHosts::bus(int host) const
{
    QFile f(QStringLiteral("%1/host%2.bus").arg(dir_).arg(host));
    if (!f.open(QIODevice::ReadOnly)) return {};
    return QString::fromUtf8(f.readAll()).trimmed();
}

void AvahiHosts::killDaemon()
{
    QFile f(dir_ + QStringLiteral("/host1.avahi.pid"));
    if (f.open(QIODevice::ReadOnly)) ::kill(pid_t(f.readAll().trimmed().toLongLong()), SIGTERM);
}

QStringList browse(const QString &bus, const QString &type, bool resolve)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), bus);
    p.setProcessEnvironment(env);
    // Resolving waits for an address, and without one avahi-browse never ends: hence timeout.
    QStringList args{QStringLiteral("5"), QStringLiteral("avahi-browse"), QStringLiteral("-t"), QStringLiteral("-p"),
        QStringLiteral("-k")};
    if (resolve) args << QStringLiteral("-r");
    args << type;
    p.start(QStringLiteral("timeout"), args);
    p.waitForFinished(15000);
    QStringList lines;
    for (const QString &line : QString::fromUtf8(p.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        if (line.startsWith(resolve ? QLatin1String("=;") : QLatin1String("+;"))) lines << line;
    }
    return lines;
}

// avahi-browse -p escapes names (\DDD bytes, \. and the like); this undoes it.
QString unescapeBrowsed(const QString &field)
{
    const QByteArray in = field.toUtf8();
    QByteArray out;
    for (qsizetype i = 0; i < in.size(); ++i) {
        if (in.at(i) == '\\' && i + 3 < in.size() && std::isdigit(uchar(in.at(i + 1))) && std::isdigit(uchar(in.at(i + 2)))
            && std::isdigit(uchar(in.at(i + 3)))) {
            out.append(char(in.mid(i + 1, 3).toInt()));
            i += 3;
        } else if (in.at(i) == '\\' && i + 1 < in.size()) {
            out.append(in.at(++i));
        } else {
            out.append(in.at(i));
        }
    }
    return QString::fromUtf8(out);
}

bool browseHas(const QString &bus, const QString &type, const QString &name)
{
    for (const QString &line : browse(bus, type, false)) {
        if (unescapeBrowsed(line.section(QLatin1Char(';'), 3, 3)) == name) return true;
    }
    return false;
}

bool waitBrowsed(const QString &bus, const QString &type, const QString &name, bool present)
{
    return waitUntil([&] { return browseHas(bus, type, name) == present; }, std::chrono::seconds(20));
}

bool startPublisher(QProcess &publisher, const QString &bus, const QString &name, const QString &type, int port)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), bus);
    publisher.setProcessEnvironment(env);
    publisher.start(QStringLiteral("avahi-publish"), {QStringLiteral("-s"), name, type, QString::number(port)});
    return waitBrowsed(bus, type, name);
}

} // namespace velocast::test
