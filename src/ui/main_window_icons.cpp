#include "ui/main_window_icons.h"

#include <QPainter>
#include <QPainterPath>

namespace velocast {

namespace {
const QColor kAccent(128, 130, 255);

QPixmap canvas(int size, qreal dpr)
{
    QPixmap pm(QSize(size, size) * dpr);
    pm.setDevicePixelRatio(dpr);
    pm.fill(Qt::transparent);
    return pm;
}

void drawFan(QPainter &p, int size, const QColor &color)
{
    const qreal s = size;
    QPen pen(color, s * 0.09, Qt::SolidLine, Qt::RoundCap);
    p.setPen(pen);
    const QPointF centre(s / 2, s * 0.82);
    for (int i = 1; i <= 3; ++i) {
        const qreal r = s * 0.22 * i;
        p.drawArc(QRectF(centre.x() - r, centre.y() - r, 2 * r, 2 * r), 45 * 16, 90 * 16);
    }
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawEllipse(centre, s * 0.07, s * 0.07);
}
} // namespace

QPixmap homeWifiImage(int size, qreal dpr)
{
    QPixmap pm = canvas(size, dpr);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    drawFan(p, size, kAccent);
    return pm;
}

QPixmap homeWireImage(int size, qreal dpr)
{
    QPixmap pm = canvas(size, dpr);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    p.setPen(Qt::NoPen);
    p.setBrush(kAccent);
    // An Ethernet jack: body with a latch notch, and three contacts.
    QPainterPath body;
    body.addRoundedRect(QRectF(s * 0.15, s * 0.2, s * 0.7, s * 0.55), s * 0.08, s * 0.08);
    QPainterPath notch;
    notch.addRect(QRectF(s * 0.38, s * 0.62, s * 0.24, s * 0.14));
    p.drawPath(body.subtracted(notch));
    p.setBrush(Qt::white);
    for (int i = 0; i < 3; ++i) p.drawRect(QRectF(s * (0.3 + 0.15 * i), s * 0.28, s * 0.08, s * 0.16));
    p.setBrush(kAccent);
    p.drawRect(QRectF(s * 0.44, s * 0.76, s * 0.12, s * 0.2));
    return pm;
}

QPixmap noNetworkImage(int size, qreal dpr)
{
    QPixmap pm = canvas(size, dpr);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    drawFan(p, size, QColor(190, 194, 204));
    p.setPen(QPen(QColor(235, 87, 87), size * 0.08, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(size * 0.18, size * 0.18), QPointF(size * 0.82, size * 0.82));
    return pm;
}

void paintVelocastIcon(QPainter &p, qreal s)
{
    p.save();
    p.setRenderHint(QPainter::Antialiasing);
    // A screen with a cast wave in the corner.
    p.setPen(Qt::NoPen);
    p.setBrush(kAccent);
    p.drawRoundedRect(QRectF(s * 0.06, s * 0.06, s * 0.88, s * 0.88), s * 0.2, s * 0.2);
    p.setPen(QPen(Qt::white, qMax(1.0, s * 0.06), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(QRectF(s * 0.22, s * 0.26, s * 0.56, s * 0.38), s * 0.05, s * 0.05);
    const QPointF corner(s * 0.22, s * 0.8);
    for (int i = 1; i <= 2; ++i) {
        const qreal r = s * 0.1 * i;
        p.drawArc(QRectF(corner.x() - r, corner.y() - r, 2 * r, 2 * r), 0, 90 * 16);
    }
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawEllipse(corner, s * 0.035, s * 0.035);
    p.restore();
}

QPixmap velocastIconImage(int size)
{
    QPixmap pm = canvas(size, 1.0);
    QPainter p(&pm);
    paintVelocastIcon(p, size);
    return pm;
}

QIcon velocastAppIcon()
{
    QIcon icon;
    for (int size : {16, 32, 48, 64, 128, 256}) icon.addPixmap(velocastIconImage(size));
    return icon;
}

} // namespace velocast
