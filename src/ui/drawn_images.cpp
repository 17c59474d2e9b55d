#include "ui/drawn_images.h"

#include <QPainter>
#include <QPainterPath>

namespace velocast {

namespace {
// A rounded chevron pointing up or down, in the panel's grey.
void drawChevron(QPainter &p, QSizeF s, bool up)
{
    QPen pen(QColor(102, 110, 128), qMax<qreal>(1.5, s.width() / 8), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.setPen(pen);
    const qreal w = s.width(), h = s.height();
    const qreal top = h * 0.35, bottom = h * 0.65;
    QPainterPath path;
    if (up) {
        path.moveTo(w * 0.2, bottom);
        path.lineTo(w * 0.5, top);
        path.lineTo(w * 0.8, bottom);
    } else {
        path.moveTo(w * 0.2, top);
        path.lineTo(w * 0.5, bottom);
        path.lineTo(w * 0.8, top);
    }
    p.drawPath(path);
}
} // namespace

QPixmap drawnImage(const QString &name, QSize size, qreal devicePixelRatio)
{
    const bool up = name == QLatin1String("miracast_arrow_up");
    if (!up && name != QLatin1String("miracast_arrow_down")) return {};
    QPixmap pixmap(size * devicePixelRatio);
    pixmap.setDevicePixelRatio(devicePixelRatio);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    drawChevron(p, QSizeF(size), up);
    return pixmap;
}

} // namespace velocast
