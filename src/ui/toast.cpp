#include "ui/toast.h"

#include <QAccessible>
#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>

namespace velocast {

Toast *Toast::showText(QWidget *over, const QString &text, std::chrono::milliseconds delay)
{
    auto *toast = new Toast(over, text);
    toast->showOver(over);
    toast->hideAfterDelay(delay);
    return toast;
}

Toast::Toast(QWidget *parent, const QString &text)
    : OverlayWidget(parent)
    , text_(text)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    setAccessibleName(text);
    hideTimer_.setSingleShot(true);
    connect(&hideTimer_, &QTimer::timeout, this, &QWidget::hide);
}

void Toast::hideAfterDelay(std::chrono::milliseconds delay)
{
    hideTimer_.start(delay);
}

void Toast::showEvent(QShowEvent *event)
{
    OverlayWidget::showEvent(event);
    // Screen readers announce the toast like an alert.
    QAccessibleEvent alert(this, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}

void Toast::hideEvent(QHideEvent *event)
{
    OverlayWidget::hideEvent(event);
    hideTimer_.stop();
    if (removeFromSuperViewOnHide_) deleteLater();
}

void Toast::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QFont f = font();
    f.setPixelSize(14);
    p.setFont(f);
    const QFontMetrics fm(f);
    const int maxTextWidth = qMax(40, width() - 64);
    const QRect textRect = fm.boundingRect(QRect(0, 0, maxTextWidth, 1000), Qt::AlignCenter | Qt::TextWordWrap, text_);
    QRect bubble = textRect.adjusted(-20, -12, 20, 12);
    bubble.moveCenter(rect().center());
    QPainterPath path;
    path.addRoundedRect(QRectF(bubble), 8, 8);
    p.fillPath(path, QColor(0, 0, 0, 191));
    p.setPen(Qt::white);
    p.drawText(bubble, Qt::AlignCenter | Qt::TextWordWrap, text_);
}

} // namespace velocast
