#include "app/app_start_manager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringList>

namespace velocast {

namespace {

constexpr char kEntryFileName[] = "velocast.desktop";

QString autostartDir()
{
    // Honours XDG_CONFIG_HOME (default ~/.config).
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/autostart");
}

QString programPath()
{
    return QFileInfo(QCoreApplication::applicationFilePath()).absoluteFilePath();
}

// The two escape levels of an Exec value in a freedesktop desktop entry:
// inside double quotes ", `, $ and \ take a backslash; then the whole value is a
// "string" whose own backslashes are doubled. A literal % is written %%.
QString quotedExecArgument(const QString &path)
{
    QString quoted;
    for (const QChar c : path) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') quoted += u'\\';
        quoted += c;
    }
    quoted.replace(u'%', QStringLiteral("%%"));
    quoted.replace(u'\\', QStringLiteral("\\\\"));
    return u'"' + quoted + u'"';
}

// Undoes the "string" escape level (\s \n \t \r \\).
QString unescapeString(const QString &value)
{
    QString out;
    for (qsizetype i = 0; i < value.size(); ++i) {
        const QChar c = value.at(i);
        if (c != u'\\' || i + 1 == value.size()) {
            out += c;
            continue;
        }
        const QChar n = value.at(++i);
        if (n == u's')
            out += u' ';
        else if (n == u'n')
            out += u'\n';
        else if (n == u't')
            out += u'\t';
        else if (n == u'r')
            out += u'\r';
        else if (n == u'\\')
            out += u'\\';
        else
            out += QStringView(value).mid(i - 1, 2);
    }
    return out;
}

// The program (first word) of an Exec value, with quoting and %% undone.
QString execProgram(const QString &rawValue)
{
    const QString value = unescapeString(rawValue).trimmed();
    QString program;
    bool inQuotes = false;
    for (qsizetype i = 0; i < value.size(); ++i) {
        const QChar c = value.at(i);
        if (inQuotes) {
            if (c == u'\\' && i + 1 < value.size())
                program += value.at(++i);
            else if (c == u'"')
                inQuotes = false;
            else
                program += c;
        } else if (c == u'"') {
            inQuotes = true;
        } else if (c.isSpace()) {
            break;
        } else {
            program += c;
        }
    }
    return program.replace(QStringLiteral("%%"), QStringLiteral("%"));
}

struct EntryFacts {
    QString program;
    bool hidden = false;
};

// Reads Exec and Hidden from the [Desktop Entry] group; false when the file cannot be read.
bool readEntry(const QString &path, EntryFacts *facts)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
    bool inMainGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine(64 * 1024)).trimmed();
        if (line.isEmpty() || line.startsWith(u'#')) continue;
        if (line.startsWith(u'[')) {
            inMainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inMainGroup) continue;
        const qsizetype eq = line.indexOf(u'=');
        if (eq < 0) continue;
        const QString key = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        if (key == QLatin1String("Exec"))
            facts->program = execProgram(value);
        else if (key == QLatin1String("Hidden"))
            facts->hidden = value == QLatin1String("true");
    }
    return true;
}

bool isOurProgram(const QString &program)
{
    if (program.isEmpty()) return false;
    const QString ours = programPath();
    return program == ours || QFileInfo(program).canonicalFilePath() == QFileInfo(ours).canonicalFilePath();
}

// Every autostart entry whose Exec runs this program (hidden ones included).
QStringList matchingEntries(bool skipHidden)
{
    QStringList found;
    const QDir dir(autostartDir());
    for (const QString &name : dir.entryList({ QStringLiteral("*.desktop") }, QDir::Files, QDir::Name)) {
        EntryFacts facts;
        const QString path = dir.filePath(name);
        if (!readEntry(path, &facts)) continue; // unreadable entries are skipped
        if (!isOurProgram(facts.program)) continue;
        if (skipHidden && facts.hidden) continue;
        found << path;
    }
    return found;
}

QByteArray entryContent()
{
    QString text;
    text += QStringLiteral("[Desktop Entry]\n");
    text += QStringLiteral("Type=Application\n");
    text += QStringLiteral("Name=Velocast\n");
    text += QStringLiteral("Name[zh_CN]=Velocast 无线投屏\n");
    text += QStringLiteral("Comment=Wireless screen casting sender\n");
    text += QStringLiteral("Comment[zh_CN]=无线投屏发送端\n");
    text += QStringLiteral("Exec=") + quotedExecArgument(programPath()) + u'\n';
    text += QStringLiteral("Terminal=false\n");
    text += QStringLiteral("X-GNOME-Autostart-enabled=true\n");
    return text.toUtf8();
}

} // namespace

bool AppStartManager::isStartAtLogin()
{
    return !matchingEntries(true).isEmpty();
}

bool AppStartManager::setStartAtLogin(bool enabled)
{
    if (enabled) {
        if (isStartAtLogin()) return false;
        if (!QDir().mkpath(autostartDir())) return false;
        // Replaces a hidden or foreign entry of the same file name.
        QSaveFile file(autostartDir() + u'/' + QLatin1String(kEntryFileName));
        if (!file.open(QIODevice::WriteOnly)) return false;
        file.write(entryContent());
        return file.commit();
    }
    bool lastRemoved = false;
    for (const QString &path : matchingEntries(false))
        lastRemoved = QFile::remove(path);
    return lastRemoved;
}

} // namespace velocast
