#include "app/app_delegate.h"

#include "app/app_start_manager.h"
#include "app/version.h"
#include "common/log.h"
#include "common/preferences.h"
#include "ui/connect_help_controller.h"
#include "ui/main_window_icons.h"
#include "ui/setting_controller.h"
#include "ui/texts.h"
#include "ui/view_controller.h"

#include <QApplication>
#include <QDateTime>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

#include <cstdio>
#include <unistd.h>

namespace velocast {

namespace {
const QString kAppName = QStringLiteral("Velocast");
const QString kMenuTitle = QStringLiteral("Velocast");
const QString kSettingsAction = QStringLiteral("设置…");
const QString kHelpAction = QStringLiteral("连接帮助");
const QString kAboutAction = QStringLiteral("关于 Velocast");
const QString kQuitAction = QStringLiteral("退出 Velocast");
const QString kShowAction = QStringLiteral("显示主窗口");
const QString kAboutText = QStringLiteral("Velocast %1\n把这台电脑的屏幕和声音投到同一网络中的接收端。\n"
                                         "许可证：GNU 通用公共许可证第 3 版或更新版本（%2）");

// Per-user name of the local socket that makes the program single-instance.
QString instanceSocketName()
{
    return QStringLiteral("velocast-%1").arg(getuid());
}
} // namespace

AppDelegate::AppDelegate(NetControl &control, QObject *parent) : QObject(parent), control_(control) { }

AppDelegate::~AppDelegate()
{
    delete connetcVC_;
    delete appAbout_;
    delete keyWindow_;
}

bool AppDelegate::launch()
{
    if (!claimSingleInstance()) return false;
    applicationDidFinishLaunching();
    return true;
}

bool AppDelegate::claimSingleInstance()
{
    {
        QLocalSocket probe;
        probe.connectToServer(instanceSocketName());
        if (probe.waitForConnected(500)) {
            probe.write("show\n");
            probe.waitForBytesWritten(500);
            return false;
        }
    }
    // Nobody answered: a socket file left by a crashed instance is stale.
    QLocalServer::removeServer(instanceSocketName());
    auto s = std::make_unique<QLocalServer>();
    s->setSocketOptions(QLocalServer::UserAccessOption);
    if (!s->listen(instanceSocketName())) {
        logLine(lcApp(), QStringLiteral("single instance: cannot listen: %1").arg(s->errorString()));
        return true; // run anyway
    }
    connect(s.get(), &QLocalServer::newConnection, this, [this, raw = s.get()] {
        while (QLocalSocket *c = raw->nextPendingConnection()) {
            connect(c, &QLocalSocket::readyRead, this, [this, c] {
                if (c->readAll().startsWith("show")) applicationShouldHandleReopen();
                c->disconnectFromServer();
            });
            QObject::connect(c, &QLocalSocket::disconnected, c, &QObject::deleteLater);
        }
    });
    instanceServer_ = std::move(s);
    return true;
}

void AppDelegate::applicationDidFinishLaunching()
{
    QApplication::setQuitOnLastWindowClosed(false);
    buildWindow();

    const QString marker = QString::fromLatin1(prefkey::AutoStartAtLogin);
    if (!Preferences::value(marker).isValid()) {
        Preferences::setValue(marker, true);
        Preferences::sync();
        logLine(lcApp(), text::kFirstStart);
        AppStartManager::setStartAtLogin(true);
    } else {
        logLine(lcApp(), text::kNotFirstStart);
    }
    buildTray();
    keyWindow_->show();
}

void AppDelegate::buildWindow()
{
    keyWindow_ = new QMainWindow();
    keyWindow_->setWindowTitle(kAppName);
    keyWindow_->setWindowIcon(velocastAppIcon());
    viewController_ = new ViewController(control_, true, keyWindow_);
    keyWindow_->setCentralWidget(viewController_);
    keyWindow_->resize(480, 560);

    QMenu *menu = keyWindow_->menuBar()->addMenu(kMenuTitle);
    QAction *settings = menu->addAction(kSettingsAction, this, &AppDelegate::appSetAction);
    settings->setShortcut(QKeySequence::Preferences);
    menu->addAction(kHelpAction, this, &AppDelegate::appConnectHelp);
    menu->addAction(kAboutAction, this, &AppDelegate::appAbout);
    menu->addSeparator();
    QAction *quitAction = menu->addAction(kQuitAction, this, &AppDelegate::quit);
    quitAction->setShortcut(QKeySequence::Quit);
}

void AppDelegate::buildTray()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable()) return;
    tray_ = new QSystemTrayIcon(velocastAppIcon(), this);
    tray_->setToolTip(kAppName);
    auto *menu = new QMenu();
    menu->addAction(kShowAction, this, &AppDelegate::applicationShouldHandleReopen);
    menu->addAction(kQuitAction, this, &AppDelegate::quit);
    tray_->setContextMenu(menu);
    connect(tray_, &QObject::destroyed, menu, &QObject::deleteLater);
    connect(tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason r) {
        if (r == QSystemTrayIcon::Trigger) applicationShouldHandleReopen();
    });
    tray_->show();
}

bool AppDelegate::applicationShouldHandleReopen()
{
    if (!keyWindow_) return true;
    if (keyWindow_->isMinimized()) keyWindow_->showNormal();
    keyWindow_->show();
    keyWindow_->raise();
    keyWindow_->activateWindow();
    return true;
}

void AppDelegate::appSetAction()
{
    logLine(lcApp(), QStringLiteral("appSetAction:"));
    SettingController::runModal(keyWindow_);
}

void AppDelegate::appConnectHelp()
{
    logLine(lcApp(), QStringLiteral("appConnectHelp:"));
    applicationShouldHandleReopen();
    if (!connetcVC_) connetcVC_ = new ConnectHelpController(viewController_);
    connetcVC_->present();
}

void AppDelegate::appAbout()
{
    if (!appAbout_) {
        appAbout_ = new QDialog(keyWindow_);
        appAbout_->setWindowTitle(kAboutAction);
        auto *layout = new QVBoxLayout(appAbout_);
        auto *icon = new QLabel(appAbout_);
        icon->setPixmap(velocastAppIcon().pixmap(64, 64));
        icon->setAlignment(Qt::AlignCenter);
        icon->setAccessibleName(kAppName);
        auto *label = new QLabel(kAboutText.arg(QString::fromLatin1(kVersion), QString::fromLatin1(kLicence)), appAbout_);
        label->setObjectName(QStringLiteral("aboutText"));
        label->setTextFormat(Qt::PlainText);
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
        label->setAlignment(Qt::AlignCenter);
        auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, appAbout_);
        connect(buttons, &QDialogButtonBox::rejected, appAbout_, &QDialog::close);
        layout->addWidget(icon);
        layout->addWidget(label);
        layout->addWidget(buttons);
    }
    appAbout_->show();
    appAbout_->raise();
    appAbout_->activateWindow();
}

ConnectHelpController *AppDelegate::connetcVC() const { return connetcVC_; }

void AppDelegate::quit() { QCoreApplication::quit(); }

QString AppDelegate::redirectNSlogToDocumentFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    if (folder.isEmpty()) return {};
    QDir().mkpath(folder);
    const QString name = QStringLiteral("%1_dr.log").arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy_MM_dd_HH_mm_ss")));
    const QString path = QDir(folder).filePath(name);
    QFile::remove(path);
    const QByteArray native = QFile::encodeName(path);
    // Both streams share the one file; failures leave them where they were.
    if (!std::freopen(native.constData(), "a+", stdout)) return {};
    if (!std::freopen(native.constData(), "a+", stderr)) return {};
    return path;
}

} // namespace velocast
