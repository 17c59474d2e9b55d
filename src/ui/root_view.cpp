#include "ui/root_view.h"

#include <QPainter>
#include <QPainterPath>

namespace velocast {

RootView::RootView(QWidget *parent)
    : QWidget(parent)
{ }

void RootView::setBackgroundColor(const QColor &color)
{
    backgroundColor_ = color;
    update();
}

void RootView::setCornerRadius(qreal radius)
{
    cornerRadius_ = radius;
    update();
}

void RootView::setBorderWidth(qreal width)
{
    borderWidth_ = width;
    update();
}

void RootView::setBorderColor(const QColor &color)
{
    borderColor_ = color;
    update();
}

void RootView::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    // The border lies inside the bounds, as a layer border does.
    const qreal inset = borderWidth_ / 2;
    const QRectF r = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    QPainterPath path;
    path.addRoundedRect(r, cornerRadius_, cornerRadius_);
    p.fillPath(path, backgroundColor_);
    if (borderWidth_ > 0 && borderColor_.alpha() > 0) {
        p.setPen(QPen(borderColor_, borderWidth_));
        p.drawPath(path);
    }
}

} // namespace velocast
