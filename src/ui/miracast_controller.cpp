#include "ui/miracast_controller.h"

#include "common/log.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "ui/c_alert_view.h"
#include "ui/c_button.h"
#include "ui/drawn_images.h"
#include "ui/request_loading_view.h"
#include "ui/root_view.h"
#include "ui/setting_controller.h"
#include "ui/texts.h"
#include "ui/toast.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <chrono>

namespace velocast {

namespace {

using namespace std::chrono_literals;

constexpr auto kToastTime = 1500ms;
const QColor kAccent(128, 130, 255);
const QColor kFrameBorder(224, 231, 238);
const QColor kFrameBorderOpen(178, 179, 255);
constexpr QSize kArrowSize(16, 16);

QString name(const char *notice)
{
    return QString::fromLatin1(notice);
}

// A click-catching layer: any press on it is reported and swallowed.
class TouchView : public QWidget {
public:
    using QWidget::QWidget;
    std::function<void()> tapped;

protected:
    void mousePressEvent(QMouseEvent *event) override
    {
        event->accept();
        if (tapped) tapped();
    }
};

// A drop-down entry: a flat button whose look comes from the frame behind it.
QPushButton *entryButton(QWidget *parent)
{
    auto *b = new QPushButton(parent);
    b->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    b->setFlat(true);
    b->setAutoDefault(false);
    b->setCursor(Qt::PointingHandCursor);
    b->setStyleSheet(QStringLiteral("QPushButton { background: transparent; border: none; }"
                                    "QPushButton:focus { background: rgb(236,238,255); border-radius: 2px; }"));
    return b;
}

QLabel *entryLabel(const QString &text, QWidget *parent)
{
    auto *l = new QLabel(text, parent);
    l->setTextFormat(Qt::PlainText);
    l->setAttribute(Qt::WA_TransparentForMouseEvents);
    l->setStyleSheet(QStringLiteral("color: rgb(51,51,51); font-size: 14px;"));
    return l;
}

} // namespace

MiracastController::MiracastController(QWidget *parent)
    : QWidget(parent)
{
    useAirplay(false);
    addNotice();
    initViews();
}

MiracastController::~MiracastController() = default;

RequestLoadingView *MiracastController::loadingView() const
{
    return loadingView_;
}
CAlertView *MiracastController::nameAlertView() const
{
    return nameAlertView_;
}

void MiracastController::useAirplay(bool airplay)
{
    if (airplay) {
        startNotice_ = name(notice::AIRPLAYCONTROL_START);
        stopNotice_ = name(notice::AIRPLAYCONTROL_STOP);
        beStopNotice_ = name(notice::NOTICE_BESTOP_AIRPLAY);
    } else {
        startNotice_ = name(notice::NOTICE_STARTSCREENCAPTURE);
        stopNotice_ = name(notice::NOTICE_STOPSCREENCAPTURE);
        beStopNotice_ = name(notice::NOTICE_BESTOPSCREENCAPTURE);
    }
}

void MiracastController::addNotice()
{
    // Handlers run on the posting thread; widget work belongs to ours.
    auto onOurThread
        = [this](std::function<void()> work) { QMetaObject::invokeMethod(this, std::move(work), Qt::AutoConnection); };
    NotificationCenter &center = NotificationCenter::defaultCenter();
    showRequestObservation_ = center.addObserver(name(notice::NOTICE_SHOWREQUESTVIEW),
        [this, onOurThread](const QVariant &) { onOurThread([this] { showRequestView(); }); });
    captureStateObservation_ = center.addObserver(name(notice::NOTICE_SCREENCAPTURESTATE),
        [this, onOurThread](const QVariant &object) { onOurThread([this, object] { screenCaptureState(object); }); });
    // Registered once, with the road as it is now (see the class comment).
    beStopObservation_ = center.addObserver(
        beStopNotice_, [this, onOurThread](const QVariant &) { onOurThread([this] { setUIStopPutScreen(); }); });
}

void MiracastController::initViews()
{
    setAutoFillBackground(true);
    QPalette pal = palette();
    pal.setColor(QPalette::Window, Qt::white);
    setPalette(pal);

    // Receiver.
    auto *caption = new QLabel(text::kConnectedReceiver, this);
    caption->setAlignment(Qt::AlignCenter);
    caption->setStyleSheet(QStringLiteral("color: rgb(153,153,153); font-size: 13px;"));
    pc_nameTF_ = new QLabel(this);
    pc_nameTF_->setTextFormat(Qt::PlainText); // a receiver's name is never markup
    pc_nameTF_->setAlignment(Qt::AlignCenter);
    pc_nameTF_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    pc_nameTF_->setStyleSheet(QStringLiteral("color: rgb(34,34,34); font-size: 22px; font-weight: bold;"));
    caption->setBuddy(pc_nameTF_);

    // Road drop-down: the closed entry shows the road in force, the open one the other.
    auto *roadCaption = new QLabel(text::kCastingRoad, this);
    roadCaption->setStyleSheet(QStringLiteral("color: rgb(102,102,102); font-size: 13px;"));
    miracastMenuBtnBg_ = new RootView(this);
    miracastMenuBtnBg_->setBackgroundColor(Qt::white);
    miracastMenuBtnBg_->setCornerRadius(4);
    miracastMenuBtnBg_->setBorderWidth(2);
    miracastMenuBtnBg_->setBorderColor(kFrameBorder);
    miracastMenuBtnBg_->setFixedSize(220, 40);
    miracastMenuBtn_ = entryButton(miracastMenuBtnBg_);
    miracastMenuBtn_->setCheckable(true);
    miracastMenuBtn_->setAccessibleName(text::kMirrorScreen);
    miracastMenuBtn_->setAccessibleDescription(text::kChooseCastingRoad);
    miracastMenuBtn_->installEventFilter(this); // focus shows on the frame
    miracastMenuBtn_->setStyleSheet(QStringLiteral("QPushButton { background: transparent; border: none; }"));
    mircastMenuLabel_ = entryLabel(text::kMirrorScreen, miracastMenuBtn_);
    miracastMenuImageView_ = new QLabel(miracastMenuBtn_);
    miracastMenuImageView_->setAttribute(Qt::WA_TransparentForMouseEvents);
    miracastMenuImageView_->setFixedSize(kArrowSize);
    auto *menuRow = new QHBoxLayout(miracastMenuBtn_);
    menuRow->setContentsMargins(14, 0, 12, 0);
    menuRow->addWidget(mircastMenuLabel_, 1);
    menuRow->addWidget(miracastMenuImageView_);
    auto *menuFrame = new QHBoxLayout(miracastMenuBtnBg_);
    menuFrame->setContentsMargins(2, 2, 2, 2);
    menuFrame->addWidget(miracastMenuBtn_);
    connect(miracastMenuBtn_, &QAbstractButton::clicked, this, &MiracastController::miracastMenuBtnAction);

    miracastMenuBtnTouchView2_ = new TouchView(this);
    static_cast<TouchView *>(miracastMenuBtnTouchView2_)->tapped = [this] { fingerTapped(); };
    miracastMenuBtnTouchView2_->hide();

    miracastMenuBtnBg2_ = new RootView(this);
    miracastMenuBtnBg2_->setBackgroundColor(QColor(246, 247, 249));
    miracastMenuBtnBg2_->setCornerRadius(4);
    miracastMenuBtnBg2_->setBorderWidth(2);
    miracastMenuBtnBg2_->setBorderColor(kFrameBorder);
    miracastMenuBtnBg2_->hide();
    miracastMenuBtn2_ = entryButton(miracastMenuBtnBg2_);
    mircastMenuLabel2_ = entryLabel(text::kSystemCasting, miracastMenuBtn2_);
    miracastMenuBtn2_->setAccessibleName(text::kSystemCasting);
    auto *row2 = new QHBoxLayout(miracastMenuBtn2_);
    row2->setContentsMargins(14, 0, 12, 0);
    row2->addWidget(mircastMenuLabel2_);
    auto *frame2 = new QHBoxLayout(miracastMenuBtnBg2_);
    frame2->setContentsMargins(2, 2, 2, 2);
    frame2->addWidget(miracastMenuBtn2_);
    connect(miracastMenuBtn2_, &QAbstractButton::clicked, this, &MiracastController::miracastMenuBtn2Action);

    // Start / stop.
    miracastStateBtn_ = new CButton(text::kStartCasting, this);
    miracastStateBtn_->setBackgroundNormalColor(kAccent);
    miracastStateBtn_->setBorderNormalColor(kAccent);
    miracastStateBtn_->setBackgroundHighlightColor(QColor(102, 104, 230));
    miracastStateBtn_->setBorderHighlightColor(QColor(102, 104, 230));
    miracastStateBtn_->setTitleNormalColor(Qt::white);
    miracastStateBtn_->setTitleHighlightColor(Qt::white);
    miracastStateBtn_->setCornerRadius(4);
    miracastStateBtn_->setBorderWidth(0);
    miracastStateBtn_->setFixedSize(220, 44);
    QFont stateFont = miracastStateBtn_->font();
    stateFont.setPixelSize(16);
    miracastStateBtn_->setFont(stateFont);
    connect(miracastStateBtn_, &QAbstractButton::clicked, this, &MiracastController::miracastStateBtnAction);

    // Disconnect, in the bottom band.
    bottomBgView_ = new RootView(this);
    bottomBgView_->setBackgroundColor(QColor(246, 247, 249));
    bottomBgView_->setFixedHeight(52);
    connectBtn_ = new QPushButton(text::kDisconnectButton, bottomBgView_);
    connectBtn_->setFlat(true);
    connectBtn_->setAutoDefault(false);
    connectBtn_->setCursor(Qt::PointingHandCursor);
    connectBtn_->setStyleSheet(
        QStringLiteral("QPushButton { color: rgb(230,80,80); font-size: 14px; border: none; padding: 6px 16px; }"
                       "QPushButton:hover, QPushButton:focus { color: rgb(200,50,50); text-decoration: underline; }"));
    auto *bottomRow = new QHBoxLayout(bottomBgView_);
    bottomRow->addStretch();
    bottomRow->addWidget(connectBtn_);
    bottomRow->addStretch();
    connect(connectBtn_, &QAbstractButton::clicked, this, &MiracastController::connectBtnAction);

    auto *road = new QVBoxLayout;
    road->setSpacing(6);
    road->addWidget(roadCaption);
    road->addWidget(miracastMenuBtnBg_);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addStretch(2);
    column->addWidget(caption);
    column->addSpacing(6);
    column->addWidget(pc_nameTF_);
    column->addStretch(2);
    column->addLayout(road);
    column->setAlignment(road, Qt::AlignHCenter);
    column->addSpacing(18);
    column->addWidget(miracastStateBtn_, 0, Qt::AlignHCenter);
    column->addStretch(3);
    column->addWidget(bottomBgView_);

    setTabOrder(miracastMenuBtn_, miracastMenuBtn2_);
    setTabOrder(miracastMenuBtn2_, miracastStateBtn_);
    setTabOrder(miracastStateBtn_, connectBtn_);

    menuBtnWithNormal();

    if (!Preferences::value(QString::fromLatin1(prefkey::InitPCName)).toBool()) {
        Preferences::setValue(QString::fromLatin1(prefkey::InitPCName), true);
        Preferences::sync();
        logLine(lcUi(), text::kFirstStart);
        nameAlertView_ = CAlertView::loadFromNib(this);
        nameAlertView_->setTitle(text::kNamePromptTitle);
        nameAlertView_->setDetail(text::kNamePromptDetail);
        nameAlertView_->setButtonTitles(text::kNamePromptLater, text::kNamePromptGo);
        nameAlertView_->setBlockClick([self = QPointer<MiracastController>(this)](bool cancelled) {
            if (!self) return;
            if (self->nameAlertView_) self->nameAlertView_->deleteLater();
            self->nameAlertView_ = nullptr;
            if (!cancelled) SettingController::runModal(self->window());
        });
        nameAlertView_->showOver(this);
    } else {
        logLine(lcUi(), text::kNotFirstStart);
    }

    pc_nameTF_->setText(pcName_);
}

void MiracastController::setPcName(const QString &name)
{
    pcName_ = name;
    pc_nameTF_->setText(name);
}

void MiracastController::miracastStateBtnAction()
{
    NotificationCenter &center = NotificationCenter::defaultCenter();
    const QString title = miracastStateBtn_->text();
    if (title == text::kStartCasting) {
        // The title changes only when the receiver's answer arrives.
        center.post(startNotice_);
    } else if (title == text::kStopCasting) {
        miracastStateBtn_->setText(text::kStartCasting);
        center.post(stopNotice_);
    }
}

void MiracastController::screenCaptureState(const QVariant &object)
{
    const QVariantList state = object.toList();
    if (state.size() >= 2) {
        if (state.at(0).toBool()) {
            window()->showMinimized();
            miracastStateBtn_->setText(text::kStopCasting);
        } else {
            showToast(state.at(1).toString());
        }
    }
    if (loadingView_) {
        loadingView_->hide();
        loadingView_->deleteLater();
        loadingView_ = nullptr;
    }
}

void MiracastController::setUIStopPutScreen()
{
    miracastStateBtn_->setText(text::kStartCasting);
    QMetaObject::invokeMethod(
        this,
        [this] {
            QWidget *w = window();
            if (w->isMinimized()) w->setWindowState(w->windowState() & ~Qt::WindowMinimized);
            w->show();
            w->raise();
            w->activateWindow();
        },
        Qt::QueuedConnection);
}

void MiracastController::showRequestView()
{
    if (!loadingView_) loadingView_ = new RequestLoadingView(this);
    loadingView_->showOver(this);
}

void MiracastController::showToast(const QString &text)
{
    Toast::showText(this, text, kToastTime);
}

void MiracastController::connectBtnAction()
{
    hide();
    NotificationCenter::defaultCenter().post(name(notice::NOTICE_DISCONNECT));
}

void MiracastController::miracastMenuBtnAction()
{
    if (miracastMenuBtn_->isChecked())
        menuBtnWithSelect();
    else
        menuBtnWithNormal();
}

void MiracastController::menuBtnWithSelect()
{
    placeDropDown();
    miracastMenuBtnTouchView2_->show();
    miracastMenuBtnTouchView2_->raise();
    miracastMenuBtnBg_->raise();
    miracastMenuBtnBg2_->show();
    miracastMenuBtnBg2_->raise();
    miracastMenuImageView_->setPixmap(drawnImage(QStringLiteral("miracast_arrow_up"), kArrowSize, devicePixelRatioF()));
    miracastMenuBtnBg_->setBackgroundColor(Qt::white);
    miracastMenuBtnBg_->setBorderWidth(2);
    miracastMenuBtnBg_->setBorderColor(kFrameBorderOpen);
}

void MiracastController::menuBtnWithNormal()
{
    miracastMenuBtnBg2_->hide();
    miracastMenuBtnTouchView2_->hide();
    miracastMenuImageView_->setPixmap(
        drawnImage(QStringLiteral("miracast_arrow_down"), kArrowSize, devicePixelRatioF()));
    miracastMenuBtnBg_->setBackgroundColor(Qt::white);
    miracastMenuBtnBg_->setBorderWidth(2);
    miracastMenuBtnBg_->setBorderColor(miracastMenuBtn_->hasFocus() ? kFrameBorderOpen : kFrameBorder);
}

void MiracastController::fingerTapped()
{
    menuBtnWithNormal();
    miracastMenuBtn_->setChecked(false);
}

void MiracastController::miracastMenuBtn2Action()
{
    menuBtnWithChange();
}

void MiracastController::menuBtnWithChange()
{
    menuBtnWithNormal();
    miracastMenuBtn_->setChecked(false);
    const QString chosen = mircastMenuLabel2_->text();
    const QString previous = mircastMenuLabel_->text();
    mircastMenuLabel_->setText(chosen);
    mircastMenuLabel2_->setText(previous);
    miracastMenuBtn_->setAccessibleName(chosen);
    miracastMenuBtn2_->setAccessibleName(previous);
    useAirplay(previous == text::kMirrorScreen);
    miracastMenuBtn_->setFocus(Qt::OtherFocusReason);
}

void MiracastController::placeDropDown()
{
    // The open entry hangs just below the closed one, over whatever lies beneath.
    const QRect closed(miracastMenuBtnBg_->mapTo(this, QPoint(0, 0)), miracastMenuBtnBg_->size());
    miracastMenuBtnBg2_->setGeometry(closed.translated(0, closed.height() + 4));
    miracastMenuBtnTouchView2_->setGeometry(rect());
}

void MiracastController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    // The main action takes the keyboard, unless the name prompt is up.
    if (!event->spontaneous() && !nameAlertView_) miracastStateBtn_->setFocus(Qt::OtherFocusReason);
}

void MiracastController::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    if (miracastMenuBtnBg2_->isVisible()) placeDropDown();
}

bool MiracastController::eventFilter(QObject *watched, QEvent *event)
{
    // Keyboard focus on the closed drop-down shows as the open frame's colour.
    if (watched == miracastMenuBtn_ && (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut)
        && !miracastMenuBtnBg2_->isVisible())
        miracastMenuBtnBg_->setBorderColor(event->type() == QEvent::FocusIn ? kFrameBorderOpen : kFrameBorder);
    return QWidget::eventFilter(watched, event);
}

void MiracastController::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape && miracastMenuBtnBg2_->isVisible())
        fingerTapped();
    else
        QWidget::keyPressEvent(event);
}

} // namespace velocast
