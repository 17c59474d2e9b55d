#include "ui/loading_animation.h"

#include "ui/texts.h"

#include <QPainter>

namespace velocast {

LoadingAnimation::LoadingAnimation(QWidget *parent)
    : QWidget(parent)
{
    setAccessibleName(text::kLoading);
    setFixedSize(sizeHint());
    timer_.setInterval(80);
    connect(&timer_, &QTimer::timeout, this, [this] {
        frame_ = (frame_ + 1) % kSpokes;
        update();
    });
}

void LoadingAnimation::setColor(const QColor &color)
{
    color_ = color;
    update();
}

void LoadingAnimation::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    timer_.start();
}

void LoadingAnimation::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    timer_.stop();
}

void LoadingAnimation::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal side = qMin(width(), height());
    const qreal outer = side / 2 - 2;
    const qreal inner = outer * 0.5;
    p.translate(width() / 2.0, height() / 2.0);
    QPen pen(color_, side / 11.0, Qt::SolidLine, Qt::RoundCap);
    for (int i = 0; i < kSpokes; ++i) {
        // The head spoke is opaque; the ones behind it fade out.
        const int age = (frame_ - i + kSpokes) % kSpokes;
        QColor c = color_;
        c.setAlphaF(1.0 - 0.8 * age / (kSpokes - 1));
        pen.setColor(c);
        p.setPen(pen);
        p.save();
        p.rotate(i * 360.0 / kSpokes);
        p.drawLine(QPointF(0, -inner), QPointF(0, -outer));
        p.restore();
    }
}

} // namespace velocast
