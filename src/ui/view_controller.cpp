#include "ui/view_controller.h"

#include "Extend/CommonTool/Airplay/airplay_control.h"
#include "capture/session/mac_screen_capture.h"
#include "common/log.h"
#include "common/main_thread.h"
#include "control/net_control.h"
#include "net/mac_net_check.h"
#include "ui/main_window_icons.h"
#include "ui/miracast_controller.h"
#include "ui/texts.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QRegularExpression>
#include <QTimer>
#include <QVBoxLayout>

namespace velocast {

// A small rotating arc shown while connecting.
class Spinner : public QWidget {
public:
    explicit Spinner(QWidget *parent) : QWidget(parent)
    {
        setFixedSize(28, 28);
        timer_.setInterval(40);
        QObject::connect(&timer_, &QTimer::timeout, this, [this] {
            angle_ = (angle_ + 12) % 360;
            update();
        });
    }
    void setRunning(bool running) { running ? timer_.start() : timer_.stop(); }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(QPen(QColor(128, 130, 255), 3, Qt::SolidLine, Qt::RoundCap));
        p.drawArc(rect().adjusted(3, 3, -3, -3), -angle_ * 16, 270 * 16);
    }

private:
    QTimer timer_;
    int angle_ = 0;
};

ViewController::ViewController(NetControl &control, bool watchNetwork, QWidget *parent)
    : QWidget(parent), control_(control)
{
    setObjectName(QStringLiteral("ViewController"));
    buildViews();
    noNetView_->hide();
    loadingBackView_->hide();
    tipBackView_->hide();
    configTextField();
    session_ = std::make_unique<ConnectionSession>(*this, control_);
    session_->setReceiverAddressHandler([](const QString &ip) {
        MacScreenCapture::shareCapture().setIpStr(ip);
        AirplayControl::shareControl().setIpStr(ip);
    });
    if (watchNetwork) {
        wifiCheck_ = std::make_unique<MacNetCheck>();
        // Called on the monitor's own thread; the widgets are only touched on the main thread.
        QPointer<ViewController> guard(this);
        wifiCheck_->setWifiStateBlock([guard](bool hasNet, bool isWifi, const QString &name, const QString &ip) {
            runOnMainThread([guard, hasNet, isWifi, name, ip] {
                if (guard) guard->configNetName(name, ip, isWifi, hasNet);
            });
        });
        wifiCheck_->checkWiFiState();
    }
}

ViewController::~ViewController()
{
    // The monitor's thread may still be about to queue a report; it finds the guard empty.
    wifiCheck_.reset();
    session_.reset();
}

void ViewController::buildViews()
{
    setAutoFillBackground(true);
    QPalette pal = palette();
    pal.setColor(QPalette::Window, Qt::white);
    setPalette(pal);

    auto *outer = new QVBoxLayout(this);
    outer->setContentsMargins(32, 28, 32, 24);
    outer->setSpacing(18);
    outer->addStretch(2);

    auto *mark = new QLabel(this);
    mark->setPixmap(velocastAppIcon().pixmap(72, 72));
    mark->setAlignment(Qt::AlignCenter);
    mark->setAccessibleName(QStringLiteral("Velocast"));
    outer->addWidget(mark);

    auto *title = new QLabel(text::kEnterCode, this);
    title->setAlignment(Qt::AlignCenter);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.25);
    title->setFont(titleFont);
    outer->addWidget(title);

    codeView_ = new QWidget(this);
    codeView_->setObjectName(QStringLiteral("codeView"));
    auto *codeRow = new QHBoxLayout(codeView_);
    codeRow->setSpacing(10);
    codeRow->addStretch();
    for (int i = 0; i < 6; ++i) {
        auto *box = new QLineEdit(codeView_);
        box->setObjectName(QStringLiteral("field%1").arg(i + 1));
        box->setAccessibleName(text::kCodeBoxName.arg(i + 1));
        box->setAlignment(Qt::AlignCenter);
        box->setFixedSize(48, 56);
        QFont f = box->font();
        f.setPointSizeF(f.pointSizeF() * 1.8);
        box->setFont(f);
        box->setStyleSheet(QStringLiteral("QLineEdit { border: 2px solid rgb(224,231,238); border-radius: 6px; background: white; }"
                                          "QLineEdit:focus { border-color: rgb(128,130,255); }"));
        box->installEventFilter(this);
        connect(box, &QLineEdit::textEdited, this, [this, box](const QString &s) { controlTextDidChange(box, s); });
        fields_[size_t(i)] = box;
        codeRow->addWidget(box);
    }
    codeRow->addStretch();
    outer->addWidget(codeView_);

    noNetView_ = new QWidget(this);
    noNetView_->setObjectName(QStringLiteral("noNetView"));
    auto *noNetRow = new QVBoxLayout(noNetView_);
    auto *noNetImage = new QLabel(noNetView_);
    noNetImage->setPixmap(noNetworkImage(48, devicePixelRatioF()));
    noNetImage->setAlignment(Qt::AlignCenter);
    noNetImage->setAccessibleName(text::kNoNetwork);
    auto *noNetText = new QLabel(text::kNoNetwork, noNetView_);
    noNetText->setAlignment(Qt::AlignCenter);
    noNetRow->addWidget(noNetImage);
    noNetRow->addWidget(noNetText);
    outer->addWidget(noNetView_);

    outer->addStretch(3);

    // Network line, replaced by the loading view while connecting.
    wifiTipBackView_ = new QWidget(this);
    wifiTipBackView_->setObjectName(QStringLiteral("wifiTipBackView"));
    auto *netRow = new QHBoxLayout(wifiTipBackView_);
    netRow->setContentsMargins(0, 0, 0, 0);
    netRow->addStretch();
    wifiTipImageView_ = new QLabel(wifiTipBackView_);
    wifiTipImageView_->setFixedSize(20, 20);
    wifiTipLabel_ = new QLabel(wifiTipBackView_);
    wifiField_ = new QLabel(wifiTipBackView_);
    wifiField_->setTextFormat(Qt::PlainText);
    netRow->addWidget(wifiTipImageView_);
    netRow->addWidget(wifiTipLabel_);
    netRow->addWidget(wifiField_);
    netRow->addStretch();
    outer->addWidget(wifiTipBackView_);

    loadingBackView_ = new QWidget(this);
    loadingBackView_->setObjectName(QStringLiteral("loadingBackView"));
    auto *loadRow = new QHBoxLayout(loadingBackView_);
    loadRow->setContentsMargins(0, 0, 0, 0);
    loadRow->addStretch();
    spinner_ = new Spinner(loadingBackView_);
    auto *loadingText = new QLabel(text::kConnecting, loadingBackView_);
    cancelButton_ = new QPushButton(text::kCancel, loadingBackView_);
    cancelButton_->setObjectName(QStringLiteral("cancelButton"));
    // 1-point border in full-brightness white, corner radius 4.
    cancelButton_->setStyleSheet(QStringLiteral(
        "QPushButton { border: 1px solid rgb(255,255,255); border-radius: 4px; padding: 4px 14px;"
        " background: rgb(128,130,255); color: white; }"
        "QPushButton:focus { border-color: rgb(40,40,120); }"));
    connect(cancelButton_, &QPushButton::clicked, this, &ViewController::cancelConnectButtonAction);
    loadRow->addWidget(spinner_);
    loadRow->addWidget(loadingText);
    loadRow->addSpacing(12);
    loadRow->addWidget(cancelButton_);
    loadRow->addStretch();
    outer->addWidget(loadingBackView_);

    tipBackView_ = new QWidget(this);
    tipBackView_->setObjectName(QStringLiteral("tipBackView"));
    auto *tipRow = new QHBoxLayout(tipBackView_);
    tipRow->setContentsMargins(0, 0, 0, 0);
    tipInfoLabel_ = new QLabel(tipBackView_);
    tipInfoLabel_->setTextFormat(Qt::PlainText);
    tipInfoLabel_->setAlignment(Qt::AlignCenter);
    tipInfoLabel_->setStyleSheet(QStringLiteral("color: rgb(235,87,87);"));
    tipRow->addWidget(tipInfoLabel_);
    outer->addWidget(tipBackView_);

    // Tab order follows the boxes, then the cancel button.
    for (size_t i = 0; i + 1 < fields_.size(); ++i) setTabOrder(fields_[i], fields_[i + 1]);
    setTabOrder(fields_.back(), cancelButton_);
}

// --- The boxes ----------------------------------------------------------------------

void ViewController::activate(QLineEdit *box)
{
    box->setReadOnly(false);
    box->setFocusPolicy(Qt::StrongFocus);
    box->clear();
    box->setFocus(Qt::OtherFocusReason);
}

void ViewController::lock(QLineEdit *box)
{
    if (QWidget *focused = window()->focusWidget()) focused->clearFocus();
    box->setReadOnly(true);
    box->setFocusPolicy(Qt::NoFocus);
}

void ViewController::configTextField()
{
    for (size_t i = 1; i < fields_.size(); ++i) {
        fields_[i]->setReadOnly(true);
        fields_[i]->setFocusPolicy(Qt::NoFocus);
    }
}

void ViewController::reSetTextFields()
{
    textCode_.clear();
    for (QLineEdit *box : fields_) box->clear();
    configTextField();
    activate(fields_[0]);
}

bool ViewController::onlyNumber(const QString &s)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]+$"));
    return digits.match(s).hasMatch();
}

void ViewController::controlTextDidChange(QLineEdit *box, const QString &s)
{
    if (!onlyNumber(s)) {
        box->setText(QString());
        return;
    }
    if (textCode_.size() >= 6 && !s.isEmpty()) {
        // A replacement typed into a full last box is kept this way.
        box->setText(s.right(1));
        textCode_.chop(1);
        textCode_ += s;
        return;
    }
    if (!textCode_.isEmpty()) {
        if (s.isEmpty()) {
            textCode_.chop(1);
        } else {
            textCode_ += s;
        }
    } else {
        textCode_ = s;
    }
    textFiledResponderRefresh();
}

bool ViewController::deleteBackward(QLineEdit *box)
{
    if (box->text().isEmpty() && !textCode_.isEmpty()) {
        box->setFocusPolicy(Qt::NoFocus);
        textCode_.chop(1);
    }
    textFiledResponderRefresh();
    return false;
}

void ViewController::textFiledResponderRefresh()
{
    const qsizetype length = textCode_.size();
    if (length == 0) {
        activate(fields_[0]);
    } else if (length <= 5) {
        lock(fields_[size_t(length - 1)]);
        activate(fields_[size_t(length)]);
    } else if (length == 6) {
        session_->textCode(textCode_);
        lock(fields_[5]);
    }
}

bool ViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::KeyPress && static_cast<QKeyEvent *>(event)->key() == Qt::Key_Backspace) {
        for (QLineEdit *box : fields_) {
            if (box == watched && !box->isReadOnly()) return deleteBackward(box);
        }
    }
    return QWidget::eventFilter(watched, event);
}

void ViewController::cancelConnectButtonAction() { session_->cancelConnectButtonAction(); }

// --- Network line -------------------------------------------------------------------

void ViewController::configNetName(const QString &name, const QString &ipStr, bool isWifi, bool hasNet)
{
    logLine(lcUi(), QStringLiteral("net : %1 %2").arg(name, ipStr));
    wifiField_->setText(name);
    session_->setIpStr(ipStr);
    control_.setLocalIPStr(ipStr);

    const bool wasHidden = codeView_->isHidden();
    codeView_->setHidden(!hasNet);
    noNetView_->setVisible(!hasNet);
    if (wasHidden && hasNet) reSetTextFields();

    if (hasNet) {
        wifiTipLabel_->setText(isWifi ? text::kWifiLabel : text::kWiredLabel);
        wifiTipImageView_->setPixmap(isWifi ? homeWifiImage(20, devicePixelRatioF()) : homeWireImage(20, devicePixelRatioF()));
        wifiTipImageView_->setAccessibleName(isWifi ? text::kWifiLabel : text::kWiredLabel);
    } else {
        wifiTipLabel_->setText(QString());
        wifiTipImageView_->clear();
    }
}

// --- Session view -------------------------------------------------------------------

void ViewController::setLoadingVisible(bool loading)
{
    wifiTipBackView_->setHidden(loading);
    loadingBackView_->setVisible(loading);
    spinner_->setRunning(loading);
    if (loading) cancelButton_->setFocus(Qt::OtherFocusReason);
}

void ViewController::setTipVisible(bool visible, const QString &text)
{
    if (visible) tipInfoLabel_->setText(text);
    tipBackView_->setVisible(visible);
}

void ViewController::showCastingPanel(const QString &pcName)
{
    if (miracastVC_) miracastVC_->deleteLater();
    miracastVC_ = new MiracastController(this);
    miracastVC_->setPcName(pcName);
    miracastVC_->setGeometry(rect());
    miracastVC_->show();
    miracastVC_->raise();
}

void ViewController::setCastingPanelName(const QString &pcName)
{
    if (miracastVC_) miracastVC_->setPcName(pcName);
}

void ViewController::removeCastingPanel()
{
    if (miracastVC_) miracastVC_->hide();
    // Keyboard users land back in the open code box, not on a hidden panel.
    if (const qsizetype open = textCode_.size(); open < 6 && isCodeViewVisible())
        fields_[size_t(open)]->setFocus(Qt::OtherFocusReason);
    if (QWidget *w = window(); w->isMinimized()) {
        w->showNormal();
        w->raise();
        w->activateWindow();
    }
}

void ViewController::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    if (miracastVC_) miracastVC_->setGeometry(rect());
}

MiracastController *ViewController::miracastVC() const { return miracastVC_; }

bool ViewController::isLoadingVisible() const { return !loadingBackView_->isHidden(); }
bool ViewController::isTipVisible() const { return !tipBackView_->isHidden(); }
QString ViewController::tipText() const { return tipInfoLabel_->text(); }
bool ViewController::isCodeViewVisible() const { return !codeView_->isHidden(); }
QString ViewController::networkLabel() const { return wifiTipLabel_->text(); }
QString ViewController::networkName() const { return wifiField_->text(); }

} // namespace velocast
