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

QString folder;
bool ok = true;

// Lets pending layouts settle, then paints w into folder/name.
void save(QWidget *w, const QString &name)
{
    const QString path = QDir(folder).filePath(name);
    for (int i = 0; i < 3; ++i)
        QApplication::processEvents();
    if (w->grab().save(path)) {
        QTextStream(stdout) << path << '\n';
        return;
    }
    QTextStream(stderr) << "cannot write " << path << '\n';
    ok = false;
}

// A window of the panels' size showing a casting panel.
velocast::MiracastController *showPanel(QWidget &window)
{
    window.setWindowTitle(QStringLiteral("Velocast"));
    window.resize(480, 560);
    auto *panel = new velocast::MiracastController(&window);
    panel->setPcName(QStringLiteral("会议室大屏"));
    panel->setGeometry(window.rect());
    window.show();
    return panel;
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
    folder = QString::fromLocal8Bit(argv[1]);
    QDir().mkpath(folder);

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
        save(&main, QStringLiteral("main-window.png"));
        vc->setLoadingVisible(true);
        save(&main, QStringLiteral("main-window-connecting.png"));
        vc->setLoadingVisible(false);
        vc->configNetName(QString(), QString(), true, false);
        save(&main, QStringLiteral("main-window-no-network.png"));
    }

    QWidget window;
    MiracastController *panel = showPanel(window);
    save(&window, QStringLiteral("panel.png"));
    panel->miracastMenuBtn()->click();
    save(&window, QStringLiteral("panel-roads.png"));
    panel->miracastMenuBtn()->click();
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_SHOWREQUESTVIEW));
    save(&window, QStringLiteral("panel-waiting.png"));
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_SCREENCAPTURESTATE), QVariantList { false });

    // The first showing ever asks for a display name.
    Preferences::remove(QString::fromLatin1(prefkey::InitPCName));
    QWidget firstWindow;
    showPanel(firstWindow);
    save(&firstWindow, QStringLiteral("panel-name-prompt.png"));

    SettingController settings;
    settings.show();
    save(&settings, QStringLiteral("settings.png"));
    settings.hide();

    QWidget helpWindow;
    helpWindow.resize(480, 560);
    auto *content = new QWidget(&helpWindow);
    content->setGeometry(helpWindow.rect());
    auto *wizard = new ConnectHelpController(content);
    helpWindow.show();
    wizard->present();
    save(&helpWindow, QStringLiteral("help-wizard.png"));
    wizard->nextBtn()->click();
    wizard->nextPage()->nextBtn()->click();
    save(&helpWindow, QStringLiteral("help-wizard-3.png"));
    return ok ? 0 : 1;
}
