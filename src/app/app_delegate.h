#pragma once

#include <QObject>
#include <QPointer>

#include <memory>

class QAction;
class QLocalServer;
class QMainWindow;
class QSystemTrayIcon;
class QDialog;

namespace velocast {

class ConnectHelpController;
class NetControl;
class ViewController;

// The application shell: builds the main window, applies the first-start rule for start at
// login, offers the menus (settings, connect help, about, quit) and keeps the program running
// when its window is closed; only Quit ends it. One instance per user session: a second
// launch hands over to the first, which brings its window back (there is no dock to click).
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(NetControl &control, QObject *parent = nullptr);
    ~AppDelegate() override;

    // Starts the program: false when another instance is already running (it has been asked
    // to bring its window back and this one should end).
    bool launch();
    void applicationDidFinishLaunching();
    // Brings the main window back to the front.
    bool applicationShouldHandleReopen();

    void appSetAction();
    void appConnectHelp();
    void appAbout();
    void quit();

    QMainWindow *keyWindow() const { return keyWindow_; }
    ViewController *viewController() const { return viewController_; }
    ConnectHelpController *connetcVC() const;

    // Reopens standard output and error onto <Documents>/yyyy_MM_dd_HH_mm_ss_dr.log ("a+").
    // Not called at launch. Returns the file's path, or an empty string on failure.
    static QString redirectNSlogToDocumentFolder();

private:
    bool claimSingleInstance();
    void buildWindow();
    void buildTray();

    NetControl &control_;
    QMainWindow *keyWindow_ = nullptr; // owned: deleted in the destructor
    ViewController *viewController_ = nullptr;
    QPointer<QDialog> appAbout_;
    QPointer<ConnectHelpController> connetcVC_;
    QSystemTrayIcon *tray_ = nullptr;
    std::unique_ptr<QLocalServer> instanceServer_;
};

} // namespace velocast
