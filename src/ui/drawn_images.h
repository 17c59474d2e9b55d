#pragma once

#include <QPixmap>
#include <QString>

namespace velocast {

// Small pictures the panels use, drawn with QPainter at the requested logical size and
// device pixel ratio (no image files). Known names: "miracast_arrow_up",
// "miracast_arrow_down". An unknown name gives a null pixmap.
QPixmap drawnImage(const QString &name, QSize size, qreal devicePixelRatio = 1.0);

} // namespace velocast
