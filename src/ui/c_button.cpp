#include "ui/c_button.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

namespace velocast {

CButton::CButton(QWidget *parent)
    : QPushButton(parent)
{
    setup();
}

CButton::CButton(const QString &title, QWidget *parent)
    : QPushButton(title, parent)
{
    setup();
}

void CButton::setup()
{
    setFlat(true);
    setCheckable(false);
    setAutoDefault(false);
    setAttribute(Qt::WA_Hover);
    titleNormalColor_ = titleHighlightColor_ = Qt::black;
    borderNormalColor_ = borderHighlightColor_ = Qt::black;
    backgroundNormalColor_ = backgroundHighlightColor_ = Qt::black;
    titleColor_ = titleNormalColor_;
    setCursor(Qt::PointingHandCursor);
}

void CButton::setColor(QColor &field, const QColor &color)
{
    if (!color.isValid()) return;
    field = color;
    update();
}

void CButton::setTitleNormalColor(const QColor &color)
{
    setColor(titleNormalColor_, color);
}
void CButton::setTitleHighlightColor(const QColor &color)
{
    setColor(titleHighlightColor_, color);
}
void CButton::setBorderNormalColor(const QColor &color)
{
    setColor(borderNormalColor_, color);
}
void CButton::setBorderHighlightColor(const QColor &color)
{
    setColor(borderHighlightColor_, color);
}
void CButton::setBackgroundNormalColor(const QColor &color)
{
    setColor(backgroundNormalColor_, color);
}
void CButton::setBackgroundHighlightColor(const QColor &color)
{
    setColor(backgroundHighlightColor_, color);
}

void CButton::setCornerRadius(qreal radius)
{
    cornerRadius_ = radius;
    update();
}

void CButton::setBorderWidth(qreal width)
{
    borderWidth_ = width;
    update();
}

QSize CButton::sizeHint() const
{
    const QFontMetrics fm(font());
    return QSize(fm.horizontalAdvance(text()) + 32, qMax(32, fm.height() + 14));
}

void CButton::mousePressEvent(QMouseEvent *event)
{
    // Qt delivers no mouse events to a disabled widget; the check keeps the rule explicit.
    if (!isEnabled() || event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    mouseDown_ = true;
    update();
}

void CButton::mouseMoveEvent(QMouseEvent *event)
{
    // While the button holds the mouse grab Qt defers Leave until the release, so leaving
    // is seen here as a move outside the bounds.
    if (mouseDown_ && !rect().contains(event->position().toPoint())) mouseExited();
}

void CButton::leaveEvent(QEvent *event)
{
    if (mouseDown_) mouseExited();
    QPushButton::leaveEvent(event);
}

void CButton::mouseExited()
{
    mouseDown_ = false;
    update();
}

void CButton::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) return;
    const bool wasDown = mouseDown_;
    mouseDown_ = false;
    update();
    if (wasDown) click();
}

void CButton::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::EnabledChange) {
        if (isEnabled())
            titleColor_ = titleNormalColor_;
        else
            mouseDown_ = false;
        update();
    }
    QPushButton::changeEvent(event);
}

void CButton::hightlightState()
{
    fillColor_ = backgroundHighlightColor_;
    strokeColor_ = borderHighlightColor_;
    titleColor_ = titleNormalColor_;
}

void CButton::normalState()
{
    fillColor_ = backgroundNormalColor_;
    strokeColor_ = borderNormalColor_;
    titleColor_ = titleHighlightColor_;
}

void CButton::paintEvent(QPaintEvent *)
{
    // Space held down on a focused button shows the pressed look as well.
    if (mouseDown_ || isDown())
        hightlightState();
    else
        normalState();

    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    if (!isEnabled()) p.setOpacity(0.45);
    const qreal inset = borderWidth_ / 2;
    QPainterPath path;
    path.addRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), cornerRadius_, cornerRadius_);
    p.fillPath(path, fillColor_);
    if (borderWidth_ > 0) {
        p.setPen(QPen(strokeColor_, borderWidth_));
        p.drawPath(path);
    }
    if (!icon().isNull()) {
        const QSize s = iconSize();
        const QRect iconRect(QPoint((width() - s.width()) / 2, (height() - s.height()) / 2), s);
        icon().paint(&p, iconRect);
    }
    p.setPen(titleColor_);
    p.drawText(rect(), Qt::AlignCenter, text());
    if (hasFocus()) {
        // Keyboard focus: a thin ring inside the edge, in the title's colour.
        QColor ring = titleColor_;
        ring.setAlphaF(0.6);
        p.setPen(QPen(ring, 1.5));
        p.setBrush(Qt::NoBrush);
        const qreal r = qMax<qreal>(0, cornerRadius_ - 2);
        p.drawRoundedRect(QRectF(rect()).adjusted(3.5, 3.5, -3.5, -3.5), r, r);
    }
}

} // namespace velocast
