#include "ui/request_loading_view.h"

#include "common/log.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "ui/c_button.h"
#include "ui/loading_animation.h"
#include "ui/root_view.h"
#include "ui/texts.h"

#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

namespace velocast {

RequestLoadingView::RequestLoadingView(QWidget *parent)
    : OverlayWidget(parent)
{
    loadingView_ = new RootView(this);
    loadingView_->setBackgroundColor(Qt::white);
    loadingView_->setCornerRadius(12);
    loadingView_->setFixedWidth(260);

    imageView_ = new LoadingAnimation(loadingView_);
    textLabel_ = new QLabel(text::kWaitingForReceiver, loadingView_);
    textLabel_->setAlignment(Qt::AlignCenter);
    textLabel_->setWordWrap(true);
    textLabel_->setContentsMargins(16, 0, 16, 0);
    textLabel_->setStyleSheet(QStringLiteral("color: rgb(51,51,51); font-size: 14px;"));

    splitLine_ = new QWidget(loadingView_);
    splitLine_->setFixedHeight(1);
    splitLine_->setAutoFillBackground(true);
    splitLine_->setStyleSheet(QStringLiteral("background-color: rgb(232,232,232);"));

    cancelBtn_ = new CButton(text::kCancel, loadingView_);
    cancelBtn_->setMinimumHeight(44);
    cancelBtn_->setBackgroundNormalColor(Qt::white);
    cancelBtn_->setBackgroundHighlightColor(QColor(242, 242, 247));
    cancelBtn_->setBorderNormalColor(Qt::white);
    cancelBtn_->setBorderHighlightColor(QColor(242, 242, 247));
    cancelBtn_->setTitleNormalColor(QColor(128, 130, 255));
    cancelBtn_->setTitleHighlightColor(QColor(128, 130, 255));
    cancelBtn_->setCornerRadius(12);
    connect(cancelBtn_, &QAbstractButton::clicked, this, &RequestLoadingView::cancelBtnAction);

    auto *card = new QVBoxLayout(loadingView_);
    card->setContentsMargins(0, 26, 0, 0);
    card->setSpacing(0);
    card->addWidget(imageView_, 0, Qt::AlignHCenter);
    card->addSpacing(16);
    card->addWidget(textLabel_);
    card->addSpacing(22);
    card->addWidget(splitLine_);
    card->addWidget(cancelBtn_);

    fitCard();

    auto *outer = new QVBoxLayout(this);
    outer->addStretch();
    outer->addWidget(loadingView_, 0, Qt::AlignHCenter);
    outer->addStretch();
}

void RequestLoadingView::fitCard()
{
    // The text wraps inside the card's fixed width; the card takes the height it needs.
    loadingView_->ensurePolished(); // style sheet fonts count
    textLabel_->setFixedHeight(textLabel_->heightForWidth(loadingView_->width()));
    loadingView_->setFixedHeight(loadingView_->layout()->totalSizeHint().height());
}

RequestLoadingView::~RequestLoadingView()
{
    logLine(lcUi(), QStringLiteral("dealloc"));
}

void RequestLoadingView::cancelBtnAction()
{
    hide();
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_CANCELREQUEST));
}

void RequestLoadingView::showEvent(QShowEvent *event)
{
    OverlayWidget::showEvent(event);
    fitCard();
    cancelBtn_->setFocus(Qt::OtherFocusReason);
}

void RequestLoadingView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), QColor(0, 0, 0, 26)); // black at 10 %
}

void RequestLoadingView::mousePressEvent(QMouseEvent *event)
{
    event->accept(); // the panel below is not clickable while we wait
}

void RequestLoadingView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape)
        cancelBtnAction();
    else
        OverlayWidget::keyPressEvent(event);
}

} // namespace velocast
