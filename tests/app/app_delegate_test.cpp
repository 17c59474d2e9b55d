// The application shell with its real main window, in the test main's private XDG_CONFIG_HOME.
#include "app/app_delegate.h"

#include "app/app_start_manager.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "support/test_support.h"

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QMainWindow>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace velocast;

namespace {

TEST(AppDelegate, FirstLaunchStartsAtLoginOnceClosingKeepsRunningASecondInstanceHandsOver)
{
    QTemporaryDir tmp; // the single-instance socket of this test's own
    const QByteArray previousTmp = qgetenv("TMPDIR");
    qputenv("TMPDIR", tmp.path().toLocal8Bit());
    const auto restoreTmp = qScopeGuard([&] { qputenv("TMPDIR", previousTmp); });
    const QString entry = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart/velocast.desktop";
    Preferences::remove(prefkey::AutoStartAtLogin);
    QFile::remove(entry);
    NetControl control;
    {
        AppDelegate first(control);
        ASSERT_TRUE(first.launch());
        EXPECT_TRUE(Preferences::value(prefkey::AutoStartAtLogin).toBool());
        EXPECT_TRUE(AppStartManager::isStartAtLogin());
        QMainWindow *window = first.keyWindow();
        ASSERT_TRUE(window);
        EXPECT_FALSE(window->windowTitle().isEmpty());

        // Closing the window leaves the program running; reopening brings the same window.
        EXPECT_FALSE(QApplication::quitOnLastWindowClosed());
        window->close();
        first.applicationShouldHandleReopen();
        EXPECT_TRUE(window->isVisible());
        EXPECT_EQ(first.keyWindow(), window);

        first.appAbout();
        auto *about = window->findChild<QDialog *>();
        ASSERT_TRUE(about && about->isVisible());
        EXPECT_FALSE(about->windowTitle().isEmpty());
        auto *label = about->findChild<QLabel *>(QStringLiteral("aboutText"));
        ASSERT_TRUE(label);
        // The version of the project() line, handed to this test by the build.
        EXPECT_TRUE(label->text().startsWith(QStringLiteral("Velocast " VELOCAST_PROJECT_VERSION "\n"))) << label->text().toStdString();
        EXPECT_TRUE(label->text().contains(QStringLiteral("GPL-3.0-or-later")));
        about->close();

        window->hide();
        AppDelegate second(control);
        EXPECT_FALSE(second.launch()) << "a second instance must hand over and end";
        EXPECT_FALSE(second.keyWindow());
        EXPECT_TRUE(test::waitUntil([&] { return window->isVisible(); }));
    }
    // The user switched start at login off; later launches leave that alone.
    ASSERT_TRUE(AppStartManager::setStartAtLogin(false));
    {
        AppDelegate later(control);
        ASSERT_TRUE(later.launch());
        EXPECT_FALSE(QFile::exists(entry));
    }
}

} // namespace
