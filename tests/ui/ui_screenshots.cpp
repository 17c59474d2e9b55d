// Renders the main window, the casting panel, the settings window and the help wizard to
// PNG files:
//   ui_screenshots <folder>   → main-window.png, main-window-connecting.png,
//                               main-window-no-network.png, panel.png, panel-roads.png, panel-waiting.png,
//                               panel-name-prompt.png, settings.png, help-wizard.png,
//                               help-wizard-3.png
// Runs on any Qt platform (offscreen by default). Preferences and autostart live in a
// temporary folder for the run, so the user's own are never read or changed.
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "ui/connect_help_controller.h"
#include "ui/miracast_controller.h"
#include "ui/setting_controller.h"
#include "ui/view_controller.h"

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenuBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextStream>

#include <cstdlib>

namespace {

bool save(QWidget *w, const QString &folder, const QString &name)
{
    const QString path = QDir(folder).filePath(name);
    // Let pending layouts settle before painting.
    for (int i = 0; i < 3; ++i)
        QApplication::processEvents();
    if (!w->grab().save(path)) {
        QTextStream(stderr) << "cannot write " << path << '\n';
        return false;
    }
    QTextStream(stdout) << path << '\n';
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir config;
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    if (argc < 2) {
        QTextStream(stderr) << "usage: ui_screenshots <output folder>\n";
        return 2;
    }
    const QString folder = QString::fromLocal8Bit(argv[1]);
    QDir().mkpath(folder);
    bool ok = true;

    using namespace velocast;
    Preferences::setValue(QString::fromLatin1(prefkey::InitPCName), true);
    SaveDisplayName(QStringLiteral("我的电脑"));

    {
        // The main window as a person sees it: two digits typed on a Wi-Fi network.
        NetControl control;
        QMainWindow main;
        main.setWindowTitle(QStringLiteral("Velocast"));
        main.menuBar()->addMenu(QStringLiteral("Velocast"));
        auto *vc = new ViewController(control, false, &main);
        main.setCentralWidget(vc);
        main.resize(480, 560);
        main.show();
        vc->configNetName(QStringLiteral("office-wlan"), QStringLiteral("192.168.1.20"), true, true);
        vc->reSetTextFields();
        for (const QString &digit : {QStringLiteral("1"), QStringLiteral("9")}) {
            auto *box = vc->field(int(vc->textCode().size()) + 1);
            box->setText(digit);
            vc->controlTextDidChange(box, digit);
        }
        ok &= save(&main, folder, QStringLiteral("main-window.png"));
        vc->setLoadingVisible(true);
        ok &= save(&main, folder, QStringLiteral("main-window-connecting.png"));
        vc->setLoadingVisible(false);
        vc->configNetName(QString(), QString(), true, false);
        ok &= save(&main, folder, QStringLiteral("main-window-no-network.png"));
    }

    QWidget window;
    window.setWindowTitle(QStringLiteral("Velocast"));
    window.resize(480, 560);
    auto *panel = new MiracastController(&window);
    panel->setPcName(QStringLiteral("会议室大屏"));
    panel->setGeometry(window.rect());
    window.show();
    QApplication::processEvents();
    ok &= save(&window, folder, QStringLiteral("panel.png"));
    panel->miracastMenuBtn()->click();
    QApplication::processEvents();
    ok &= save(&window, folder, QStringLiteral("panel-roads.png"));
    panel->miracastMenuBtn()->click();
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_SHOWREQUESTVIEW));
    QApplication::processEvents();
    ok &= save(&window, folder, QStringLiteral("panel-waiting.png"));
    NotificationCenter::defaultCenter().post(
        QString::fromLatin1(notice::NOTICE_SCREENCAPTURESTATE), QVariantList { false });

    // The first showing ever asks for a display name.
    Preferences::remove(QString::fromLatin1(prefkey::InitPCName));
    QWidget firstWindow;
    firstWindow.resize(480, 560);
    auto *firstPanel = new MiracastController(&firstWindow);
    firstPanel->setPcName(QStringLiteral("会议室大屏"));
    firstPanel->setGeometry(firstWindow.rect());
    firstWindow.show();
    QApplication::processEvents();
    ok &= save(&firstWindow, folder, QStringLiteral("panel-name-prompt.png"));

    SettingController settings;
    settings.show();
    QApplication::processEvents();
    ok &= save(&settings, folder, QStringLiteral("settings.png"));
    settings.hide();

    QWidget helpWindow;
    helpWindow.resize(480, 560);
    auto *content = new QWidget(&helpWindow);
    content->setGeometry(helpWindow.rect());
    auto *wizard = new ConnectHelpController(content);
    helpWindow.show();
    wizard->present();
    QApplication::processEvents();
    ok &= save(&helpWindow, folder, QStringLiteral("help-wizard.png"));
    wizard->nextBtn()->click();
    wizard->nextPage()->nextBtn()->click();
    QApplication::processEvents();
    ok &= save(&helpWindow, folder, QStringLiteral("help-wizard-3.png"));
    return ok ? 0 : 1;
}
