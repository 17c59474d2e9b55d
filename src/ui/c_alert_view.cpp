#include "ui/c_alert_view.h"

#include "ui/c_button.h"
#include "ui/root_view.h"
#include "ui/texts.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

namespace velocast {

namespace {
constexpr int kDetailMargin = 20;

QWidget *divider(QWidget *parent, bool vertical)
{
    auto *line = new QWidget(parent);
    if (vertical)
        line->setFixedWidth(1);
    else
        line->setFixedHeight(1);
    line->setAutoFillBackground(true);
    QPalette pal = line->palette();
    pal.setColor(QPalette::Window, QColor(232, 232, 232));
    line->setPalette(pal);
    return line;
}

void styleBoxButton(CButton *b, const QColor &title)
{
    b->setMinimumHeight(46);
    b->setBackgroundNormalColor(Qt::white);
    b->setBorderNormalColor(Qt::white);
    b->setBackgroundHighlightColor(QColor(242, 242, 247));
    b->setBorderHighlightColor(QColor(242, 242, 247));
    b->setTitleNormalColor(title);
    b->setTitleHighlightColor(title);
    b->setCornerRadius(12);
}
} // namespace

CAlertView *CAlertView::loadFromNib(QWidget *parent)
{
    auto *view = new CAlertView(parent);
    view->hide();
    return view;
}

CAlertView::CAlertView(QWidget *parent)
    : OverlayWidget(parent)
{
    alertBg_ = new RootView(this);
    alertBg_->setBackgroundColor(Qt::white);
    alertBg_->setCornerRadius(12);
    alertBg_->setFixedWidth(300);

    titleLabel_ = new QLabel(alertBg_);
    titleLabel_->setTextFormat(Qt::PlainText);
    titleLabel_->setAlignment(Qt::AlignCenter);
    titleLabel_->setStyleSheet(QStringLiteral("color: rgb(51,51,51); font-size: 16px; font-weight: bold;"));
    detailLabel_ = new QLabel(alertBg_);
    detailLabel_->setTextFormat(Qt::PlainText);
    detailLabel_->setAlignment(Qt::AlignCenter);
    detailLabel_->setWordWrap(true);
    detailLabel_->setStyleSheet(QStringLiteral("color: rgb(102,102,102); font-size: 13px;"));

    splitLine_ = divider(alertBg_, false);
    cancelBtn_ = new CButton(text::kCancel, alertBg_);
    confirmBtn_ = new CButton(text::kConfirm, alertBg_);
    styleBoxButton(cancelBtn_, QColor(102, 102, 102));
    styleBoxButton(confirmBtn_, QColor(128, 130, 255));
    connect(cancelBtn_, &QAbstractButton::clicked, this, &CAlertView::cancelBtnAction);
    connect(confirmBtn_, &QAbstractButton::clicked, this, &CAlertView::confirmBtnAction);

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(0);
    buttons->addWidget(cancelBtn_, 1);
    buttons->addWidget(divider(alertBg_, true));
    buttons->addWidget(confirmBtn_, 1);

    auto *box = new QVBoxLayout(alertBg_);
    box->setContentsMargins(0, 22, 0, 0);
    box->setSpacing(0);
    box->addWidget(titleLabel_);
    box->addSpacing(10);
    auto *detailRow = new QHBoxLayout;
    detailRow->setContentsMargins(kDetailMargin, 0, kDetailMargin, 0);
    detailRow->addWidget(detailLabel_);
    box->addLayout(detailRow);
    box->addSpacing(20);
    box->addWidget(splitLine_);
    box->addLayout(buttons);

    auto *outer = new QVBoxLayout(this);
    outer->addStretch();
    outer->addWidget(alertBg_, 0, Qt::AlignHCenter);
    outer->addStretch();

    setTabOrder(cancelBtn_, confirmBtn_);
    fitBox();
}

void CAlertView::setTitle(const QString &title)
{
    titleLabel_->setText(title);
    titleLabel_->setVisible(!title.isEmpty());
    fitBox();
}

void CAlertView::setDetail(const QString &detail)
{
    detailLabel_->setText(detail);
    fitBox();
}

void CAlertView::fitBox()
{
    // The detail wraps inside the box's fixed width; the box then takes the height its
    // contents need.
    alertBg_->ensurePolished(); // style sheet fonts count
    const int detailWidth = alertBg_->width() - 2 * kDetailMargin;
    detailLabel_->setFixedSize(detailWidth, qMax(0, detailLabel_->heightForWidth(detailWidth)));
    alertBg_->setFixedHeight(alertBg_->layout()->totalSizeHint().height());
}

void CAlertView::setButtonTitles(const QString &cancel, const QString &confirm)
{
    cancelBtn_->setText(cancel);
    confirmBtn_->setText(confirm);
}

void CAlertView::confirmBtnAction()
{
    finish(false);
}
void CAlertView::cancelBtnAction()
{
    finish(true);
}

void CAlertView::finish(bool cancelled)
{
    hide();
    // The handler may delete this prompt (deleteLater) or open a modal window.
    if (BlockClick block = blockClick_) block(cancelled);
}

void CAlertView::showEvent(QShowEvent *event)
{
    OverlayWidget::showEvent(event);
    fitBox();
    confirmBtn_->setFocus(Qt::OtherFocusReason);
}

void CAlertView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), QColor(0, 0, 0, 26)); // black at 10 %
}

void CAlertView::mousePressEvent(QMouseEvent *event)
{
    event->accept(); // nothing below the prompt takes clicks while it is up
}

void CAlertView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape)
        cancelBtnAction();
    else if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        if (auto *b = qobject_cast<CButton *>(focusWidget()))
            b->click();
        else
            confirmBtnAction();
    } else {
        OverlayWidget::keyPressEvent(event);
    }
}

} // namespace velocast
