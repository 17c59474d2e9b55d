// Start at login over XDG autostart, in the private XDG_CONFIG_HOME of the test main.
#include "app/app_start_manager.h"

#include "support/test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace velocast {
namespace {

QString autostartDir() { return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart"; }

void writeEntry(const QString &name, const QString &exec, const QByteArray &extra = {})
{
    QDir().mkpath(autostartDir());
    QFile f(autostartDir() + "/" + name);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write("[Desktop Entry]\nType=Application\nName=X\nExec=" + exec.toUtf8() + "\n" + extra);
}

TEST(AppStartManager, AddsOneValidEntryOnceRemovesOnlyEntriesForThisProgram)
{
    ASSERT_TRUE(autostartDir().startsWith(QDir::tempPath())) << "not isolated: " << autostartDir().toStdString();
    QDir(autostartDir()).removeRecursively();
    const QString entry = autostartDir() + "/velocast.desktop", path = QCoreApplication::applicationFilePath();
    EXPECT_FALSE(AppStartManager::isStartAtLogin());
    EXPECT_TRUE(AppStartManager::setStartAtLogin(true));
    QFile f(entry);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray content = f.readAll();
    EXPECT_TRUE(content.contains("\nExec=\"" + path.toUtf8() + "\"\n")) << content.toStdString();
    EXPECT_TRUE(content.contains("\nX-GNOME-Autostart-enabled=true\n"));
    // Already there: no second entry, nothing rewritten.
    const QDateTime written = QFileInfo(entry).lastModified();
    EXPECT_FALSE(AppStartManager::setStartAtLogin(true));
    EXPECT_EQ(QDir(autostartDir()).entryList(QDir::Files).size(), 1);
    EXPECT_EQ(QFileInfo(entry).lastModified(), written);
    EXPECT_TRUE(AppStartManager::setStartAtLogin(false));
    EXPECT_FALSE(AppStartManager::setStartAtLogin(false)) << "nothing left to remove";

    writeEntry("velocast.desktop", u'"' + path + u'"', "Hidden=true\n");
    EXPECT_FALSE(AppStartManager::isStartAtLogin());
    EXPECT_TRUE(AppStartManager::setStartAtLogin(true)) << "a hidden entry is replaced by a visible one";
    EXPECT_TRUE(AppStartManager::isStartAtLogin());
    // Our program written three ways (quoted, unquoted with arguments, hidden) and another program.
    writeEntry("velocast-old.desktop", path + " --minimized");
    writeEntry("velocast-hidden.desktop", path, "Hidden=true\n");
    writeEntry("other.desktop", "/usr/bin/other --flag");
    EXPECT_TRUE(AppStartManager::setStartAtLogin(false));
    EXPECT_EQ(QDir(autostartDir()).entryList(QDir::Files), QStringList{"other.desktop"});
    EXPECT_FALSE(AppStartManager::isStartAtLogin()) << "an entry for another program does not count";
    QDir(autostartDir()).removeRecursively();
}

} // namespace
} // namespace velocast
