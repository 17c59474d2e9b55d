// Start at login over XDG autostart. The test main points XDG_CONFIG_HOME at a private
// temporary directory, so these tests never touch the user's autostart folder.
#include "app/app_start_manager.h"

#include "support/test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace velocast {
namespace {

QString autostartDir() { return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart"; }
QString entryPath() { return autostartDir() + "/velocast.desktop"; }

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(content);
}

QByteArray entryFor(const QString &execValue, const QByteArray &extra = {})
{
    return "[Desktop Entry]\nType=Application\nName=X\nExec=" + execValue.toUtf8() + "\n" + extra;
}

class AppStartManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(autostartDir().startsWith(QDir::tempPath())) << "not isolated: " << autostartDir().toStdString();
        QDir(autostartDir()).removeRecursively();
    }
    void TearDown() override { QDir(autostartDir()).removeRecursively(); }
};

TEST_F(AppStartManagerTest, AddsOneValidEntryOnceThenRemovesIt)
{
    EXPECT_FALSE(AppStartManager::isStartAtLogin());
    EXPECT_TRUE(AppStartManager::setStartAtLogin(true));
    QFile f(entryPath());
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray content = f.readAll();
    EXPECT_TRUE(content.contains("\nExec=\"" + QCoreApplication::applicationFilePath().toUtf8() + "\"\n")) << content.toStdString();
    EXPECT_TRUE(content.contains("\nX-GNOME-Autostart-enabled=true\n"));
    if (const QString validator = QStandardPaths::findExecutable("desktop-file-validate"); !validator.isEmpty()) {
        QProcess p;
        p.start(validator, {entryPath()});
        ASSERT_TRUE(p.waitForFinished(30000));
        const QByteArray output = p.readAllStandardOutput() + p.readAllStandardError();
        EXPECT_EQ(p.exitCode(), 0) << output.toStdString();
        EXPECT_FALSE(output.contains("warning")) << output.toStdString();
    }

    // Already there: no second entry, nothing rewritten.
    const QDateTime written = QFileInfo(entryPath()).lastModified();
    EXPECT_FALSE(AppStartManager::setStartAtLogin(true));
    EXPECT_EQ(QDir(autostartDir()).entryList(QDir::Files).size(), 1);
    EXPECT_EQ(QFileInfo(entryPath()).lastModified(), written);

    EXPECT_TRUE(AppStartManager::setStartAtLogin(false));
    EXPECT_FALSE(QFile::exists(entryPath()));
    EXPECT_FALSE(AppStartManager::setStartAtLogin(false)) << "nothing left to remove";
}

TEST_F(AppStartManagerTest, OnlyVisibleEntriesForThisProgramCountAndAreRemoved)
{
    const QString path = QCoreApplication::applicationFilePath();
    writeFile(entryPath(), entryFor(u'"' + path + u'"', "Hidden=true\n"));
    EXPECT_FALSE(AppStartManager::isStartAtLogin());
    EXPECT_TRUE(AppStartManager::setStartAtLogin(true)) << "a hidden entry is replaced by a visible one";
    EXPECT_TRUE(AppStartManager::isStartAtLogin());

    // Our program written three ways (quoted, unquoted with arguments, hidden) and another program.
    writeFile(autostartDir() + "/velocast-old.desktop", entryFor(path + " --minimized"));
    writeFile(autostartDir() + "/velocast-hidden.desktop", entryFor(path, "Hidden=true\n"));
    writeFile(autostartDir() + "/other.desktop", entryFor("/usr/bin/other --flag"));
    EXPECT_TRUE(AppStartManager::setStartAtLogin(false));
    EXPECT_EQ(QDir(autostartDir()).entryList(QDir::Files), QStringList{"other.desktop"});
    EXPECT_FALSE(AppStartManager::isStartAtLogin()) << "an entry for another program does not count";
}

} // namespace
} // namespace velocast
