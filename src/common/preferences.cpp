#include "common/preferences.h"

#include <QFile>
#include <QMetaType>
#include <QSettings>

#include <unistd.h>

namespace velocast {

namespace {
QSettings openSettings()
{
    // Explicit names so the location does not depend on the QCoreApplication set-up.
    return QSettings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Velocast"), QStringLiteral("Velocast"));
}

// PRETTY_HOSTNAME="..." from /etc/machine-info, as hostnamectl writes it.
QString prettyHostName()
{
    QFile f(QStringLiteral("/etc/machine-info"));
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) return {};
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine(4096)).trimmed();
        if (!line.startsWith(QLatin1String("PRETTY_HOSTNAME="))) continue;
        QString v = line.mid(int(qstrlen("PRETTY_HOSTNAME=")));
        if (v.size() >= 2 && (v.front() == u'"' || v.front() == u'\'') && v.back() == v.front()) v = v.mid(1, v.size() - 2);
        v.replace(QLatin1String("\\\""), QLatin1String("\""));
        return v.trimmed();
    }
    return {};
}
} // namespace

QVariant Preferences::value(const QString &key) { return openSettings().value(key); }

void Preferences::setValue(const QString &key, const QVariant &value)
{
    QSettings s = openSettings();
    s.setValue(key, value);
}

void Preferences::remove(const QString &key)
{
    QSettings s = openSettings();
    s.remove(key);
}

void Preferences::sync()
{
    QSettings s = openSettings();
    s.sync();
}

QString Preferences::fileName() { return openSettings().fileName(); }

QString LocalizedHostName()
{
    const QString pretty = prettyHostName();
    if (!pretty.isEmpty()) return pretty;
    char buf[256] = {};
    if (gethostname(buf, sizeof buf - 1) != 0) return {};
    return QString::fromUtf8(buf);
}

QString CurrentDisplayName()
{
    const QVariant v = Preferences::value(QString::fromLatin1(prefkey::USERNAME));
    if (v.typeId() == QMetaType::QString && !v.toString().isEmpty()) return v.toString();
    return LocalizedHostName();
}

void SaveDisplayName(const QString &name)
{
    Preferences::setValue(QString::fromLatin1(prefkey::USERNAME), name);
    Preferences::sync();
}

} // namespace velocast
