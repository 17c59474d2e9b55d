#pragma once

#include <QIcon>
#include <QPixmap>

class QPainter;

namespace velocast {

// The main window's own artwork, drawn in code so it stays sharp at any scale.
QPixmap homeWifiImage(int size, qreal dpr = 1.0);   // "home_wifi": the Wi-Fi fan
QPixmap homeWireImage(int size, qreal dpr = 1.0);   // "home_wire": a network plug
QPixmap noNetworkImage(int size, qreal dpr = 1.0);  // crossed-out fan for the no-network view
QIcon velocastAppIcon();                            // the program's icon
QPixmap velocastIconImage(int size);                // that icon at one size, square
// Paints the program's icon into the square (0, 0, size, size) of any paint device (pixmaps
// for the window, PNG and SVG files for the desktop's icon theme).
void paintVelocastIcon(QPainter &p, qreal size);

} // namespace velocast
