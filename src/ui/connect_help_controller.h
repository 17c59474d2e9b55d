#pragma once

#include "ui/overlay_widget.h"

#include <QPointer>

class QPushButton;

namespace velocast {

// The three-page connect-help wizard, laid over the main window's content. Page 1 is the
// object its owner creates once and keeps; pages 2 and 3 are made when reached, each laid
// over the page before it, and deleted when left. Back removes only the current page;
// close and done take the whole wizard away at once (later pages deleted, page 1 hidden),
// so the next present() starts on page 1 again. While page 1 is up, the window's
// title-bar buttons are hidden; they come back as they were when it goes.
// Main thread only.
class ConnectHelpController : public OverlayWidget {
    Q_OBJECT
public:
    // Page 1. `parent` is the widget the wizard covers (the main window's content).
    explicit ConnectHelpController(QWidget *parent);
    ~ConnectHelpController() override;

    // Shows page 1 over its parent, raised, with no later page open.
    void present();

    int page() const { return page_; }
    // The page laid over this one, or null.
    ConnectHelpController *nextPage() const { return nextPage_; }

    QPushButton *closeBtn() const { return closeBtn_; }
    QPushButton *nextBtn() const { return nextBtn_; } // pages 1 and 2
    QPushButton *preBtn() const { return preBtn_; } // pages 2 and 3
    QPushButton *doneBtn() const { return doneBtn_; } // page 3
    QPushButton *urlCopyBtn() const { return urlCopyBtn_; } // page 3
    QPushButton *urlOpenBtn() const { return urlOpenBtn_; } // page 3

    // The file:// address of the help page installed with the program.
    static QString helpPageUrl();

public Q_SLOTS:
    void next1BtnAction();
    void next2BtnAction();
    void pre2BtnAction();
    void pre3BtnAction();
    void closeBtnAction();
    void doneBtnAction();
    // Puts the help page's address on the clipboard and says so for 1 s.
    void urlCopyBtnAction();
    // Opens the help page in the desktop's browser.
    void urlOpenBtnAction();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    ConnectHelpController(QWidget *parent, int page);
    void buildPage();
    void pushPage(int page);
    void removePage();
    void removeWizard();

    int page_ = 1;
    bool preHidden_ = false;
    QPointer<ConnectHelpController> nextPage_;
    QPushButton *closeBtn_ = nullptr;
    QPushButton *nextBtn_ = nullptr;
    QPushButton *preBtn_ = nullptr;
    QPushButton *doneBtn_ = nullptr;
    QPushButton *urlCopyBtn_ = nullptr;
    QPushButton *urlOpenBtn_ = nullptr;
};

} // namespace velocast
