#pragma once

#include "common/notification_center.h"

#include <QPointer>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace velocast {

class CAlertView;
class CButton;
class RequestLoadingView;
class RootView;

// The casting panel, laid over the main window's content once a receiver has admitted us.
// It shows the receiver's name, a start/stop button, a drop-down that picks the casting
// road (the mirroring road first, "复制屏幕") and a disconnect button. It never calls the
// casting pipelines: it posts and observes notifications, whose names depend on the road:
//
//   road        start                      stop                      stopped elsewhere
//   mirroring   NOTICE_STARTSCREENCAPTURE  NOTICE_STOPSCREENCAPTURE  NOTICE_BESTOPSCREENCAPTURE
//   second      AIRPLAYCONTROL_START       AIRPLAYCONTROL_STOP       NOTICE_BESTOP_AIRPLAY
//
// The "stopped elsewhere" observer is registered once, at construction, while the road is
// still mirroring; switching roads later does not move it, so NOTICE_BESTOP_AIRPLAY reaches
// no observer here. That is intended.
//
// On the first showing ever (preference "InitPCName" unset) it prompts for a display name
// and offers to open the settings window. Main thread only; notification handlers that
// arrive on another thread are forwarded to the panel's thread.
class MiracastController : public QWidget {
    Q_OBJECT
public:
    explicit MiracastController(QWidget *parent = nullptr);
    ~MiracastController() override;

    // The connected receiver's name, shown as plain text.
    void setPcName(const QString &name);
    QString pcName() const { return pcName_; }

    // Picks the notification names of a road (false: mirroring, the default).
    void useAirplay(bool airplay);
    QString startNotice() const { return startNotice_; }
    QString stopNotice() const { return stopNotice_; }
    QString beStopNotice() const { return beStopNotice_; }

    // Parts of the panel, for the main window's tests and screenshots.
    CButton *miracastStateBtn() const { return miracastStateBtn_; }
    QPushButton *miracastMenuBtn() const { return miracastMenuBtn_; }
    QPushButton *miracastMenuBtn2() const { return miracastMenuBtn2_; }
    QLabel *mircastMenuLabel() const { return mircastMenuLabel_; }
    QLabel *mircastMenuLabel2() const { return mircastMenuLabel2_; }
    RootView *miracastMenuBtnBg2() const { return miracastMenuBtnBg2_; }
    QWidget *miracastMenuBtnTouchView2() const { return miracastMenuBtnTouchView2_; }
    QPushButton *connectBtn() const { return connectBtn_; }
    QLabel *pc_nameTF() const { return pc_nameTF_; }
    RequestLoadingView *loadingView() const;
    CAlertView *nameAlertView() const;

public Q_SLOTS:
    void miracastStateBtnAction();
    // Hides the panel and posts NOTICE_DISCONNECT; the connection session ends the
    // connection and the main window deletes the panel.
    void connectBtnAction();
    void miracastMenuBtnAction();
    void miracastMenuBtn2Action();
    void fingerTapped();
    // A text-only overlay over the panel for 1.5 s.
    void showToast(const QString &text);

protected:
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void addNotice();
    void initViews();
    void screenCaptureState(const QVariant &object);
    void setUIStopPutScreen();
    void showRequestView();
    void menuBtnWithSelect();
    void menuBtnWithNormal();
    void menuBtnWithChange();
    void placeDropDown();

    QString pcName_;
    QString startNotice_;
    QString stopNotice_;
    QString beStopNotice_;

    QPointer<RequestLoadingView> loadingView_;
    QPointer<CAlertView> nameAlertView_;

    QPushButton *connectBtn_ = nullptr;
    CButton *miracastStateBtn_ = nullptr;
    QPushButton *miracastMenuBtn_ = nullptr;
    RootView *miracastMenuBtnBg_ = nullptr;
    QLabel *miracastMenuImageView_ = nullptr;
    QLabel *mircastMenuLabel_ = nullptr;
    QPushButton *miracastMenuBtn2_ = nullptr;
    RootView *miracastMenuBtnBg2_ = nullptr;
    QLabel *mircastMenuLabel2_ = nullptr;
    QWidget *miracastMenuBtnTouchView2_ = nullptr;
    RootView *bottomBgView_ = nullptr;
    QLabel *pc_nameTF_ = nullptr;

    // Declared last: dropped first, before the widgets they touch go away.
    Observation showRequestObservation_;
    Observation captureStateObservation_;
    Observation beStopObservation_;
};

} // namespace velocast
