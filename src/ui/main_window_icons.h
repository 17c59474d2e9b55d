#pragma once

#include <QIcon>
#include <QPixmap>

namespace velocast {

// The main window's own artwork, drawn in code so it stays sharp at any scale.
QPixmap homeWifiImage(int size, qreal dpr = 1.0);   // "home_wifi": the Wi-Fi fan
QPixmap homeWireImage(int size, qreal dpr = 1.0);   // "home_wire": a network plug
QPixmap noNetworkImage(int size, qreal dpr = 1.0);  // crossed-out fan for the no-network view
QIcon velocastAppIcon();                            // the program's icon

} // namespace velocast
