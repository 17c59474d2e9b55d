// The application shell. The widget test main gives the run its own XDG_CONFIG_HOME, so the
// first-start marker and the autostart entry live in a private folder.
#include "app/app_delegate.h"

#include "app/app_start_manager.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "support/test_support.h"

#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QDir>
#include <QFile>
#include <QMainWindow>
#include <QStandardPaths>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

using namespace velocast;

namespace {

QString autostartEntry()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart/velocast.desktop";
}

// Each test gets its own temporary folder, so the single-instance socket is its own too.
struct PrivateTmp {
    PrivateTmp() : previous(qgetenv("TMPDIR")) { qputenv("TMPDIR", dir.path().toLocal8Bit()); }
    ~PrivateTmp() { qputenv("TMPDIR", previous); }
    QTemporaryDir dir;
    QByteArray previous;
};

TEST(AppDelegate, FirstLaunchSwitchesStartAtLoginOnOnceClosingKeepsRunningAboutShowsTheVersion)
{
    PrivateTmp tmp;
    Preferences::remove(prefkey::AutoStartAtLogin);
    QFile::remove(autostartEntry());
    NetControl control;
    {
        AppDelegate first(control);
        ASSERT_TRUE(first.launch());
        EXPECT_TRUE(Preferences::value(prefkey::AutoStartAtLogin).toBool());
        EXPECT_TRUE(AppStartManager::isStartAtLogin());
        ASSERT_TRUE(first.keyWindow());
        EXPECT_FALSE(first.keyWindow()->windowTitle().isEmpty());

        // Closing the window leaves the program running; reopening brings the same window.
        EXPECT_FALSE(QApplication::quitOnLastWindowClosed());
        QMainWindow *window = first.keyWindow();
        window->close();
        EXPECT_FALSE(window->isVisible());
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
    }
    // The user switched start at login off; later launches leave that alone.
    ASSERT_TRUE(AppStartManager::setStartAtLogin(false));
    {
        AppDelegate second(control);
        ASSERT_TRUE(second.launch());
        EXPECT_FALSE(QFile::exists(autostartEntry()));
    }
}

TEST(AppDelegate, ASecondInstanceHandsOverToTheFirst)
{
    PrivateTmp tmp;
    NetControl control;
    AppDelegate first(control);
    ASSERT_TRUE(first.launch());
    first.keyWindow()->hide();

    AppDelegate second(control);
    EXPECT_FALSE(second.launch()) << "a second instance must hand over and end";
    EXPECT_FALSE(second.keyWindow());
    ASSERT_TRUE(velocast::test::waitUntil([&] { return first.keyWindow()->isVisible(); }));
}

TEST(AppDelegate, LogRedirectionGoesToADatedFileInDocuments)
{
    QTemporaryDir home;
    // In a child process: the redirection takes over this process's standard streams.
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        qputenv("HOME", home.path().toLocal8Bit());
        const QString path = AppDelegate::redirectNSlogToDocumentFolder();
        std::printf("to stdout\n");
        std::fprintf(stderr, "to stderr\n");
        std::fflush(nullptr);
        _exit(path.isEmpty() ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    const QStringList logs = QDir(home.path() + "/Documents").entryList({"*_dr.log"}, QDir::Files);
    ASSERT_EQ(logs.size(), 1);
    EXPECT_TRUE(QRegularExpression("^\\d{4}_\\d{2}_\\d{2}_\\d{2}_\\d{2}_\\d{2}_dr\\.log$").match(logs[0]).hasMatch())
        << logs[0].toStdString();
    QFile f(home.path() + "/Documents/" + logs[0]);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray content = f.readAll();
    EXPECT_TRUE(content.contains("to stdout") && content.contains("to stderr")) << content.toStdString();
}

} // namespace
