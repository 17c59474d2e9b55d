#pragma once

#include "control/connection_session.h"

#include <QPointer>
#include <QString>
#include <QWidget>

#include <array>
#include <memory>

class QLabel;
class QLineEdit;
class QPushButton;

namespace velocast {

class MacNetCheck;
class MiracastController;
class NetControl;
class Spinner;

// The main window's content: six one-digit boxes for the connect code, the network line, the
// no-network view, the loading view with its cancel button and the tip line; it runs the
// connection session and lays the casting panel over itself once a receiver admits us.
//
// The boxes: typing moves to the next box by itself, backspace in an empty box steps back,
// and the sixth digit starts the connection. textCode (the digits so far) alone decides which
// box is open: with L digits, box L+1.
class ViewController : public QWidget, public ConnectionSessionView {
    Q_OBJECT
public:
    // With watchNetwork false no network monitor is made; the owner reports the network
    // through configNetName() (tests do).
    ViewController(NetControl &control, bool watchNetwork = true, QWidget *parent = nullptr);
    ~ViewController() override;

    ConnectionSession &session() { return *session_; }
    NetControl &control() { return control_; }
    QString textCode() const { return textCode_; }
    QLineEdit *field(int n) const { return fields_.at(size_t(n - 1)); } // 1..6
    MiracastController *miracastVC() const;

    // Network report (main thread): name, own IPv4 address, Wi-Fi or wired, has network.
    void configNetName(const QString &name, const QString &ipStr, bool isWifi, bool hasNet);

    void configTextField();
    static bool onlyNumber(const QString &s);
    void controlTextDidChange(QLineEdit *box, const QString &s);
    // Backspace in a box; always false so the box still deletes by itself.
    bool deleteBackward(QLineEdit *box);
    void textFiledResponderRefresh();
    void cancelConnectButtonAction();

    // ConnectionSessionView
    void reSetTextFields() override;
    void setLoadingVisible(bool loading) override;
    void setTipVisible(bool visible, const QString &text) override;
    void showCastingPanel(const QString &pcName) override;
    void setCastingPanelName(const QString &pcName) override;
    void removeCastingPanel() override;

    // For tests and screenshots.
    bool isLoadingVisible() const;
    bool isTipVisible() const;
    QString tipText() const;
    bool isCodeViewVisible() const;
    QString networkLabel() const;
    QString networkName() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void buildViews();
    void activate(QLineEdit *box);
    void lock(QLineEdit *box);

    NetControl &control_;
    std::unique_ptr<ConnectionSession> session_;
    std::unique_ptr<MacNetCheck> wifiCheck_;
    QString textCode_;

    std::array<QLineEdit *, 6> fields_{};
    QWidget *codeView_ = nullptr;
    QWidget *noNetView_ = nullptr;
    QWidget *wifiTipBackView_ = nullptr;
    QLabel *wifiField_ = nullptr;
    QLabel *wifiTipLabel_ = nullptr;
    QLabel *wifiTipImageView_ = nullptr;
    QWidget *loadingBackView_ = nullptr;
    Spinner *spinner_ = nullptr;
    QPushButton *cancelButton_ = nullptr;
    QWidget *tipBackView_ = nullptr;
    QLabel *tipInfoLabel_ = nullptr;
    QPointer<MiracastController> miracastVC_;
};

} // namespace velocast
